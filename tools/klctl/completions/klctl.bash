# Completion of klctl for bash: klctl itself knows what may stand where the cursor is.

_klctl() {
  local line=${COMP_LINE:0:COMP_POINT} lines last kept candidate
  local -a words
  read -r -a words <<<"$line"
  [[ $line == *[[:space:]] ]] && words+=("")
  last=${words[-1]}
  mapfile -t lines < <("${words[0]}" complete -- "${words[@]:1}" 2>/dev/null)
  if [[ ${lines[0]-} == :files ]]; then
    compopt -o default
    return
  fi
  # Readline takes = and : for the ends of words, and replaces only what follows them.
  kept=
  [[ $last != *[=:]* ]] || kept=${last%"${last##*[=:]}"}
  for candidate in "${lines[@]}"; do
    candidate=${candidate%%$'\t'*}
    [[ $candidate != *= ]] || compopt -o nospace
    COMPREPLY+=("${candidate#"$kept"}")
  done
}

complete -F _klctl klctl
