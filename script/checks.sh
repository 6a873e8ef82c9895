# What script/test and script/prove share: numbered checks, the suites of the presets, the closing line. To be sourced by
# bash, after lib.sh; sourcing it sets the counters to zero.
# shellcheck shell=bash

# What the suite needs, and what the campaigns, coverage, mutants and fuzzing need besides. The manual pages give the
# campaigns their error numbers.
# shellcheck disable=SC2034  # for the scripts that source this
suite_packages=(cmake ninja-build g++ clang libgtest-dev libgmock-dev python3 binutils
    libcli11-dev nlohmann-json3-dev libcsv-dev mandoc doxygen pkg-config make abigail-tools systemd)
# shellcheck disable=SC2034
campaign_packages=(manpages-dev e2fsprogs xfsprogs btrfs-progs squashfs-tools erofs-utils libfuse3-dev pkg-config
    clang-19 llvm-19 libclang-rt-19-dev libclang-rt-14-dev python3-clang-19)
# shellcheck disable=SC2034
bench_packages=(libbenchmark-dev pkg-config libabsl-dev libboost-filesystem-dev libglib2.0-dev libinih-dev valgrind)

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
    mapfile -t found < <(grep -E '^(campaign|coverage|mutation|fuzz|valgrind|realfs|security): ' "$1" || true)
    figures+=("${found[@]}")
}

# show_results RESULTS OUTPUT: reads a JUnit file of ctest. Prints what was skipped and the output of what failed, writes
# all output of the others to a file, and ends with a line of the numbers of tests, failed and skipped.
show_results() {
    python3 - "$1" "$2" <<'END'
import sys
import xml.etree.ElementTree as tree

bad = skipped = 0
cases = tree.parse(sys.argv[1]).getroot().findall("testcase")
with open(sys.argv[2], "w", encoding="utf-8") as passed:
    for case in cases:
        output = case.findtext("system-out") or ""
        if case.get("status") == "fail":
            bad += 1
            print("FAILED:", case.get("name"), "\n".join(["", *output.splitlines()[-100:]]))
        elif case.find("skipped") is not None:
            skipped += 1
            print("SKIPPED:", case.get("name"))
        else:
            print(output, file=passed)
print(len(cases), bad, skipped)
END
}

# suite PRESET [OPTION...]: configures, builds and tests one preset of CMakePresets.json, with these options of ctest.
suite() {
    local preset=$1 results=build/$1/results.xml lines total bad skipped
    say "$preset"
    rm -f "$results"
    check "$preset: configure" cmake --preset "$preset"
    check "$preset: build without warnings" cmake --build --preset "$preset"
    ctest --preset "$preset" "${@:2}" --quiet -j "$(nproc)" --output-log "build/$preset/ctest.log" \
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
