# Completion of the three programs' command lines for bash. What may follow is asked of the program's own --help, so that it
# is what this version knows; only words for values stand here.

# The commands and long options in keldwickctl's or keldwick-server's help.
_keldwick_help_words() {
    "$@" --help 2>/dev/null | awk '
        /^[A-Z]/ { commands = $1 == "Subcommands:" }
        commands && /^  [a-z]/ { print $1 }
        /^  (-[a-z],)?--/ { sub(/^-[a-z],/, "", $1); print $1 }'
}

# The names of the feeds that there are; the arguments are the program and the option --root, if given.
_keldwickctl_feeds() { "$@" status 2>/dev/null | awk '$1 == "feed" && $2 ~ /^[A-Za-z0-9_.-]+,$/ { sub(/,$/, "", $2); print $2 }'; }

_keldwickctl_settings() { echo 'IdentServer IdentProtocol AdServer Heartbeat LogonTTL DebugOutput Shutdown'; }

# The words that a value may have, after the option or the commands before it.
_keldwickctl_values() {
    case $1 in
        --log) echo 'Security Application' ;;
        --protocol) echo 'auto tcps tcp' ;;
        --type)
            case " ${COMP_WORDS[*]} " in
                *' write '*) echo 'error warning information audit-success audit-failure' ;;
                *) echo 'sz dword qword binary multi_sz expand_sz' ;;
            esac
            ;;
        'settings get' | 'settings set' | 'settings delete') _keldwickctl_settings ;;
        'settings set IdentProtocol') echo 'auto tcps tcp' ;;
        'settings set DebugOutput') echo 'log,append log,append,verbose log,rename,verbose,ad,tcp' ;;
    esac
}

_keldwickctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} said=() root=() i
    COMPREPLY=()
    case $previous in
        --prometheus) mapfile -t COMPREPLY < <(compgen -f -- "$current") && return ;;
        --root) mapfile -t COMPREPLY < <(compgen -d -- "$current") && return ;;
        --log | --protocol | --type)
            mapfile -t COMPREPLY < <(compgen -W "$(_keldwickctl_values "$previous")" -- "$current") && return
            ;;
        --server | --id | --source | --computer | --time | --since | --data | --last | --name | --user | --address) return ;;
    esac
    for ((i = 1; i < COMP_CWORD; ++i)); do
        case ${COMP_WORDS[i]} in
            --root) root=(--root "${COMP_WORDS[++i]}") ;;
            --log | --protocol | --type | --server | --last | --name | --prometheus | --user | --address | --since) ((++i)) ;;
            --id | --source | --computer | --time | --data) ((++i)) ;;
            -*) ;;
            *) said+=("${COMP_WORDS[i]}") ;;
        esac
    done
    local words="${said[*]}"
    mapfile -t COMPREPLY < <(compgen -W "$(_keldwickctl_values "$words")
        $(_keldwick_help_words "${COMP_WORDS[0]}" "${said[@]}")" -- "$current")
    if [[ $words == 'feed forget' ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_keldwickctl_feeds "${COMP_WORDS[0]}" "${root[@]}")" -- "$current")
    elif [[ $words =~ ^('events import'|'feed samba-audit'|'feed json')$ && $current != -* ]]; then
        mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -f -- "$current")
    fi
}

_keldwick() {
    local current=${COMP_WORDS[COMP_CWORD]} words
    COMPREPLY=()
    case ${COMP_WORDS[COMP_CWORD - 1]} in
        -PROTOCOL) words='AUTO TCPS TCP' ;;
        -SERVER | -AD_SERVER | -USER_NAME | -COMPUTER_NAME) return ;;
        *) words=$("${COMP_WORDS[0]}" --help 2>/dev/null | awk '/^  -/ { for (i = 1; i <= NF && $i ~ /^-/; ++i) print $i }') ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

_keldwick_server() {
    local current=${COMP_WORDS[COMP_CWORD]}
    COMPREPLY=()
    case ${COMP_WORDS[COMP_CWORD - 1]} in
        --cert | --key | --key-log) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
        --host | --tcp-port | --tls-port | --status | --http | --http-name | --time-to-live) ;;
        *) mapfile -t COMPREPLY < <(compgen -W "$(_keldwick_help_words "${COMP_WORDS[0]}")" -- "$current") ;;
    esac
}

complete -F _keldwickctl keldwickctl
complete -F _keldwick keldwick
complete -F _keldwick_server keldwick-server
