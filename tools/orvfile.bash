# Completion of orvfile for bash. Written by script/generate; do not edit.
# shellcheck shell=bash

_orvfile() {
    local word=${COMP_WORDS[COMP_CWORD]} one command='' options ended='' kind='' i
    local -A values=() # the options that have a value, and what completes it
    # What completes the next operands; the last one repeats.
    local -a kinds=('exists move copy mkdir list row page get set unset explain completion')
    options='-h --help --version -q --quiet --syslog'
    for ((i = 1; i < COMP_CWORD; i++)); do
        one=${COMP_WORDS[i]}
        if [[ -n $kind ]]; then
            kind=''
        elif [[ -z $ended && $one == -- ]]; then
            ended=1
        elif [[ -z $ended && $one == -* ]]; then
            kind=${values[$one]-}
        elif [[ -z $command ]]; then
            command=$one
            case $command in
                exists)
                    options='-h --help -q --quiet --syslog'
                    kinds=('file')
                    ;;
                move)
                    options='-h --help -t --target-directory -n --no-replace --preserve --durable --verify --no-durable --no-verify --plain -q --quiet --syslog'
                    values=([-t]='directory' [--target-directory]='directory')
                    kinds=('file')
                    ;;
                copy)
                    options='-h --help -t --target-directory -n --no-replace --preserve --durable --verify --no-durable --no-verify -q --quiet --syslog'
                    values=([-t]='directory' [--target-directory]='directory')
                    kinds=('file')
                    ;;
                mkdir)
                    options='-h --help -m --mode --exact-mode -q --quiet --syslog'
                    values=([-m]='nothing' [--mode]='nothing')
                    kinds=('directory')
                    ;;
                list)
                    options='-h --help --include --exclude --older-than --larger-than --recursive --follow --sort --reverse --skip --limit --long --full-path -0 --null --json -q --quiet --syslog'
                    values=([--include]='nothing' [--exclude]='nothing' [--older-than]='nothing' [--larger-than]='nothing' [--sort]='name time size' [--skip]='nothing' [--limit]='nothing')
                    kinds=('directory')
                    ;;
                row)
                    options='-h --help --csv --tsv --delimiter --encoding --table-end --raw -q --quiet --syslog'
                    values=([--delimiter]='nothing' [--encoding]='nothing')
                    kinds=('nothing')
                    ;;
                page)
                    options='-h --help --allow-empty --watch -q --quiet --syslog'
                    kinds=('file' 'file')
                    ;;
                get)
                    options='-h --help --delimiter --comment --default --shell --json --lint -q --quiet --syslog'
                    values=([--delimiter]='nothing' [--comment]='nothing' [--default]='nothing')
                    kinds=('file' 'nothing')
                    ;;
                set)
                    options='-h --help --delimiter --comment -q --quiet --syslog'
                    values=([--delimiter]='nothing' [--comment]='nothing')
                    kinds=('file' 'nothing')
                    ;;
                unset)
                    options='-h --help --delimiter --comment -q --quiet --syslog'
                    values=([--delimiter]='nothing' [--comment]='nothing')
                    kinds=('file' 'nothing')
                    ;;
                explain)
                    options='-h --help --json -q --quiet --syslog'
                    kinds=('nothing')
                    ;;
                completion)
                    options='-h --help -q --quiet --syslog'
                    kinds=('bash zsh fish')
                    ;;
                *)
                    kinds=('nothing')
                    ;;
            esac
        elif ((${#kinds[@]} > 1)); then
            kinds=("${kinds[@]:1}")
        fi
    done
    if [[ -z $kind && -z $ended && $word == -* ]]; then
        kind=$options
    elif [[ -z $kind ]]; then
        kind=${kinds[0]}
    fi
    COMPREPLY=()
    case $kind in
        file)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -f -- "$word")
            ;;
        directory)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -d -- "$word")
            ;;
        nothing) ;;
        *)
            mapfile -t COMPREPLY < <(compgen -W "$kind" -- "$word")
            ;;
    esac
}
complete -F _orvfile orvfile
