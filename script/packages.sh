# The Debian packages that each script and each step of script/test needs. To be sourced by bash.
# shellcheck shell=bash

build="cmake ninja-build g++ python3"
tests="$build libgtest-dev libgmock-dev"
tool="libcli11-dev nlohmann-json3-dev libcsv-dev"
# For the tests of what the project delivers, which compile, install and read it.
artifacts="binutils make pkg-config g++-11 clang mandoc doxygen systemd zsh fish"
# The campaigns read error numbers from manual pages, and pages with a parser of HTML.
campaigns="manpages-dev e2fsprogs dosfstools xfsprogs btrfs-progs squashfs-tools erofs-utils libfuse3-dev pkg-config"
campaigns="$campaigns python3-html5lib"
emulated="$tests googletest qemu-user"
target="$emulated g++-powerpc-linux-gnu"
benchmarks="$build libbenchmark-dev pkg-config libabsl-dev libboost-filesystem-dev libglib2.0-dev libinih-dev"
benchmarks="$benchmarks valgrind gnuplot-nox"
board="$target $tool $artifacts manpages-dev linux-source-6.1 flex bison bc libelf-dev libssl-dev cpio kmod bzip2 xz-utils"
board="$board qemu-system-ppc qemu-system-data e2fsprogs xfsprogs btrfs-progs dosfstools"

# shellcheck disable=SC2034  # need_packages reads it
declare -rA packages=(
    [demo]="cmake make g++"
    [docs]="doxygen"
    [generate]="$tests $tool"

    [shell]="shellcheck"
    [format]="clang-format"
    [tidy]="$tests $tool $campaigns clang clang-tidy"
    [dev]="$tests $tool $artifacts"
    [campaigns]="$tests $tool $artifacts $campaigns"
    [nobody]="$tests $tool $artifacts $campaigns"
    [one-fs]="$tests $tool $artifacts $campaigns"
    [odd-path]="$tests $tool $artifacts"
    [clang]="$tests $tool $artifacts"
    [asan]="$tests $tool $artifacts"
    [oldabi]="$tests $artifacts googletest"
    [assertions]="$tests $artifacts"
    [tsan]="$tests $campaigns"
    [valgrind]="$tests $tool $campaigns valgrind"
    [coverage]="$tests clang-19 llvm-19 libclang-rt-19-dev"
    [mutate]="$tests $tool $campaigns python3-clang-19"
    [fuzz]="$tests clang libclang-rt-14-dev"
    [bench]="$benchmarks"
    [browser]="$tests $tool $campaigns chromium nodejs npm fonts-dejavu-core"
    [powerpc]="$target $tool $artifacts python3-kconfiglib"
    [board]="$board"
    [board-quick]="$target" # script/board installs the others, if the kernel is kept
    [board-faults]="$board"
    [board-power]="$board"
    [board-costs]="$board"
    [powerpc-oldabi]="$target $artifacts"
    [armhf]="$emulated g++-arm-linux-gnueabihf"
    [riscv64]="$emulated g++-riscv64-linux-gnu"
    [s390x]="$emulated g++-s390x-linux-gnu"
    [libcxx]="$tests googletest clang libc++-dev libc++abi-dev"
    [size]="cmake ninja-build g++-powerpc-linux-gnu"
    [package]="$build git dpkg-dev fakeroot lintian $tool g++-powerpc-linux-gnu"
)
unset build tests tool artifacts campaigns emulated target benchmarks board
