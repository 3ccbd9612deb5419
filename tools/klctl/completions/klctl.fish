# Completion of klctl for fish: klctl itself knows what may stand where the cursor is.

function __klctl_words
    set -l words (commandline -opc)
    $words[1] complete -- $words[2..-1] (commandline -ct) 2>/dev/null
end

complete -c klctl -f -n 'not string match -q -- :files (__klctl_words)' -a '(__klctl_words)'
complete -c klctl -F -n 'string match -q -- :files (__klctl_words)'
