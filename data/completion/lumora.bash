# bash completion of lumora and lumora-sim: their commands and options as the
# tools' own help lists them, and subject names of the running simulator
# (lumora-sim ctl status) or else of a scenario file ($LUMORA_SCENARIO, or the
# installed sample).

# The subjects a JSON text names ("Ctx/...", "Pref/...", "I/..."), one a line.
_lumora_subjects_in() {
    grep -oE '"[A-Z][A-Za-z]*(/[A-Za-z0-9_.-]+)+"' | tr -d '"' | sort -u
}

_lumora_subjects() {
    local text sim share
    text=$(lumora-sim ctl status 2>/dev/null)
    if [ -z "$text" ]; then
        sim=$(command -v lumora-sim 2>/dev/null)
        share=${sim:+$(dirname "$sim")/../share/lumora-sim/sample-tv.json}
        local file
        for file in "${LUMORA_SCENARIO:-}" "$share" /usr/share/lumora-sim/sample-tv.json; do
            if [ -n "$file" ] && [ -r "$file" ]; then
                text=$(cat "$file")
                break
            fi
        done
    fi
    printf '%s\n' "$text" | _lumora_subjects_in
}

# The words of the "commands:" block of lumora --help.
_lumora_commands() {
    lumora --help 2>/dev/null | sed -n '/^commands:/,/^$/p' | awk 'NR > 1 && NF { print $1 }'
}

# The commands of lumora-sim ctl --help, before its examples.
_lumora_sim_ctl_commands() {
    lumora-sim ctl --help 2>/dev/null | sed '/^$/,$d' | awk 'NR > 1 { print $1 }'
}

# COMPREPLY: the words of the list $1 that begin with $2.
_lumora_reply() {
    mapfile -t COMPREPLY < <(compgen -W "$1" -- "$2")
}

_lumora() {
    local cur=${COMP_WORDS[COMP_CWORD]}
    local i command="" position=0
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
            -*) ;;
            *)
                [ -z "$command" ] && command=${COMP_WORDS[i]}
                position=$((position + 1))
                ;;
        esac
    done
    if [[ $cur == -* ]]; then
        _lumora_reply "-v --pretty --help --version --initial --timeout --watch --source --service-id" "$cur"
        return
    fi
    if [ -z "$command" ]; then
        _lumora_reply "$(_lumora_commands)" "$cur"
        return
    fi
    case $command in
        read | write | request | subscribe)
            [ "$command" = subscribe ] || [ "$position" -eq 1 ] && _lumora_reply "$(_lumora_subjects)" "$cur" ;;
        settings) [ "$position" -eq 1 ] && _lumora_reply "get set" "$cur" ;;
        hints) [ "$position" -eq 1 ] && _lumora_reply "source setting channel" "$cur" ;;
        stats) [ "$position" -eq 1 ] && _lumora_reply "onoff app channel genre content" "$cur" ;;
        channels) [ "$position" -eq 1 ] && _lumora_reply "list reorder remove watch" "$cur" ;;
        action) [ "$position" -eq 1 ] && _lumora_reply "firstscreen" "$cur" ;;
    esac
    return 0
}

# lumora-sim run: its options, then after -- a command, then that command's
# words as files.
_lumora_sim_run() {
    local cur=${COMP_WORDS[COMP_CWORD]} i
    for ((i = 2; i < COMP_CWORD; i++)); do
        [ "${COMP_WORDS[i]}" = -- ] || continue
        if [ $((i + 1)) -eq "$COMP_CWORD" ]; then
            mapfile -t COMPREPLY < <(compgen -c -- "$cur")
        else
            mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        fi
        return
    done
    _lumora_reply "--scenario --broadcast --replay --speed --loop --http --http-allow-remote --shared-tmp --log --help --" "$cur"
}

_lumora_sim() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    case $prev in
        --scenario | --replay | --log)
            mapfile -t COMPREPLY < <(compgen -f -- "$cur")
            return
            ;;
    esac
    if [ "${COMP_WORDS[1]}" = run ] && [ "$COMP_CWORD" -gt 1 ]; then
        _lumora_sim_run
        return
    fi
    if [ "${COMP_WORDS[1]}" != ctl ] || [ "$COMP_CWORD" -eq 1 ]; then
        _lumora_reply "ctl run --scenario --broadcast --help --version" "$cur"
        return
    fi
    local at=2
    [ "${COMP_WORDS[2]}" = --address ] && at=4
    if [ "$COMP_CWORD" -eq "$at" ]; then
        _lumora_reply "$(_lumora_sim_ctl_commands) --address --help" "$cur"
        return
    fi
    if [ "$COMP_CWORD" -eq $((at + 1)) ]; then
        case ${COMP_WORDS[at]} in
            emit | set | clear | code | delay | stats) _lumora_reply "$(_lumora_subjects)" "$cur" ;;
            event) _lumora_reply "list current program stb" "$cur" ;;
        esac
    fi
    return 0
}

complete -F _lumora lumora
complete -F _lumora_sim lumora-sim
