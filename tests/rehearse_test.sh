#!/usr/bin/env bash
# tests/rehearse_test.sh BINARY: the built program, run through tools/rehearse on the sample
# appliance, inside the real sandbox.
set -euo pipefail
export LC_ALL=C

repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
sample=$repo/examples/appliance
binary=$(realpath -- "${1:?usage: tests/rehearse_test.sh BINARY}")

# In memory: each rehearsal makes and removes a copy, and a link to each of the host's programs.
[ ! -w /dev/shm ] || export TMPDIR=${TMPDIR-/dev/shm}
work=$(mktemp -d)
trap 'rm -rf -- "$work"' EXIT
failures=0

check() {
    local what=$1
    shift
    "$@" && echo "ok       $what" && return
    echo "FAILED   $what"
    failures=$((failures + 1))
}

# run STATUS ARGUMENT...: a rehearsal that ends so. Its output is in $work/stdout and stderr.
run() {
    local wanted=$1 status=0
    shift
    "$repo/tools/rehearse" "$@" >"$work/stdout" 2>"$work/stderr" </dev/null || status=$?
    check "exit status $wanted of: ${*//"$work"\//}" [ "$status" -eq "$wanted" ] || cat "$work/stderr"
}

# refused WHY ARGUMENT...: a rehearsal that is not held.
refused() {
    run 2 --binary "$binary" "${@:2}"
    check "it says: ${1//"$work"\//}" grep -qF -- "$1" "$work/stderr"
}

holds() {
    check "${1##*/} holds: $2" grep -qF -- "$2" "$1"
}

lacks() {
    check "${1##*/} lacks: $2" [ "$(grep -cF -- "$2" "$1")" -eq 0 ]
}

# --- an upgrade of the sample, with a file for each part of the output -----------------------------

label=$(cat "$sample/etc/default-conf/config_label.txt")
linedb=etc/orix-conf/telephony/linedb
out=$work/upgraded
cp -a "$sample" "$work/before"
ORIX_PATH=/nowhere run 0 --binary "$binary" --apply "$out" --report "$work/report" \
    --changes "$work/changes" --diff "$work/diff" "$sample"
check 'the sample is untouched' diff -r --no-dereference "$work/before" "$sample"
lacks "$work/stderr" 'warning'
lacks "$work/stdout" '=== version check ==='
holds "$work/report" '=== version check ==='
holds "$work/report" "=====Current configuration version: $label is set in linedb"
check '--report is the report in OUT' cmp "$work/report" "$out/mend.log"
holds "$work/changes" "changed  $linedb"
holds "$out/$linedb" "current_version=$label"
# The diff is the whole truth about text files: applied to the sample, it gives the upgraded linedb.
cp "$sample/$linedb" "$work/linedb"
awk -v file="a/$linedb" '/^diff -urN /{ wanted = ($3 == file) } wanted' "$work/diff" >"$work/linedb.diff"
check 'the diff of linedb applies' patch -s "$work/linedb" "$work/linedb.diff"
check 'and gives the upgraded linedb' cmp "$work/linedb" "$out/$linedb"

# --- an upgrade at a root of the caller's choice, without what may be missing ----------------------

cp -a "$sample" "$work/bare"
mv "$work/bare/etc/orix-conf/telephony" "$work/bare/etc/default-conf/phones"
rm -rf "$work/bare/mnt" "$work/bare/usr" "$work/bare/proc" "$work/bare/bin"
run 0 --binary "$binary" "$work/bare" /etc/default-conf/phones
for place in proc/orix mnt/bbram usr/share/regional bin/rtsync; do
    holds "$work/stderr" "has no $place"
done
holds "$work/stdout" '=== version check ==='
holds "$work/stdout" '=== exit status: 0 ==='
holds "$work/stdout" '--- a/etc/default-conf/phones/linedb'

# --- what is refused -------------------------------------------------------------------------------

refused 'no TREE given'
refused "no such directory: $work/nowhere" "$work/nowhere"
mkdir -p "$work"/{live/etc/orix-conf,factory/etc/default-conf/telephony,path,tmp}
refused 'has no etc/default-conf/telephony' "$work/live"
refused 'has no etc/orix-conf' "$work/factory"
refused 'OUT is not empty' --apply "$out" "$sample"
refused 'OUT lies inside TREE' --apply "$sample/out" "$sample"
refused 'unknown option: --nonsense' --nonsense "$sample"
refused 'cmake --preset release' --binary "$work/unbuilt" "$sample"
mv "$work/bare/etc/orix-conf" "$work/outside"
ln -s "$work/outside" "$work/bare/etc/orix-conf"
refused 'leads out of the tree' "$work/bare"
ln -s -t "$work/path" /usr/bin/{bash,cat,dirname,grep,ls,realpath}
PATH=$work/path refused 'apt-get install bubblewrap' "$sample"

# --- what the program sees of the host, and what stays of it: nothing ------------------------------

printf '#!/bin/sh\ncat /etc/shadow /etc/passwd; ls -d /home /root /var; echo >/usr/bin/x\nexit 7\n' \
    >"$work/prowler"
chmod +x "$work/prowler"
TMPDIR=$work/tmp run 7 --binary "$work/prowler" "$sample"
lacks "$work/stdout" 'root:'
holds "$work/stdout" "'/home': No such file"
holds "$work/stdout" 'Read-only file system'
holds "$work/stderr" 'wrote no mend.log'
check 'the temporary files are gone' [ -z "$(ls -A "$work/tmp")" ]

echo "$failures checks failed"
[ "$failures" -eq 0 ]
