# Functions of script/test that run checks and tests, count them and print the last line. Source this file with bash.
# shellcheck shell=bash

passed=0
failed=0
failures=()
skips=()
figures=()

# As root, everything can run, so a test that would be skipped fails. What only the caller may demand asks no_skip_demanded.
# shellcheck disable=SC2034  # for script/test
no_skip_demanded=${ORV_NO_SKIP-}
if [ "$(id -u)" = 0 ]; then
    export ORV_NO_SKIP=1
fi

# fail MESSAGE [N]: counts one failure, or N failures.
fail() {
    failed=$((failed + ${2-1}))
    failures+=("$1")
}

# check NAME COMMAND...: runs one check. Prints its output only if it fails; its lines of figures are always printed.
check() {
    local name=$1 log
    shift
    log=$(mktemp)
    if "$@" >"$log" 2>&1; then
        passed=$((passed + 1))
        keep_figures "$log"
        echo "ok: $name"
    else
        fail "$name"
        tail -n 200 "$log"
        echo "FAILED: $name"
    fi
    rm -f "$log"
}

# keep_figures LOG: keeps the lines of figures, which are printed again at the end.
keep_figures() {
    local found
    mapfile -t found < <(sed -nE 's/^(# )?((board|browser|campaign|coverage|mutation|fuzz|valgrind|realfs|security): )/\2/p' "$1")
    figures+=("${found[@]}")
}

# skip REASON: counts something that could not run. As root, that is a failure.
skip() {
    echo "SKIPPED: $1"
    if [ -n "${ORV_NO_SKIP-}" ]; then
        fail "skipped: $1"
    else
        skips+=("$1")
    fi
}

# build PRESET [OPTION...]: configures and builds a preset of CMakePresets.json, with these options of cmake --build.
build() {
    check "$1: configure" cmake --preset "$1"
    check "$1: build without warnings" cmake --build --preset "$@"
}

# suite PRESET [OPTION...]: configures, builds and tests a preset, with these options of ctest.
suite() {
    build "$1"
    run_tests "$1" ctest --preset "$@"
}

# run_tests NAME COMMAND...: counts the tests that this command of ctest runs.
run_tests() {
    local name=$1 output=$PWD/build/results/$1 lines passes fails skipped
    shift
    rm -rf "$output"
    mkdir -p "$output"
    chmod 1777 "$output" # the command may run as another user
    # One test more than there are processors, because some wait.
    "$@" --quiet -j $(($(nproc) + 1)) --output-log "$output/ctest.log" --output-junit "$output/results.xml" \
        --test-output-size-passed 1000000 --test-output-size-failed 1000000 || true
    if [ ! -f "$output/results.xml" ]; then
        fail "$name: the tests did not run"
        return
    fi
    lines=$(script/results.py "$output/results.xml" "$output/passed.txt")
    sed '$d' <<<"$lines"
    read -r passes fails skipped <<<"${lines##*$'\n'}"
    keep_figures "$output/passed.txt"
    echo "$name: $passes passed, $fails failed, $skipped skipped"
    passed=$((passed + passes))
    if [ "$fails" != 0 ]; then
        fail "$name: $fails tests, named above" "$fails"
    fi
    if [ "$skipped" != 0 ] && [ -n "${ORV_NO_SKIP-}" ]; then
        fail "$name: $skipped tests that skipped, named above" "$skipped"
    elif [ "$skipped" != 0 ]; then
        skips+=("$name: $skipped tests, named above")
    fi
    demand_minimum "$name" $((passes + fails)) "$skipped"
}

# demand_minimum NAME RAN SKIPPED: fails when fewer tests ran than minimum-tests.txt says under NAME. An ordinary user's
# skipped tests count, because the numbers are those of root.
demand_minimum() {
    local minimum ran=$2
    minimum=$(sed -n "s/^$1 //p" script/minimum-tests.txt)
    if [ "$(id -u)" != 0 ]; then
        ran=$((ran + $3))
    fi
    if [ -z "$minimum" ]; then
        fail "$1: script/minimum-tests.txt has no number for it"
    elif [ "$ran" -lt "$minimum" ]; then
        fail "$1: only $ran tests ran, of $minimum that script/minimum-tests.txt demands"
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
