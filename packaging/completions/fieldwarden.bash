# SPDX-License-Identifier: Apache-2.0
# What bash offers behind "fieldwarden" on Tab: subcommands, options, and the values that options take.

# The subcommand that the words name, as "shim set" or "dump fid"; options and their values are passed over.
_fieldwarden_command() {
    local word command='' is_value=''
    for word in "$@"; do
        if [[ $is_value ]]; then
            is_value=''
            continue
        fi
        case $word in
            --lock | --time-scale | --data | --system | --for | --since | --out | --plot | --frequency | --at | --wait) is_value=yes ;;
            -*) ;;
            *)
                case $command in
                    '') command=$word ;;
                    shim | log | lock | at | dump) command+=" $word" ;;
                esac
                ;;
        esac
    done
    printf '%s' "$command"
}

_fieldwarden() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local session='--simulate --lock --time-scale --data --help' form='--json --quiet' words='' paths=''
    case $previous in
        --lock) words='mock real' ;;
        --system) words='8 9 10 11' ;;
        --data) paths=-d ;;
        --out | --plot) paths=-f ;;
        --time-scale | --for | --since | --frequency | --at | --wait) ;;
        *)
            case $(_fieldwarden_command "${COMP_WORDS[@]:1:COMP_CWORD-1}") in
                '') words='run registers dump lock shim at log plot temperature --help --version' ;;
                run) words="$session --system --frequency --at --until-stable --cold --for --json" ;;
                registers) words="$session --system $form" ;;
                dump) words="fid fft canopen --frequency $session --system $form" ;;
                'dump canopen') words="$session --system $form" paths=-d ;;
                'dump '*) words="--frequency $session --system $form" paths=-f ;;
                lock) words='scan --help' ;;
                'lock scan') words="--plot $session --system $form" ;;
                shim) words='list get set current load save relations system --help' ;;
                'shim system') words="8 9 10 11 $session $form" ;;
                'shim load' | 'shim save') words="$session --system $form" paths=-f ;;
                'shim '*) words="$session --system $form" ;;
                at) words='exchange flows --help' ;;
                'at exchange') words="--wait --no-sample $session --system $form" ;;
                'at flows') words="$session --system $form" ;;
                log) words='list show plot --help' ;;
                'log list') words="--all --simulate --data --help $form" ;;
                'log show') words="--since --csv --simulate --data --help $form" ;;
                'log plot') words="--out --since --simulate --data --help $form" ;;
                temperature) words="$session --system $form" ;;
                plot) words="--out --fid --fft --help $form" paths=-f ;;
            esac
            # Options are offered to those who begin one, where something else may stand too.
            [[ $paths && $current != -* ]] && words=''
            ;;
    esac
    mapfile -t COMPREPLY < <(
        compgen -W "$words" -- "$current"
        [[ $paths && $current != -* ]] && compgen "$paths" -- "$current"
    )
    if [[ $paths ]]; then
        compopt -o filenames 2>/dev/null # Quotes names and puts "/" behind folders.
    fi
}

complete -F _fieldwarden fieldwarden
