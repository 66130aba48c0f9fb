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
limit=${REHEARSE_TIME_LIMIT-15}  # seconds for a site that hangs; all others need less

# Directories can be listed in either order in memory alone, wherever the other rehearsals work.
memory=${TMPDIR-/tmp}
[ ! -w /dev/shm ] || memory=/dev/shm
export TMPDIR=${TMPDIR-$memory}
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

# refused [STATUS] WHY ARGUMENT...
refused() {
    local wanted=4
    [ "$1" != 64 ] || { wanted=64 && shift; }
    run "$wanted" "${@:2}"
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

# problem FILE RULE: the items of a kind of problem, a line each.
problem() {
    json "$1" "chr(10).join(i['file'] + ' ' + i['text'] for p in r['problems'] if p['rule'] == '$2' for i in p['items'])"
}

# told WHAT FILE RULE PATTERN: a kind of problem has an item like that.
told() {
    problem "$2" "$3" >"$work/items"
    check "$1" grep -q -- "$4" "$work/items"
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
ORIX_PATH=/nowhere TMPDIR=$memory run 1 --apply "$work/out" --report "$work/report" --diff "$work/diff" \
    --json "$work/json" --html "$work/html" --explain Tighe "$sample"
says "appliance: Upgraded from 2.2.0 to $newest, with 1 problem to look at."
says 'extension 22 is in routing mode'
says 'The next start changes nothing.'
says 'extensiondb [21] user_display_name = "Nora Tighe" moved to etc/orix-conf/telephony/21/personaldatadb'
case $(stat -f -c %T "$memory") in
tmpfs) check 'both orders were tried' [ "$(json "$work/json" 'r["notes"]')" = '[]' ] ;;
*) check 'that one order was tried is said' grep -qF 'only one order' "$work/json" ;;
esac
check 'the settings add up' [ "$(json "$work/json" '500 < r["ledger"]["settings"] - r["ledger"]["carried"] <= sum(
    g["count"] for g in r["ledger"]["groups"] if g["fate"] in ("changed", "moved", "dropped"))')" = True ]
check 'outputs are for their owner alone' [ "$(stat -c %a "$work/json" "$work/html" "$work/out" | sort -u | tr '\n' ' ')" = '600 700 ' ]
valid json rehearsal
check 'the sample is untouched' diff -r --no-dereference "$work/before" "$sample"
check '--report is the report in OUT' cmp "$work/report" "$work/out/mend.log"
(cd "$work/before" && git apply "$work/diff")
check '--diff makes OUT of the sample' diff -rq --no-dereference -x mend.log "$work/before" "$work/out"
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
says 'with 1 problem to look at'
# Programs that do nearly the same.
cp -a "$sample" "$work/carrier"
cp "$binary" "$work/carrier/mnt/setupmend"
live=/etc/orix-conf/telephony
while IFS='|' read -r wanted fault; do
    printf '#!/bin/sh\n/mnt/setupmend\n%s\n' "$fault" >"$work/faulty"
    chmod +x "$work/faulty"
    run 1 --binary "$work/faulty" --json "$work/faulty.json" "$work/carrier"
    told "it is told: $fault" "$work/faulty.json" unaccounted "$wanted"
done <<END
21/personaldatadb fn_number not there|sed -i /fn_number/d $live/21/personaldatadb
trunk0/trunk.cfg .trunk. echoDelay|sed -i s/echoDelay=80/echoDelay=0/ $live/isdn/trunk0/trunk.cfg
22/voicemaildb mode 666|chmod 666 $live/22/voicemaildb
21/msg0001.wav the file is not there|rm /mnt/bbram/bvoicedata/21/msg0001.wav
END

# One that does not come to rest.
printf '#!/bin/sh\n/mnt/setupmend\necho again >>%s/rtp.cfg\n' "$live" >"$work/faulty"
run 1 --binary "$work/faulty" --json "$work/faulty.json" "$work/carrier"
told 'what the next start would change is told' "$work/faulty.json" next-start 'rtp.cfg '
says 'The next start would change 1 file.'

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
    if p["rule"] == "malformed" for i in p["items"]]')" = '[3]' ]
