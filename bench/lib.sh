# Shared by bench/cost and bench/compare: what tools count of one request. Sourced with the project's root as the working
# directory, after .ci/lib.sh; needs strace and valgrind.
#
# One request is the difference of a long and a short run divided by the difference of their requests, so that start and
# end cancel out.

kShort=100 kLong=1100
driver=build/release/bench/cost_driver
daemon=daemon:daemon:build/release/vorlan
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# TOOL SERVER REGISTER COUNT: what TOOL counts over a whole run; SERVER is described as cost_driver has it.
system_calls() {
    "$driver" requests "$@" strace -f -qq -c -U name,calls -o "$work/strace"
    awk '$1 == "total" { print $2 }' "$work/strace"
}
instructions() {
    "$driver" requests "$@" valgrind -q --tool=callgrind --callgrind-out-file="$work/callgrind"
    awk '/^(summary|totals):/ { sum = $2 } END { print sum }' "$work/callgrind"
}
allocations() {
    "$driver" requests "$@" valgrind --tool=memcheck --leak-check=no --log-file="$work/memcheck"
    sed -nE 's/.*total heap usage: ([0-9,]+) allocs.*/\1/p' "$work/memcheck" | tr -d ,
}

# each TOOL SERVER REGISTER: what TOOL counts of one request, with one decimal.
each() {
    local few many
    few=$("$@" "$kShort")
    many=$("$@" "$kLong")
    [ -n "$few" ] && [ -n "$many" ] || die "$1: the tool gave no total"
    awk -v few="$few" -v many="$many" -v n=$((kLong - kShort)) 'BEGIN { printf "%.1f\n", (many - few) / n }'
}
