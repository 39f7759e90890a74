# SPDX-License-Identifier: Apache-2.0
# Completion of anti-cpu in bash; drawn by "anti-cpu completion bash".
_anti_cpu() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} choices='' options='' lines=''
    COMPREPLY=()
    if [ "$COMP_CWORD" -eq 1 ]; then
        choices='replay tune reference denies help completion run console top'
    else
        case ${COMP_WORDS[1]} in
            replay) choices='' options='-h --help --port --vlan --own-mac --fast-period --config -x --line --long-period --drain --chip-rules --memory-budget --captures --captures-quota --log --events --syslog --rates --interval --report --then --what-if --script --until --interactive --all --quiet --json' lines='-x --line --then --what-if' ;;
            tune) choices='' options='-h --help --flood --margin --write --port --vlan --own-mac --fast-period --config -x --line --json' lines='-x --line' ;;
            reference) choices='' options='-h --help' lines='' ;;
            denies) choices='' options='-h --help' lines='' ;;
            help) choices='show clear set filter hw-filter debug capture upload trunk run help quit' options='-h --help' lines='' ;;
            completion) choices='bash' options='-h --help' lines='' ;;
            run) choices='' options='-h --help --port --config -x --line --generic --wait --all --captures --captures-quota --log --events --syslog --metrics --control --operators --observers --stall --chip-rules --memory-budget' lines='-x --line' ;;
            console) choices='' options='-h --help --control -c --line --json' lines='-c --line' ;;
            top) choices='' options='-h --help --control --interval --page --once --no-colours' lines='' ;;
        esac
    fi
    case " $lines " in
        *" $before "*)
            local beginning=${word#[\'\"]}
            mapfile -t COMPREPLY < <("$1" completion line "${beginning//\\/}" 2>/dev/null)
            compopt -o filenames -o nospace 2>/dev/null || true
            return
            ;;
    esac
    case $word in
        -*) choices=$options ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$choices" -- "$word")
}
complete -o default -F _anti_cpu anti-cpu
