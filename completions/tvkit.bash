# bash completion for tvkit, the command-line client of tvd.
# Self-contained: needs bash's own compgen only, not the bash-completion
# helpers.

_tvkit()
{
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}
    local commands='list match add remove elect unelect ready access hold release raw status help'
    local i cmd=
    COMPREPLY=()

    # The command is the first word that is not a global option or the
    # service name after --service (bash may split "--service=NAME" at "=").
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
        --service | -S)
            [[ ${COMP_WORDS[i+1]} == = ]] && ((i++))
            ((i++))
            ;;
        -*) ;;
        *)
            cmd=${COMP_WORDS[i]}
            break
            ;;
        esac
    done

    if [[ -z $cmd ]]; then
        case $prev in
        --service | -S | =) return 0 ;;  # a service name or socket path
        esac
        if [[ $cur == -* ]]; then
            COMPREPLY=($(compgen -W '--service --help --version' -- "$cur"))
        else
            COMPREPLY=($(compgen -W "$commands" -- "$cur"))
        fi
        return 0
    fi

    # -h/--help is taken as a command's first argument only.
    local options= files= first=
    ((i == COMP_CWORD - 1)) && first=--help
    case $cmd in
    list | elect | unelect | ready | access | release | status) options='--json' ;;
    match)
        [[ $prev == --flags ]] && return 0
        options='--json --all-versions --duplicates --system-only --all --flags'
        ;;
    add | remove) options='--json' files=1 ;;
    hold) options='--json --apps' files=1 ;;
    raw) ;;
    help)
        [[ -n $first ]] && COMPREPLY=($(compgen -W "$commands" -- "$cur"))
        return 0
        ;;
    *) return 0 ;;
    esac

    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "$options $first" -- "$cur"))
    elif [[ -n $files ]]; then
        # Bundles and applications are directories; plain files are offered
        # too, since any path may be named.
        compopt -o filenames 2>/dev/null
        local IFS=$'\n'
        COMPREPLY=($(compgen -f -- "$cur"))
    fi
    return 0
}
complete -F _tvkit tvkit
