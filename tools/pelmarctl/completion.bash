# Completion of pelmarctl for bash.

_pelmarctl()
{
    local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local commands="serve connect send notify listen watch list ping policy doctor"
    local global="--bus --timeout --json --quiet --verbose --color --version --help"
    COMPREPLY=()

    # What a value is.
    case $previous in
        --role | --as) mapfile -t COMPREPLY < <(compgen -W "service client" -- "$word"); return ;;
        --color) mapfile -t COMPREPLY < <(compgen -W "auto always never" -- "$word"); return ;;
        --format) mapfile -t COMPREPLY < <(compgen -W "raw line hex" -- "$word"); return ;;
        -f | --file | -o | --output | --check)
            mapfile -t COMPREPLY < <(compgen -f -- "$word"); return ;;
        --exec) mapfile -t COMPREPLY < <(compgen -c -- "$word"); return ;;
        --service-user | --client-user)
            mapfile -t COMPREPLY < <(compgen -u -- "$word"); return ;;
        --service-group | --client-group)
            mapfile -t COMPREPLY < <(compgen -g -- "$word"); return ;;
        --bus | --timeout | -m | --message | --to | -n | --count | -c | -i | --interval | -s | \
            --size | --jobs | --exec-timeout | --exec-max) return ;;
    esac

    # The command is the first word that is one; a value before it is passed over.
    local command="" i
    for ((i = 1; i < COMP_CWORD; ++i)); do
        case ${COMP_WORDS[i]} in
            --bus | --timeout | --color) ((++i)) ;;
            -*) ;;
            *) command=${COMP_WORDS[i]}; break ;;
        esac
    done

    local target="--message --file --hex --to --all --role" options=""
    case $command in
        "")
            mapfile -t COMPREPLY < <(compgen -W "$commands $global" -- "$word")
            return ;;
        serve | connect) options="--echo --exec --exec-timeout --exec-max --jobs --format" ;;
        send) options="$target --output --format" ;;
        notify) options=$target ;;
        listen) options="--count --format --role" ;;
        ping) options="--count --interval --size --to --role" ;;
        policy) options="--service-user --service-group --client-user --client-group --check" ;;
        doctor) options="--as" ;;
    esac
    if [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options $global" -- "$word")
    fi
} && complete -F _pelmarctl pelmarctl
