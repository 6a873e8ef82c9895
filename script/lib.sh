# Shell functions that the scripts share; to be sourced by bash.
# shellcheck shell=bash

# missing_packages PACKAGE...: prints those that are neither installed nor there as a command of the same name.
missing_packages() {
    local package
    for package in "$@"; do
        if ! command -v "$package" >/dev/null &&
            [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" != installed ]; then
            echo "$package"
        fi
    done
}

# need_packages PACKAGE...: installs the Debian packages that are missing. Without any it needs neither root nor a
# network; if it cannot install, it says what to install and ends the script.
need_packages() {
    local missing
    mapfile -t missing < <(missing_packages "$@")
    if [ ${#missing[@]} = 0 ]; then
        return
    fi
    if [ "$(id -u)" != 0 ] || ! command -v apt-get >/dev/null; then
        echo "$0: these Debian packages are missing, install them first: ${missing[*]}" >&2
        echo "On Debian, as root:  apt-get install --no-install-recommends ${missing[*]}" >&2
        exit 1
    fi
    echo "Installing the missing Debian packages: ${missing[*]}"
    if ! apt-get update -qq ||
        ! DEBIAN_FRONTEND=noninteractive apt-get install -qq -y --no-install-recommends "${missing[@]}" >/dev/null; then
        echo "$0: apt-get could not install: ${missing[*]}" >&2
        exit 1
    fi
}
