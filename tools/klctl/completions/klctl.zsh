#compdef klctl
# Completion of klctl for zsh: klctl itself knows what may stand where the cursor is.

_klctl() {
  local line
  local -a lines plain plain_shown open open_shown
  lines=("${(@f)$(${(Q)words[1]} complete -- "${(@Q)words[2,CURRENT-1]}" "$PREFIX" 2>/dev/null)}")
  if [[ $lines[1] == :files ]]; then
    _files
    return
  fi
  for line in $lines; do
    local word=${line%%$'\t'*} about=""
    [[ $line == *$'\t'* ]] && about=${line#*$'\t'}
    if [[ $word == *= ]]; then
      open+=("$word")
      open_shown+=("$word${about:+  -- $about}")
    else
      plain+=("$word")
      plain_shown+=("$word${about:+  -- $about}")
    fi
  done
  (( $#plain )) && compadd -l -d plain_shown -- "${plain[@]}"
  (( $#open )) && compadd -l -S "" -d open_shown -- "${open[@]}"
}

_klctl "$@"
