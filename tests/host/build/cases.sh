# SPDX-License-Identifier: GPL-2.0-only
# For the tests of the build's own checks: names, filter and JSON results as
# GoogleTest has them, so that tests/host/run counts these with the others.
# The sourcing script defines usage(), lists its cases with `test_case`, and
# ends with `finish`.

root=${MOX_ROOT:-$(cd "$(dirname "${BASH_SOURCE[0]}")/../../.." && pwd)}
fwd=$root/ef/ef_service/af_packet/packet_forward
pattern='*'
failures=0
json=
results=()

for argument in "$@"; do
    case $argument in
        --gtest_filter=*) pattern=${argument#*=} ;;
        --gtest_output=json:*) json=${argument#*:} ;;
        --gtest_*) ;;
        -h|--help) usage; exit 0 ;;
        *) echo "$(basename "$0"): unknown option '$argument'" >&2; usage >&2; exit 2 ;;
    esac
done

need() {
    command -v "$1" >/dev/null ||
        { echo "$(basename "$0"): $1 is missing; apt-get install $2" >&2; exit 2; }
}

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# Whether a name matches the filter: positive patterns, then negative behind a '-'.
selected() {
    local name=$1 part positive=${pattern%%-*} negative=
    [[ $pattern == *-* ]] && negative=${pattern#*-}
    [ -n "$positive" ] || positive='*'
    local IFS=:
    set -f
    for part in $negative; do
        # shellcheck disable=SC2053
        [[ $name == $part ]] && return 1
    done
    for part in $positive; do
        # shellcheck disable=SC2053
        [[ $name == $part ]] && return 0
    done
    return 1
}

# result SUITE.TEST [MEMBERS]
result() {
    results+=("{\"name\":\"${1%%.*}\",\"testsuite\":[{\"name\":\"${1#*.}\",\"result\":\"COMPLETED\"${2:-}}]}")
}

# Writes the results; a script that dies before has none.
finish() {
    local IFS=,
    [ -z "$json" ] || printf '{"testsuites":[%s]}\n' "${results[*]}" >"$json"
    exit $((failures != 0))
}

# test_case NAME COMMAND...: the command's output is shown when it fails.
test_case() {
    local name=$1
    shift
    selected "$name" || return 0
    if "$@" >"$scratch/output" 2>&1; then
        echo "[       OK ] $name (0 ms)"
        result "$name"
    else
        cat "$scratch/output"
        echo "[  FAILED  ] $name (0 ms)"
        failures=$((failures + 1))
        result "$name" ',"failures":[{}]'
    fi
}
