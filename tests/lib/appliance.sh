# shellcheck shell=bash
# shellcheck disable=SC2034  # what the scripts use
# Sourced by the scripts that upgrade appliances under adverse conditions. It reads UPGRADE_AT and
# --every N off their arguments: the program that upgrades a tree is then $upgrade, and each $every-th
# point is to be tried; what is left stands in "${rest[@]}". $unpack stands beside $upgrade. $work is a
# directory that goes in the end.

repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd -P)
upgrade=$(realpath -- "${1:?usage: $0 UPGRADE_AT [--every N]}")
unpack=${upgrade%/*}/unpack_input
shift
every=1
if [ "${1-}" = --every ]; then
    every=$2
    shift 2
fi
rest=("$@")

# In memory: what is durable when the power goes is the order of the calls, not the disk's speed.
base=/dev/shm
[ -d "$base" ] && [ -w "$base" ] || base=${TMPDIR:-/tmp}
work=$(mktemp -d "$base/upgrade.XXXXXX")
trap 'rm -rf -- "$work"' EXIT
tree=$work/tree

tried=0
failed=0
fail() {
    failed=$((failed + 1))
    echo "FAILED: $1"
}

# finish WHAT LEAST: the last line of a script, which succeeds when nothing failed.
finish() {
    echo "$tried $1, $failed failed"
    [ "$tried" -gt "$2" ] && [ "$failed" -eq 0 ]
}

# make_appliance DIRECTORY LABEL: the sample as it is (2.2.0), or with the unit of that label from
# tests/inputs in the place of its live telephony tree.
make_appliance() {
    local directory=$1 label=$2 live=$1/etc/orix-conf/telephony
    cp -a "$repo/examples/appliance" "$directory"
    mkdir "$directory/tmp"
    if [ "$label" != 2.2.0 ]; then
        rm -r "$live"
        echo "$label" >"$directory/etc/orix-conf/config_label.txt"
        "$unpack" "$repo/tests/inputs/3.0.1.txt" "$directory"
        [ "$label" = 3.0.1 ] || "$unpack" "$repo/tests/inputs/$label.txt" "$directory"
    fi
    # A file behind a link that leads out of the telephony directory, with a value that must not be
    # converted twice.
    mv "$live/e1t1/trunk0.cfg" "$directory/etc/orix-conf/trunk0.cfg"
    ln -s ../../trunk0.cfg "$live/e1t1/trunk0.cfg"
}

# renew: the appliance as it was before, in $tree.
renew() {
    rm -rf "$tree"
    cp -a "$work/before" "$tree"
}

# manifest DIRECTORY: kind, mode, owner, name and content of all that an upgrade may change.
manifest() {
    (
        cd "$1" || exit 1
        find etc/orix-conf mnt \( -type f -printf '%y %m %u %g %p\n' \) -o -printf '%y %m %u %g %p %l\n' |
            LC_ALL=C sort
        find etc/orix-conf mnt -type f -print0 | LC_ALL=C sort -z | xargs -0 sha256sum
    )
}

# expect_manifest WHAT STATUS: after a run with that exit status $tree must be as it is in
# $work/expected.
expect_manifest() {
    manifest "$tree" >"$work/after"
    if [ "$2" -ne 0 ] || ! cmp -s "$work/expected" "$work/after"; then
        fail "$1 (exit status $2)"
        diff "$work/expected" "$work/after" | head -n 10 || true
    fi
}