told 'what was not converted for its sake is told' "$work/malformed.json" unaccounted '21/huntdb .*left as it was'
spoilt lost
echo 'neither section nor entry' >>"$live/linedb"
run 1 "$site"
says 'A main database could not be read'
spoilt unlabelled
rm "$site/etc/orix-conf/config_label.txt"
run 2 "$site"
says "Only PARTLY upgraded from an unknown version to $newest"
spoilt own-label
echo "$newest" >"$live/mend-label"
run 0 "$site"
says "Note: the tree's own label, mend-label, says $newest, and etc/orix-conf/config_label.txt 2.2.0"
says "Up to date at $newest"
spoilt empty-label
echo >"$site/etc/default-conf/config_label.txt"
run 2 --json "$work/label.json" "$site"
check 'an empty label is the cause' [ "$(problem "$work/label.json" no-label)" = 'etc/default-conf/config_label.txt it is empty' ]
# Upgraded before, and the label not rewritten.
cp -a "$work/out" "$work/again"
sed -i s/=5.1.0/=5.0.9/ "$work/again/etc/orix-conf/telephony/linedb"
run 1 --json "$work/again.json" "$work/again"
told 'what would be converted a second time is told' "$work/again.json" converted-again 'trunk0.cfg .*echoDelay'
told 'a password that would be lost is told' "$work/again.json" unaccounted '21/voicemaildb password changed'
spoilt twice
cp "$site/etc/default-conf/telephony/dspload.cfg" "$site/etc/default-conf/telephony/04-lines/"
sed -i 's/=.*/=7/' "$site/etc/default-conf/telephony/04-lines/dspload.cfg"
if [ "$(stat -f -c %T "$memory")" = tmpfs ]; then
    TMPDIR=$memory run 1 --json "$work/twice.json" "$site"
    told 'a result that the order of a directory decides is told' "$work/twice.json" order 'dspload.cfg .*upwards'
else
    echo 'skipped  two orders: no memory to work in'
fi
spoilt emptied
echo 2.4.10 >"$site/etc/orix-conf/config_label.txt"
printf 'section dynamic\n{\nmapped_host=192.168.7.4\n}\n' >"$live/nat.cfg"
chmod 600 "$live/voicemaildb"
run 1 --json "$work/emptied.json" "$site"
told 'a setting that is emptied is told' "$work/emptied.json" unaccounted 'mapped_host emptied: "192.168.7.4"'
spoilt label-end
printf %s "$newest" >"$site/etc/default-conf/config_label.txt"
run 1 "$site"
says 'A label has no line end'
echo 2.2 >"$site/etc/orix-conf/config_label.txt"
run 1 "$site"
says 'config_label.txt: it is "2.2"'
echo "$newest" >"$site/etc/default-conf/config_label.txt"
echo 9.0.0 >"$site/etc/orix-conf/config_label.txt"
run 1 "$site"
says 'the configuration is of 9.0.0, the firmware of 5'
spoilt command
printf '#!/bin/sh\necho no route >&2; exit 3\n' >"$site/bin/rtsync"
run 1 "$site"
says 'no route'
spoilt refused
mv "$live/rtp.cfg" "$live/elsewhere"
ln -s /proc/orix/rtp.cfg "$live/rtp.cfg"
cp "$live/elsewhere" "$site/proc/orix/rtp.cfg"
run 2 "$site"  # a second start would stamp it
says 'no: Files that were not saved: etc/orix-conf/telephony/rtp.cfg'

# A program that dies, and one that hangs.
printf '#!/bin/sh\nkill -SEGV $$\n' >"$work/crasher"
printf '#!/bin/sh\nsleep 3600\n' >"$work/sleeper"
chmod +x "$work/crasher" "$work/sleeper"
run 3 --binary "$work/crasher" "$sample"
says 'killed by signal 11'
printf '#!/bin/sh\ngrep -q current_version %s/linedb && kill -SEGV $$\n/mnt/setupmend\n' "${live#"$site"}" >"$work/crasher"
run 3 --binary "$work/crasher" "$work/carrier"
says 'signal 11 (Segmentation fault), at the next start'
echo 'time-limit = 6' >"$work/carrier/setupmend-site.toml"  # its own counts
run 3 --binary "$work/sleeper" --time-limit "$limit" --html "$work/sleeper.html" "$work/carrier"
says 'it took more than 6 seconds'
# What it did up to there is told.
spoilt hanging
printf '#!/bin/sh\nsleep 3600\n' >"$site/bin/rtsync"
sed -i 's/^password=.*/password=Xyzzy-4711-plugh/' "$live/extensiondb"
run 3 --time-limit "$limit" --json "$work/hanging.json" --html "$work/hanging.html" "$site"
says ', behind the step '
valid hanging.json rehearsal
check 'a site that hangs is told as far as it came' [ "$(json "$work/hanging.json" 'all([len(r["changes"]) > 9, len(r["files"]) > 9,
    sum(s["added"] for s in r["steps"]) > 9, "version" in r["report"]])')" = True ]
