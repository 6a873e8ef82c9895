# What script/test and script/prove share: numbered checks, the suites of the presets, the closing line. To be sourced by
# bash, after lib.sh; sourcing it sets the counters to zero.
# shellcheck shell=bash

# What the suite needs, and what the campaigns, coverage, mutants and fuzzing need besides. The manual pages give the
# campaigns their error numbers.
# shellcheck disable=SC2034  # for the scripts that source this
suite_packages=(cmake ninja-build g++ g++-11 clang libgtest-dev libgmock-dev python3 binutils
    libcli11-dev nlohmann-json3-dev libcsv-dev mandoc doxygen pkg-config make abigail-tools systemd)
# shellcheck disable=SC2034
campaign_packages=(manpages-dev e2fsprogs xfsprogs btrfs-progs squashfs-tools erofs-utils libfuse3-dev pkg-config
    clang-19 llvm-19 libclang-rt-19-dev libclang-rt-14-dev python3-clang-19)
# shellcheck disable=SC2034
bench_packages=(libbenchmark-dev pkg-config libabsl-dev libboost-filesystem-dev libglib2.0-dev libinih-dev valgrind)
# shellcheck disable=SC2034
browser_packages=(chromium nodejs npm fonts-dejavu-core)

passed=0
failed=0
failures=()
skips=()
figures=()

# As root nothing has a reason to be skipped, so a test that would skip fails.
if [ "$(id -u)" = 0 ]; then
    export ORV_NO_SKIP=1
fi

say() {
    printf '\n== %s\n' "$*"
}

# check NAME COMMAND...: one check; its output is shown only when it fails, but for its lines of figures.
check() {
    local name=$1 log
    shift
    log=$(mktemp)
    if "$@" >"$log" 2>&1; then
        passed=$((passed + 1))
        keep_figures "$log"
        echo "ok: $name"
    else
        failed=$((failed + 1))
        failures+=("$name")
        tail -n 200 "$log"
        echo "FAILED: $name"
    fi
    rm -f "$log"
}

# keep_figures LOG: takes the lines of figures, which are printed again at the end.
keep_figures() {
    local found
    mapfile -t found < <(sed -nE 's/^(# )?((browser|campaign|coverage|mutation|fuzz|valgrind|realfs|security): )/\2/p' "$1")
    figures+=("${found[@]}")
}

# skip REASON: something that could not be run; as root that is a failure.
skip() {
    echo "SKIPPED: $1"
    if [ -n "${ORV_NO_SKIP-}" ]; then
        failed=$((failed + 1))
        failures+=("skipped: $1")
    else
        skips+=("$1")
    fi
}

# show_results RESULTS OUTPUT: reads a JUnit file of ctest. Prints what was skipped and the output of what failed, writes
# all output of the others to a file, and ends with a line of the numbers of tests, failed and skipped. A suite of
# GoogleTest that ran as one of ctest's tests counts as many as it holds.
show_results() {
    python3 - "$1" "$2" <<'END'
import re
import sys
import xml.etree.ElementTree as tree

def number(state, output):
    return sum(map(int, re.findall(rf"^\[  {state} +\] (\d+) tests?[.,]", output, re.M)))

total = bad = skipped = 0
with open(sys.argv[2], "w", encoding="utf-8") as passed:
    for case in tree.parse(sys.argv[1]).getroot().findall("testcase"):
        output = case.findtext("system-out") or ""
        good = number("PASSED", output)
        skips = number("SKIPPED", output) or int(case.find("skipped") is not None)
        fails = max(number("FAILED", output), 1) if case.get("status") == "fail" else 0
        total += good + skips + fails or 1
        bad += fails
        skipped += skips
        if fails:
            print("FAILED:", case.get("name"), "\n".join(["", *output.splitlines()[-100:]]))
        elif skips:
            print("SKIPPED:", case.get("name"), *re.findall(r"^\[  SKIPPED \] (\w[\w/]*\.[\w/]+)$", output, re.M))
        else:
            print(output, file=passed)
print(total, bad, skipped)
END
}

# suite PRESET [OPTION...]: configures, builds and tests one preset of CMakePresets.json, with these options of ctest.
suite() {
    local preset=$1 results=build/$1/results.xml lines total bad skipped
    say "$preset"
    rm -f "$results"
    check "$preset: configure" cmake --preset "$preset"
    check "$preset: build without warnings" cmake --build --preset "$preset"
    # One test more than there are processors, for some wait.
    ctest --preset "$preset" "${@:2}" --quiet -j $(($(nproc) + 1)) --output-log "build/$preset/ctest.log" \
        --output-junit results.xml --test-output-size-passed 1000000 --test-output-size-failed 1000000 || true
    if [ ! -f "$results" ]; then
        failed=$((failed + 1))
        failures+=("$preset: the tests did not run")
        return
    fi
    lines=$(show_results "$results" "build/$preset/output.txt")
    sed '$d' <<<"$lines"
    read -r total bad skipped <<<"${lines##*$'\n'}"
    keep_figures "build/$preset/output.txt"
    passed=$((passed + total - bad - skipped))
    failed=$((failed + bad))
    echo "$preset: $((total - bad - skipped)) passed, $bad failed, $skipped skipped"
    if [ "$bad" != 0 ]; then
        failures+=("$preset: $bad tests, named above")
    fi
    if [ "$skipped" != 0 ] && [ -n "${ORV_NO_SKIP-}" ]; then
        failed=$((failed + skipped))
        failures+=("$preset: $skipped tests that skipped, named above")
    elif [ "$skipped" != 0 ]; then
        skips+=("$preset: $skipped tests, named above")
    fi
}

# finish: what was skipped, what failed, the figures and the closing line; false when anything failed.
finish() {
    if [ ${#figures[@]} != 0 ]; then
        printf '\nFigures:\n'
        printf '  %s\n' "${figures[@]}"
    fi
    if [ ${#skips[@]} != 0 ]; then
        printf '\nSkipped:\n'
        printf '  %s\n' "${skips[@]}"
    fi
    if [ ${#failures[@]} != 0 ]; then
        printf '\nFailed:\n'
        printf '  %s\n' "${failures[@]}"
    fi
    printf '\n%d passed, %d failed\n' "$passed" "$failed"
    [ "$failed" = 0 ]
}
