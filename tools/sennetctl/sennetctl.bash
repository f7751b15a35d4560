# SPDX-License-Identifier: MIT
# Bash completion for sennetctl: commands, options, and the services on the bus.
_sennetctl_options() {
    local common="--json --help" message="--code --type --buffer"
    case $1 in
    send) echo "$common $message --async --timeout --reply-buffer" ;;
    bench) echo "$common $message --count --timeout" ;;
    emit) echo "$common $message --as" ;;
    listen) echo "$common --from --any" ;;
    ping) echo "$common --count --timeout" ;;
    wait) echo "$common --timeout" ;;
    list | monitor) echo "$common" ;;
    *) echo "$common --version" ;;
    esac
}

_sennetctl() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command candidates i
    for ((i = 1; i < COMP_CWORD; i++)); do
        if [[ ${COMP_WORDS[i]} != -* ]]; then
            command=${COMP_WORDS[i]}
            break
        fi
    done
    case $before in
    --buffer | --reply-buffer | -b | -r)
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        return
        ;;
    esac
    if [[ $word == -* ]]; then
        candidates=$(_sennetctl_options "$command")
    elif [[ -z $command ]]; then
        candidates="list send listen emit wait ping monitor bench"
    elif [[ $before == --from || $before == -f || $before == --as || $before == -A ||
        $command == monitor ||
        $before == "$command" && " send ping bench listen " == *" $command "* ]]; then
        candidates=$(sennetctl list 2>/dev/null | awk 'NR > 1 { print $1 }')
    fi
    mapfile -t COMPREPLY < <(compgen -W "$candidates" -- "$word")
}
complete -F _sennetctl sennetctl
