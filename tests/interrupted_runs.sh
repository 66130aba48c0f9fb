#!/usr/bin/env bash
# Kills an upgrade at its system calls, one after the other, and runs it again, twice: the second run
# is killed while it puts the tree back, or soon after. In the end the tree must be the one that an
# undisturbed upgrade gives, byte for byte, with nothing left of the earlier attempts.
#
# usage: tests/interrupted_runs.sh UPGRADE_AT [--every N] [LABEL...]
#
# UPGRADE_AT is the program of that name from a build with tests. With --every N only each N-th
# point is tried; without labels, all three.
set -euo pipefail

# shellcheck source=tests/lib/appliance.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib/appliance.sh"

labels=("${rest[@]}")
[ "${#labels[@]}" -gt 0 ] || labels=(2.2.0 3.0.1 4.1.0)

# Every call that changes a file, a name or an attribute, and those that make it last. A file that
# was created and not written yet differs from none only by its name: that is the call openat.
calls=rename,renameat2,unlink,unlinkat,rmdir,mkdir,symlink,write,fsync,syncfs,chmod,fchmod,fchown,lchown,utimensat

# points: "CALL K" for every call of a run that changes something. strace counts per process, so
# without -f these are setupmend's own.
points() {
    renew
    strace -o "$work/trace" -e trace="$calls,openat" -e signal=none "$upgrade" "$tree" >/dev/null 2>&1
    # An openat that creates nothing changes nothing, but is counted.
    awk '{
        call = $0; sub(/\(.*/, "", call)
        if (call !~ /^[a-z_0-9]+$/) next
        ++count[call]
        if (call == "openat" && $0 !~ /O_CREAT/) next
        print call, count[call]
    }' "$work/trace"
}

# try CALL K STRACE_OPTION...
try() {
    local call=$1 number=$2 killed=0 status=0
    shift 2
    renew
    strace "$@" -o /dev/null -e trace="$call" -e signal=none \
        -e inject="$call:signal=KILL:when=$number" "$upgrade" "$tree" >/dev/null || killed=$?
    # What the second run puts back may be cut short as well; the third has to mend that.
    tried=$((tried + 1))
    strace -o /dev/null -e trace=rename,renameat2 -e signal=none \
        -e inject="rename,renameat2:signal=KILL:when=$((tried % 60 + 1))" "$upgrade" "$tree" >/dev/null || true
    "$upgrade" "$tree" >/dev/null 2>&1 || status=$?
    [ "$killed" -eq 137 ] || fail "from $label, not killed at $call $number $*: exit status $killed"
    expect_manifest "from $label, killed at $call $number $*" "$status"
}

for label in "${labels[@]}"; do
    rm -rf "$work/before"
    make_appliance "$work/before" "$label"
    renew
    "$upgrade" "$tree"
    manifest "$tree" >"$work/expected"
    if grep -F 'mend-' "$work/expected"; then
        fail "from $label: an undisturbed upgrade leaves something"
    fi
    before=$tried
    points | awk -v every="$every" 'NR % every == 0' >"$work/own"
    # With cp, by the files that it copies: its calls are few and the same each time.
    renew
    strace -f -y -o "$work/trace" -e trace=copy_file_range -e signal=none "$upgrade" "$tree" \
        >/dev/null 2>&1
    grep -o "<$tree/etc/orix-conf/[^>]*>" "$work/trace" | tr -d '<>' | sort -u |
        awk -v every="$every" 'NR % every == 0' >"$work/cp"
    grep -q . "$work/cp" || [ "$every" -gt 20 ]
    # The shell says "Killed" each time.
    while read -r call number; do try "$call" "$number"; done <"$work/own" 2>/dev/null
    while read -r file; do try copy_file_range 1 -f -P "$file"; done <"$work/cp" 2>/dev/null
    echo "from $label: $((tried - before)) points"
done
finish 'interrupted runs' 0
