#!/usr/bin/env bash
# Cuts the power while an upgrade runs on an ext4 image: the upgrade is stopped at one of its system
# calls, the image is taken as the disk has it at that moment, checked with e2fsck and mounted, and
# the next start has to end with the tree of an undisturbed upgrade. With commit=600 nothing is on the
# disk that the program did not sync itself.
#
# usage: tests/power_cuts.sh UPGRADE_AT [--every N]
#
# UPGRADE_AT is the program of that name from a build with tests. With --every N only each N-th call
# is tried. Needs loop devices and the right to mount; says so and succeeds where there are none.
set -euo pipefail

# shellcheck source=tests/lib/appliance.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib/appliance.sh"

disk=$work/disk
image=$work/image
mkdir "$disk"
trap 'umount -q -l "$disk" || true; rm -rf -- "$work"' EXIT
truncate -s 24M "$work/empty"
mkfs.ext4 -q -m 0 -E lazy_itable_init=0,lazy_journal_init=0 "$work/empty"
if ! mount -o loop "$work/empty" "$disk" 2>"$work/reason"; then
    echo "skipped, no loop device: $(cat "$work/reason")"
    exit 0
fi
tree=$disk/unit
make_appliance "$tree" 2.2.0
umount "$disk"

# attach IMAGE OPTION
attach() {
    mount -o "loop,$2" "$1" "$disk"
}

# What the disk gets to see is what counts: renames, and the calls that wait for it.
calls=rename,renameat2,unlink,unlinkat,mkdir,symlink,write,fsync,syncfs
cp --sparse=always "$work/empty" "$image"
attach "$image" commit=600
strace -o "$work/trace" -e trace="$calls" -e signal=none "$upgrade" "$tree" >/dev/null 2>&1
manifest "$tree" >"$work/expected"
umount "$disk"
awk -v every="$every" '{
    call = $0; sub(/\(.*/, "", call)
    if (call ~ /^[a-z0-9]+$/) { ++count[call]; if (NR % every == 0) print call, count[call] }
}' "$work/trace" >"$work/points"

# cut_power CALL K OPTION: the image as the disk has it when the K-th such call was made.
cut_power() {
    cp --sparse=always "$work/empty" "$image"
    attach "$image" "$3"
    strace -o /dev/null -e trace="$1" -e signal=none -e inject="$1:signal=STOP:when=$2" \
        "$upgrade" "$tree" >/dev/null 2>&1 &
    local tracer=$! program='' stopped=0
    # strace stops the program at other calls as well, but lets it go on at once.
    while [ "$stopped" -lt 8 ] && [ "$(state_of "$tracer")" != Z ]; do
        program=$(cat "/proc/$tracer/task/$tracer/children")
        program=${program%% *}
        [ "$(state_of "$program")" = t ] && stopped=$((stopped + 1)) || stopped=0
        sleep 0.004
    done
    cp --sparse=always "$image" "$work/cut"
    kill -KILL "$program" 2>/dev/null || true
    wait "$tracer" 2>/dev/null || true
    umount "$disk"
    [ "$stopped" -eq 8 ]
}

state_of() {
    cut -d ' ' -f 3 "/proc/$1/stat" 2>/dev/null || true
}

while read -r call number; do
    option=$([ $((tried % 2)) -eq 0 ] && echo commit=600 || echo commit=5)
    what="power cut at $call $number, $option"
    tried=$((tried + 1))
    cut_power "$call" "$number" "$option" || {
        fail "$what: not stopped"
        continue
    }
    status=0
    e2fsck -fp "$work/cut" >"$work/fsck" 2>&1 || status=$?
    [ "$status" -le 1 ] || fail "$what: e2fsck says $(cat "$work/fsck")"
    attach "$work/cut" commit=5
    status=0
    "$upgrade" "$tree" >/dev/null 2>&1 || status=$?
    expect_manifest "$what" "$status"
    umount "$disk"
done <"$work/points" 2>/dev/null
finish 'power cuts' 5
