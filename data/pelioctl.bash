# bash completion for pelioctl
_pelioctl() {
    local cur prev words cword
    _init_completion || return
    local commands="status sync launch voice-app event setting prefs db help"
    if [ "$cword" -eq 1 ]; then
        COMPREPLY=($(compgen -W "$commands --help --version" -- "$cur"))
        return
    fi
    case "$prev" in
        --cert) _filedir; return ;;
        --server | --locale | --app) return ;;
        --state) COMPREPLY=($(compgen -W "foreground background" -- "$cur")); return ;;
    esac
    case "${words[1]}" in
        status) COMPREPLY=($(compgen -W "--json" -- "$cur")) ;;
        sync) COMPREPLY=($(compgen -W "--force --server --cert --locale --wait" -- "$cur")) ;;
        launch) COMPREPLY=($(compgen -W "--app EVENT_TYPE= SET_IP= SET_PORT= SET_CERT_PATH= SET_LOCALE= SET_IS_FORCE= CLEAR_SERVER= EVENT_DATA= TYPE=" -- "$cur"))
            compopt -o nospace ;;
        voice-app) COMPREPLY=($(compgen -W "--state" -- "$cur")) ;;
        event) [ "$cword" -eq 2 ] && COMPREPLY=($(compgen -W "low-memory low-battery" -- "$cur")) ;;
        setting) [ "$cword" -eq 2 ] && COMPREPLY=($(compgen -W "get set" -- "$cur")) ;;
        help) [ "$cword" -eq 2 ] && COMPREPLY=($(compgen -W "$commands" -- "$cur")) ;;
    esac
} && complete -F _pelioctl pelioctl