check 'and its passwords are hidden' [ "$(cat "$work/hanging.json" "$work/hanging.html" | grep -c Xyzzy)" -eq 0 ]

# A password in every file of the site, and in names of it what no terminal must get.
spoilt secret
find "$live" -type f -exec sh -c 'printf "\npassword=Xyzzy-4711-plugh\n" >>"$1"' sh {} \;
sed -i 's/^SIP_password=.*/SIP_password=Xyzzy-4711-plugh/; s/^user_display_name=.*/user_display_name=a\x1b[2J/' "$live/extensiondb"
printf '#!/bin/sh\necho "bad key Xyzzy-4711-plugh" | tee /dev/stderr; exit 3\n' >"$site/bin/rtsync"
run 1 --json "$work/secret.json" --html "$work/secret.html" --explain password "$site"
check 'a password is nowhere' [ "$(cat "$work/stdout" "$work/stderr" "$work/secret.json" "$work/secret.html" | grep -c Xyzzy)" -eq 0 ]
check 'but that it is there' grep -q 'hidden, 16 characters (no. ' "$work/stdout"
check 'no control character reaches the terminal' [ "$(grep -c "$(printf '\033')" "$work/stdout")" -eq 0 ]
run 1 --json - --show-secrets "$site"
check '--json - is JSON alone' /usr/bin/python3 -m json.tool "$work/stdout" /dev/null
check '--show-secrets shows them' grep -q Xyzzy "$work/stdout"

# A hostile name is text in the page, and nothing in the page ends its data.
spoilt hostile
name='<img src=x onerror=alert(1)>'
cp -r "$live/21" "$live/$name"
sed -n "/^section 21\$/,/^}/ { s/21/$name/; p }" "$sample/etc/orix-conf/telephony/extensiondb" >>"$live/extensiondb"
run 0 --html "$work/hostile.html" "$site"
check 'the name is in the page, escaped' grep -qF '\u003cimg src=x' "$work/hostile.html"
check 'and nowhere else' [ "$(grep -cF '<img src=x' "$work/hostile.html")" -eq 0 ]

# --- what is refused, and what is seen of this machine --------------------------------------------

run 64
refused 'no such directory or archive' "$work/nowhere"
refused 'has no etc/default-conf/telephony' "$sample/etc/orix-conf"
refused 64 'OUT is not empty' --apply "$work/out" "$sample"
refused 64 'lies inside TREE, which must not change' --apply "$sample/out" "$sample"
refused 64 'two outputs have one name' --json "$work/x" --diff "$work/x" "$sample"
refused 'cannot write' --json "$work/none/x" "$sample"
run 64 --nonsense "$sample"
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
worst=$((sites < 9 ? 3 : 4))  # the ninth has no factory tree
run "$worst" --fleet "$work/fleet" --time-limit "$limit" --out "$work/rehearsed"
cp "$work/rehearsed/fleet.json" "$work/fleet.json"
valid fleet.json fleet
check 'every site is a row' [ "$(json "$work/fleet.json" 'len(r["sites"])')" -eq "$sites" ]
check 'the one that hangs is told' [ "$(json "$work/fleet.json" '[s["name"] for s in r["sites"] if s["result"] == "crashed"]')" = "['site-0004']" ]
check 'a problem leads to its sites' [ "$(json "$work/fleet.json" '[[r["sites"][i]["name"] for i in p["sites"]]
    for p in r["problems"] if "forwardlistdb" in p["text"]][0][0]')" = site-0001.tar.gz ]
check 'each has its page' [ "$(find "$work/rehearsed/sites" -name '*.html' | wc -l)" -ge $((sites - 1)) ]
# Interrupted: of two sites nothing is kept yet.
rm "$work/rehearsed/sites/site-000"[56]*.kept
run "$worst" --fleet "$work/fleet" --time-limit "$limit" --out "$work/rehearsed"
says "$sites sites in"
says "$((sites - 2)) of them as they were"
check 'it goes on where it was' [ "$(grep -c . "$work/rehearsed/joblog")" -eq 3 ]

# --- two candidates -------------------------------------------------------------------------------

