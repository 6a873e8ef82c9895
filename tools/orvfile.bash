# Completion of orvfile for bash.
# shellcheck shell=bash

_orvfile() {
    local word=${COMP_WORDS[COMP_CWORD]} commands='exists move copy mkdir list row page get set unset explain' command='' i
    local -A options=(
        [exists]=''
        [move]='-t --target-directory -n --no-replace --preserve --durable --no-durable --verify --no-verify --plain'
        [copy]='-t --target-directory -n --no-replace --preserve --durable --no-durable --verify --no-verify'
        [mkdir]='-m --mode --exact-mode'
        [list]='--include --exclude --older-than --larger-than --recursive --follow --sort --reverse --skip --limit
            --long --full-path -0 --null --json'
        [row]='--csv --tsv --delimiter --encoding --table-end --raw'
        [page]='--allow-empty --watch'
        [get]='--delimiter --comment --default --shell --json --lint'
        [set]='--delimiter --comment'
        [unset]='--delimiter --comment'
        [explain]='--json'
    )
    for ((i = 1; i < COMP_CWORD; i++)); do
        if [[ " $commands " == *" ${COMP_WORDS[i]} "* ]]; then
            command=${COMP_WORDS[i]}
            break
        fi
    done
    COMPREPLY=()
    if [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "${options[${command:-exists}]} -q --quiet --syslog -h --help --version" -- "$word")
    elif [[ -z $command ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$word")
    elif [[ $command == mkdir || ($command == list && ${COMP_WORDS[COMP_CWORD - 1]} == list) ]]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -d -- "$word")
    elif [[ $command != row && $command != explain ]]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
    fi
}
complete -F _orvfile orvfile
