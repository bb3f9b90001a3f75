# Completion of rova_umem for bash.

_rova_umem()
{
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
    local command=${COMP_WORDS[1]} words=""
    COMPREPLY=()

    if ((COMP_CWORD == 1)); then
        mapfile -t COMPREPLY < <(
            compgen -W "demo share read write inspect --help --version" -- "$current")
        return
    fi
    case $previous in
        --kind)
            mapfile -t COMPREPLY < <(compgen -W "host dmabuf gpu" -- "$current")
            return
            ;;
        --offset | --length | --seconds)
            return
            ;;
    esac
    if [[ $current == -* ]]; then
        case $command in
            share) words="--out --kind --writable --seconds" ;;
            read) words="--offset --length --out" ;;
            write) words="--offset" ;;
            inspect) words="--json" ;;
        esac
        mapfile -t COMPREPLY < <(compgen -W "$words --help" -- "$current")
        return
    fi
    compopt -o filenames 2> /dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
}

complete -F _rova_umem rova_umem
