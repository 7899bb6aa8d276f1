# Completion of keldwick-server's command line for bash.

_keldwick_server() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    COMPREPLY=()
    case $previous in
        --cert | --key) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
        --host) mapfile -t COMPREPLY < <(compgen -A hostname -- "$current") ;;
        --http) mapfile -t COMPREPLY < <(compgen -W '8306 127.0.0.1:8306' -- "$current") ;;
        --http-name | --tcp-port | --tls-port | --status | --time-to-live) ;;
        *)
            local options='--host --tcp-port --tls-port --cert --key --status --json --http --http-name --time-to-live'
            mapfile -t COMPREPLY < <(compgen -W "$options --help --version" -- "$current")
            ;;
    esac
}
complete -F _keldwick_server keldwick-server
