# Completion of keldwickctl's command line for bash.

# The words that may stand after the commands so far (options and their values left out).
_keldwickctl_words() {
    case "$*" in
        '') echo 'init status identities settings events feed directory --root --version --help' ;;
        init) echo '--server --protocol --help' ;;
        status) echo '--json --prometheus' ;;
        identities) echo '--json' ;;
        settings) echo 'list get set delete' ;;
        events) echo 'write import list clear' ;;
        feed) echo 'samba-audit xml json forget' ;;
        'feed forget') ;;
        'feed '*) echo '--log --name --once --dry-run' ;;
        directory) echo 'lookup check' ;;
        'settings set') echo "--type $(_keldwickctl_settings)" ;;
        'settings get' | 'settings delete') _keldwickctl_settings ;;
        'settings set IdentProtocol') echo 'auto tcps tcp' ;;
        'events write') echo '--id --log --type --source --computer --time --data --' ;;
        'events import') echo '--log --since --dry-run --wait' ;;
        'events list') echo '--log --last --json' ;;
        'events clear') echo '--log' ;;
        'directory lookup') echo '--json' ;;
    esac
}

_keldwickctl_settings() { echo 'IdentServer IdentProtocol AdServer Heartbeat LogonTTL DebugOutput Shutdown'; }

_keldwickctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} said=() i
    COMPREPLY=()
    case $previous in
        --prometheus) mapfile -t COMPREPLY < <(compgen -f -- "$current") && return ;;
        --root) mapfile -t COMPREPLY < <(compgen -d -- "$current") && return ;;
        --log) mapfile -t COMPREPLY < <(compgen -W 'Security Application' -- "$current") && return ;;
        --protocol) mapfile -t COMPREPLY < <(compgen -W 'auto tcps tcp' -- "$current") && return ;;
        --type)
            local types='sz dword qword binary multi_sz expand_sz'
            [[ " ${COMP_WORDS[*]} " == *' write '* ]] && types='error warning information audit-success audit-failure'
            mapfile -t COMPREPLY < <(compgen -W "$types" -- "$current") && return
            ;;
        --server | --id | --source | --computer | --time | --data | --last | --name | --since) return ;;
    esac
    for ((i = 1; i < COMP_CWORD; ++i)); do
        case ${COMP_WORDS[i]} in
            --root | --log | --protocol | --type | --server | --last | --name | --since | --prometheus) ((++i)) ;;
            -*) ;;
            *) said+=("${COMP_WORDS[i]}") ;;
        esac
    done
    mapfile -t COMPREPLY < <(compgen -W "$(_keldwickctl_words "${said[@]}")" -- "$current")
    if [[ ${said[*]} =~ ^('events import'|'feed samba-audit'|'feed json')$ && $current != -* ]]; then
        mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -f -- "$current")
    fi
}

complete -F _keldwickctl keldwickctl
