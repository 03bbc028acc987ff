# Bash completion for tavrelInfo(1).                                              -*- sh -*-

_tavrelInfo()
{
    local current=${COMP_WORDS[COMP_CWORD]}
    if [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "--help --json --version" -- "$current")
        return
    fi
    compopt -o filenames
    mapfile -t COMPREPLY < <(compgen -d -- "$current")
}

complete -F _tavrelInfo tavrelInfo
