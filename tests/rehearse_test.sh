#!/usr/bin/env bash
# tests/rehearse_test.sh SETUPMEND_REHEARSE SETUPMEND [SITES]: rehearsals of the sample and of what
# can be odd about a backup, in the real sandbox, and a fleet of SITES (8).
set -euo pipefail
export LC_ALL=C

repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
sample=$repo/examples/appliance
newest=$(cat "$sample/etc/default-conf/config_label.txt")
rehearse=$(realpath -- "${1:?usage: tests/rehearse_test.sh SETUPMEND_REHEARSE SETUPMEND [SITES]}")
binary=$(realpath -- "$2")
sites=${3-8}

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
    "$rehearse" "$@" >"$work/stdout" 2>"$work/stderr" </dev/null || status=$?
    check "exit status $wanted of: ${*//"$work"\//}" [ "$status" -eq "$wanted" ] ||
        cat "$work/stdout" "$work/stderr"
}

# says TEXT: whatever its lines break at.
says() {
    check "it says: ${1//"$work"\//}" grep -qF -- "$1" <(tr -s ' \n' ' ' <"$work/stdout")
}

refused() {
    run 2 "${@:2}"
    cat "$work/stderr" >>"$work/stdout"
    says "$1"
}

# json FILE EXPRESSION: what an expression in Python is of the result `r`.
json() {
    /usr/bin/python3 -c 'import json, sys; r = json.load(open(sys.argv[1])); print(eval(sys.argv[2]))' "$@"
}

valid() {
    check "$1 keeps to docs/$2.schema.json" /usr/bin/python3 -W ignore -m jsonschema \
        -i "$work/$1" "$repo/docs/$2.schema.json"
}

# spoilt NAME: a copy of the sample in which nobody is in routing mode, to be spoilt.
spoilt() {
    site=$work/$1
    live=$site/etc/orix-conf/telephony
    cp -a "$sample" "$site"
    sed -i s/routing_on=1/routing_on=0/ "$live/extensiondb"
}

# --- the sample: one thing to look at -------------------------------------------------------------

cp -a "$sample" "$work/before"
ORIX_PATH=/nowhere run 1 --apply "$work/out" --report "$work/report" --diff "$work/diff" \
    --json "$work/json" --html "$work/html" "$sample"
says "appliance: Upgraded from 2.2.0 to $newest, with 1 problem to look at."
says 'Extension 22 is in routing mode, Update canceled.'
says 'The next start changes nothing.'
check 'the verdict has 10 to 30 lines' [ "$(wc -l <"$work/stdout")" -le 30 ]
valid json rehearsal
check 'the sample is untouched' diff -r --no-dereference "$work/before" "$sample"
check '--report is the report in OUT' cmp "$work/report" "$work/out/mend.log"
(cd "$work/before" && patch -p1 -s <"$work/diff")
check '--diff makes OUT of the sample' diff -rq --no-dereference -x regional -x mend.log "$work/before" "$work/out"
check 'files that this unit never had are counted' [ "$(json "$work/json" 'r["harmless"]')" -gt 3 ]
check 'each changed file has its step' [ "$(json "$work/json" '{f for c in r["changes"] if c["step"]
    for f in c["files"]} == set(range(len(r["files"])))')" = True ]
check 'a change is told by its step' [ "$(json "$work/json" '[c["lines"] for c in r["changes"]
    if c["step"] == "echo delay" and c["pattern"].endswith("trunk0.cfg")] != []')" = True ]
check 'equal changes are told once' [ "$(json "$work/json" 'max(len(c["files"]) for c in r["changes"]
    if "/*/" in c["pattern"]) > 2')" = True ]

# The same from an archive that holds a directory, and by the program to be shipped.
tar -C "$sample/.." -caf "$work/packed.tar.zst" appliance
run 1 --json "$work/packed" "$work/packed.tar.zst"
check 'an archive gives the same changes' [ \
    "$(json "$work/packed" 'r["changes"]')" = "$(json "$work/json" 'r["changes"]')" ]
run 1 --binary "$binary" --diff "$work/shipped" "$sample"
check 'the shipped program changes the same' cmp "$work/diff" "$work/shipped"
says 'not told for a program of its own'

# A link to a tree is copied as the tree; an archive whose top is a link is none.
cp -a "$sample" "$work/real"
ln -s "$work/real" "$work/link"
run 1 "$work/link"
check 'what a link leads to is untouched' diff -r --no-dereference "$work/real" "$sample"
ln -s "$work/real" "$work/top"
tar -C "$work" --transform='s|top|./|' -cf "$work/top.tar" top
refused 'its top is no directory' "$work/top.tar"

# What was upgraded is at rest; and no problem is exit status 0.
run 0 "$work/out"
says "Up to date at $newest without a problem."
says '0 changed, 0 added, 0 removed'
spoilt healthy
run 0 "$work/healthy"

# --- one problem of each kind ---------------------------------------------------------------------

