# Bash completion for tavrelStack(1).                                             -*- sh -*-

_tavrelStack()
{
    local current=${COMP_WORDS[COMP_CWORD]}
    if [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "--all-frames --help --version" -- "$current")
        return
    fi
    compopt -o filenames
    mapfile -t COMPREPLY < <(compgen -W "$(pgrep -u "$USER" -x tavrel)" -- "$current"
                             compgen -d -- "$current"; compgen -f -X '!*.dmp' -- "$current")
}

complete -F _tavrelStack tavrelStack
