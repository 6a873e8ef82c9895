# Shell functions that the scripts share. A script sources this file with bash, from the top of the source tree.
# shellcheck shell=bash
# shellcheck source=script/packages.sh
source script/packages.sh

readonly program=script/${0##*/}

# usage: prints the comment at the top of the script.
usage() {
    sed -n -e 1d -e '/^#/!q' -e 's/^# \{0,1\}//p' "$program"
}

# refuse MESSAGE: reports a wrong command line, prints the usage and ends the script.
refuse() {
    printf '%s: %s\n\n' "$program" "$1" >&2
    usage >&2
    exit 2
}

# The results of read_arguments.
declare -A given=() # each option with its value or with 1
operands=()         # all other arguments

# read_arguments OPTIONS MOST ARGUMENT...: parses the command line. OPTIONS are the known options, separated by blanks;
# the next argument is the value of an option that ends in "=". There may be at most MOST operands. --help prints the
# usage and ends the script; a wrong command line ends it with 2.
read_arguments() {
    local known=" $1 " most=$2
    shift 2
    while [ $# != 0 ]; do
        if [ "$1" = --help ]; then
            usage
            exit 0
        elif [[ $1 != -* ]]; then
            operands+=("$1")
        elif [[ $known == *" $1 "* ]]; then
            given[$1]=1
        elif [[ $known != *" $1= "* ]]; then
            refuse "unknown option: $1"
        elif [ $# = 1 ]; then
            refuse "missing value of the option: $1"
        else
            # shellcheck disable=SC2034  # for the scripts
            given[$1]=$2
            shift
        fi
        shift
    done
    if [ ${#operands[@]} -gt "$most" ]; then
        refuse "unexpected argument: ${operands[$most]}"
    fi
}

# missing_packages PACKAGE...: prints the packages that are not installed and for which there is no command of that
# name.
missing_packages() {
    local package
    for package in "$@"; do
        if ! command -v "${package/%nodejs/node}" >/dev/null &&
            [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" != installed ]; then
            echo "$package"
        fi
    done
}

# need_packages NAME...: installs the missing Debian packages that packages.sh lists for these scripts and steps. If no
# package is missing, it needs neither root nor a network. If it cannot install packages, it prints their names and ends
# the script.
need_packages() {
    local name wanted=() missing
    for name in "$@"; do
        read -r -a wanted <<<"${wanted[*]} ${packages[$name]}"
    done
    mapfile -t missing < <(missing_packages "${wanted[@]}" | sort -u)
    if [ ${#missing[@]} = 0 ]; then
        return
    fi
    if [ "$(id -u)" != 0 ] || ! command -v apt-get >/dev/null; then
        echo "$program: these Debian packages are missing; install them first: ${missing[*]}" >&2
        echo "On Debian, as root:  apt-get install --no-install-recommends ${missing[*]}" >&2
        exit 1
    fi
    echo "Installing the missing Debian packages: ${missing[*]}"
    if ! apt-get update -qq ||
        ! DEBIAN_FRONTEND=noninteractive apt-get install -qq -y --no-install-recommends "${missing[@]}" >/dev/null; then
        echo "$program: apt-get could not install: ${missing[*]}" >&2
        exit 1
    fi
}

# newest_needed PREFIX FILE...: prints the newest version with this prefix that symbols of the programs and libraries
# need, such as GLIBC_2.34; prints nothing if they need none.
newest_needed() {
    readelf --version-info --wide "${@:2}" | grep -oE " $1_[0-9.]+" | tr -d ' ' | sort -uV | tail -n 1
}

# first_package_with PACKAGE NODE: prints the first version of Debian's package whose library has that version of
# symbols. It is the same for all machines.
first_package_with() {
    awk -v symbol="$2@$2" '$1 == symbol { print $2 }' \
        "$(dpkg-query --control-path "$1:$(dpkg --print-architecture)" symbols)" | head -n 1
}