spoilt other-root
mkdir "$site/data"
mv "$live" "$site/data/pbx"
refused 'there is a linedb in /data/pbx, give that as CONFIG_ROOT' "$site"
rm -r "${site:?}/proc" "${site:?}/mnt"
run 1 --json "$work/root" "$site" /data/pbx
says 'proc/orix: the numbers of lines are not known'
check 'another root is upgraded as well' [ \
    "$(json "$work/root" 'r["verdict"]["files"]["removed"]')" -ge 30 ]

spoilt malformed
printf 'section 1\n{\nservice=1\n' >"$live/21/forwardlistdb"
run 1 --json "$work/malformed.json" "$site"
says 'Files that cannot be read (1)'
check 'the line and the reason are told' [ "$(json "$work/malformed.json" '[i["line"] for p in r["problems"]
    for i in p["items"]]')" = '[3]' ]
spoilt lost
echo 'neither section nor entry' >>"$live/linedb"
run 1 "$site"
says 'A main database could not be read'
spoilt unlabelled
rm "$site/etc/orix-conf/config_label.txt"
run 2 "$site"
says "NOT upgraded from an unknown version to $newest."
spoilt label-end
printf %s "$newest" >"$site/etc/default-conf/config_label.txt"
run 1 "$site"
says 'A label has no line end'
spoilt command
printf '#!/bin/sh\necho no route >&2; exit 3\n' >"$site/bin/rtsync"
run 1 "$site"
says 'Update done - Failed: no route'
spoilt refused
mv "$live/rtp.cfg" "$live/elsewhere"
ln -s /proc/orix/rtp.cfg "$live/rtp.cfg"
cp "$live/elsewhere" "$site/proc/orix/rtp.cfg"
run 2 "$site"  # a second start would stamp it
says "no: Refused by the disk: MINOR ERROR: Can't save file"

# A hostile name is text in the page, and nothing in the page ends its data.
spoilt hostile
name='<img src=x onerror=alert(1)>'
cp -r "$live/21" "$live/$name"
sed -n "/^section 21\$/,/^}/ { s/21/$name/; p }" "$sample/etc/orix-conf/telephony/extensiondb" >>"$live/extensiondb"
run 0 --html "$work/hostile.html" "$site"
check 'the name is in the page, escaped' grep -qF '\u003cimg src=x' "$work/hostile.html"
check 'and nowhere else' [ "$(grep -cF '<img src=x' "$work/hostile.html")" -eq 0 ]

# --- what is refused, and what is seen of this machine --------------------------------------------

refused 'TREE is required'
refused 'no such directory or archive' "$work/nowhere"
refused 'has no etc/default-conf/telephony' "$sample/etc/orix-conf"
refused 'OUT is not empty' --apply "$work/out" "$sample"
refused 'lies inside TREE, which must not change' --apply "$sample/out" "$sample"
refused 'two outputs have one name' --json "$work/x" --diff "$work/x" "$sample"
refused 'nonsense' --nonsense "$sample"
head -c 4000 "$work/packed.tar.zst" >"$work/cut.tar.zst"
refused 'cut.tar.zst' "$work/cut.tar.zst"
printf '#!/bin/sh\ncat /etc/shadow /etc/passwd; ls -d /home /root /var; echo >/usr/bin/x\n' >"$work/prowler"
chmod +x "$work/prowler"
mkdir "$work/tmp"
TMPDIR=$work/tmp run 2 --binary "$work/prowler" --json "$work/prowled" "$sample"
check 'nothing of this machine is seen' [ "$(grep -cE 'root:|/home$' "$work/prowled")" -eq 0 ]
check 'the temporary files are gone' [ -z "$(ls -A "$work/tmp")" ]

# --- a fleet, with a site that hangs --------------------------------------------------------------

"$repo/bench/make_fleet" "$sites" 3 "$work/fleet"
run 2 --fleet "$work/fleet" --time-limit 15 --out "$work/rehearsed"
cp "$work/rehearsed/fleet.json" "$work/fleet.json"
valid fleet.json fleet
check 'every site is a row' [ "$(json "$work/fleet.json" 'len(r["sites"])')" -eq "$sites" ]
check 'the one that hangs is the worst' [ "$(json "$work/fleet.json" 'r["sites"][0]["result"]')" = timed-out ]
check 'each has its page' [ "$(find "$work/rehearsed/sites" -name '*.html' | wc -l)" -ge $((sites - 1)) ]
# Interrupted: two sites are not in the log yet.
sed -i '4,5d' "$work/rehearsed/joblog"
lines=$(wc -l <"$work/rehearsed/joblog")
run 2 --fleet "$work/fleet" --time-limit 15 --out "$work/rehearsed"
check 'it goes on where it was' [ "$(wc -l <"$work/rehearsed/joblog")" -eq $((lines + 2)) ]

echo "$failures checks failed"
[ "$failures" -eq 0 ]