# The firmware is laid under the backups; a site has its own configuration root, and one a link to it.
mkdir -p "$work/gate" "$work/firmware/usr/share"
cp -a "$sample/etc" "$sample/bin" "$work/firmware"
cp -a "$sample/usr/share/regional" "$work/firmware/usr/share"
rm -r "$work/firmware/etc/orix-conf"
tar -C "$work/firmware" -czf "$work/old.tar.gz" .
echo 5.9.0 >"$work/firmware/etc/default-conf/config_label.txt"
for name in plain other-root; do cp -a "$work/healthy" "$work/gate/$name"; done
mkdir "$work/gate/other-root/data"
mv "$work/gate/other-root/etc/orix-conf/telephony" "$work/gate/other-root/data/pbx"
mkdir "$work/gate/plain/data"
mv "$work/gate/plain/etc/orix-conf/telephony" "$work/gate/plain/data/linked"
ln -s /data/linked "$work/gate/plain/etc/orix-conf/telephony"
echo 'config-root = "/data/pbx"' >"$work/gate/other-root/setupmend-site.toml"
rm -r "$work/gate/plain/etc/default-conf"
ln -s nowhere "$work/gate/vanished"
echo sums >"$work/gate/SHA256SUMS"
run 69 --programs another --keep "$work/kept" "$work/healthy"  # on another machine, of a fleet
mkdir -p "$work/mine/firmware"
refused 64 'is no OUT of a fleet' --fleet "$work/gate" --out "$work/mine"
refused 'the firmware is 5.9.0, and 5.1.0 was expected' --firmware "$work/firmware" --expect 5.1.0 "$work/healthy"
run 1 --fleet "$work/gate" --firmware "$work/old.tar.gz" --expect "$newest" --only plain --only other-root
run 4 --fleet "$work/gate" --firmware "$work/firmware" --against-firmware "$work/old.tar.gz" --out "$work/gated"
says '1 unknown, 2 unchanged'
says '1 file passed over'
cp "$work/gated/fleet.json" "$work/gated.json"
valid gated.json fleet
check 'every site is a row, with the class' [ "$(json "$work/gated.json" 'sorted((s["name"], s["to"], s["comparedClass"])
    for s in r["sites"])')" = "[('other-root', '5.9.0', 'unchanged'), ('plain', '5.9.0', 'unchanged'), ('vanished', '', 'unknown')]" ]
check 'what is kept is small' [ "$(stat -c %s "$work/gated/sites/plain.kept")" -lt 30000 ]

# A candidate that forgets a setting, one that answers now so and now so, and one that is meant to.
for name in plain other-root; do cp "$binary" "$work/gate/$name/mnt/setupmend"; done
candidate() {
    printf '#!/bin/sh\n/mnt/setupmend "$@"\ncd /data/pbx || cd %s\n%s\n' "$live" "$1" >"$work/candidate"
    chmod +x "$work/candidate"
    run "$2" --fleet "$work/gate" --firmware "$work/old.tar.gz" --out "$work/gated2" \
        --binary "$work/candidate" --baseline "$work/gated3" --junit "$work/junit.xml" "${@:3}"
}
live=/etc/orix-conf/telephony
run 4 --fleet "$work/gate" --firmware "$work/old.tar.gz" --out "$work/gated3" --binary "$binary"
rm "$work/gate/vanished"
candidate 'sed -i /fn_number/d 2?/personaldatadb' 1
says "2 sites: Settings that no step accounts for: "
says "personaldatadb: fn_number is gone"
says 'sites that these backups lack: 1 site: vanished'
check 'what Jenkins and GitLab read' xmllint --noout --schema "$repo/docs/junit.xsd" "$work/junit.xml"
cat >"$work/waivers.toml" <<END
[[waiver]]
setting = "fn_number"
owner = "N. Tighe"
reason = "meant so"
until = 2099-12-31
END
candidate 'sed -i /fn_number/d 2?/personaldatadb' 0 --waivers "$work/waivers.toml"
says '2 unchanged'
says '2 of them as they were'
check 'waived ones are skipped' grep -q 'skipped message="meant so' "$work/junit.xml"
# shellcheck disable=SC2016  # for the candidate's shell
candidate 'echo "hold=$(date +%N)" >>nat.cfg' 1
says '2 unstable'
rm "$work/gated3/sites/plain.kept"
candidate '' 4
says '1 unknown'
run 0 --waivers "$repo/examples/waivers.toml" "$sample"
says '1 problem is known and waived until'

echo "$failures checks failed"
[ "$failures" -eq 0 ]
