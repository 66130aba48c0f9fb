#!/usr/bin/env bash
# tests/rehearse_test.sh BINARY: the built program, run through tools/rehearse on the sample
# appliance, inside the real sandbox.
set -euo pipefail
export LC_ALL=C

repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
rehearse=$repo/tools/rehearse
sample=$repo/examples/appliance
binary=$(realpath -- "${1:?usage: tests/rehearse_test.sh BINARY}")

work=$(mktemp -d)
trap 'rm -rf -- "$work"' EXIT
failures=0
tab=$'\t'

check() {
    local what=$1
    shift
    if "$@"; then
        printf 'ok       %s\n' "$what"
    else
        printf 'FAILED   %s\n' "$what"
        failures=$((failures + 1))
    fi
}

# run ARGUMENT...: the rehearsal's exit status in $status, its output in $work/stdout and stderr.
run() {
    status=0
    "$rehearse" "$@" >"$work/stdout" 2>"$work/stderr" </dev/null || status=$?
}

status_is() {
    [ "$status" -eq "$1" ] || {
        printf 'exit status %s instead of %s; standard error:\n' "$status" "$1"
        cat "$work/stderr"
        return 1
    }
}

# holds FILE TEXT: some line of FILE has TEXT in it.
holds() {
    grep -qF -- "$2" "$1" || {
        printf '%s has no "%s":\n' "$1" "$2"
        cat "$1"
        return 1
    }
}

lacks() {
    ! grep -qF -- "$2" "$1"
}

# fingerprint TREE: every name with its kind, mode, time and link target, and every file's bytes.
fingerprint() {
    (
        cd "$1"
        find . -printf '%p %y %m %T@ %l\n' | sort
        find . -type f -exec sha256sum {} + | sort
    )
}

# entry FILE SECTION KEY: the value of a sectioned file's entry.
entry() {
    awk -v section="$2" -v key="$3" '
        $1 == "section" { name = $2; next }
        name == section && index($0, key "=") == 1 { print substr($0, length(key) + 2); exit }
    ' "$1"
}

same() {
    [ "$1" = "$2" ] || {
        printf 'got "%s", expected "%s"\n' "$1" "$2"
        return 1
    }
}

# --- an upgrade of the sample --------------------------------------------------------------------

factory_label=$(head -n 1 "$sample/etc/default-conf/config_label.txt")
live_label=$(head -n 1 "$sample/etc/orix-conf/config_label.txt")
check 'the sample is older than its firmware' [ "$factory_label" != "$live_label" ]

fingerprint "$sample" >"$work/before"
run --binary "$binary" "$sample"
check 'a rehearsal without --apply succeeds' status_is 0
check 'it shows the report' holds "$work/stdout" '=== version check ==='
check 'it shows the exit status' holds "$work/stdout" '=== exit status: 0 ==='
check 'it shows the diff' holds "$work/stdout" '--- a/etc/orix-conf/telephony/linedb'
check 'the sample lacks nothing' lacks "$work/stderr" 'warning'
fingerprint "$sample" >"$work/after"
check 'the sample is untouched' cmp "$work/before" "$work/after"

out=$work/upgraded
run --binary "$binary" --apply "$out" --report "$work/report" --changes "$work/changes" \
    --diff "$work/diff" "$sample"
check 'a rehearsal with --apply succeeds' status_is 0
fingerprint "$sample" >"$work/after"
check 'the sample is untouched by --apply' cmp "$work/before" "$work/after"
check 'mend.log names the live version' holds "$out/mend.log" \
    "${tab}current configuration version is not up-to-date ($live_label)"
check 'mend.log names the stamp' holds "$out/mend.log" \
    "=====Current configuration version: $factory_label is set in linedb"
check '--report is the same report' cmp "$work/report" "$out/mend.log"
check '--changes lists linedb' holds "$work/changes" 'changed  etc/orix-conf/telephony/linedb'
check '--diff has the stamp' holds "$work/diff" "+current_version=$factory_label"
check 'a section in a file is not shown' lacks "$work/stdout" '=== version check ==='
check 'linedb is stamped' same \
    "$(entry "$out/etc/orix-conf/telephony/linedb" general current_version)" "$factory_label"

# The diff is the whole truth about text files: applied to the sample, it gives the upgraded linedb.
cp "$sample/etc/orix-conf/telephony/linedb" "$work/linedb"
awk '/^diff -urN /{ wanted = ($3 == "a/etc/orix-conf/telephony/linedb") } wanted' "$work/diff" \
    >"$work/linedb.diff"
check 'the diff of linedb applies' patch -s "$work/linedb" "$work/linedb.diff"
check 'and gives the upgraded linedb' cmp "$work/linedb" \
    "$out/etc/orix-conf/telephony/linedb"

# --- the upgraded appliance, again ---------------------------------------------------------------

run --binary "$binary" --apply "$work/again" "$out"
check 'a second rehearsal succeeds' status_is 0
check 'it finds the stamp' holds "$work/again/mend.log" "${tab}Configurarion already checked."
check 'its report is a new one' lacks "$work/again/mend.log" 'is not up-to-date'

# --- a configuration root of the caller's choice -------------------------------------------------

mkdir "$work/elsewhere"
cp -a "$sample/." "$work/elsewhere/"
mv "$work/elsewhere/etc/orix-conf/telephony" "$work/elsewhere/mnt/bbram/phones"
ORIX_PATH=/nowhere run --binary "$binary" --apply "$work/elsewhere.out" "$work/elsewhere" \
    /mnt/bbram/phones
check 'CONFIG_ROOT is handed on' status_is 0
check 'the linedb there is stamped' same \
    "$(entry "$work/elsewhere.out/mnt/bbram/phones/linedb" general current_version)" \
    "$factory_label"
ORIX_PATH=/nowhere run --binary "$binary" --apply "$work/plain" "$sample"
check 'ORIX_PATH of the caller plays no part' same \
    "$(entry "$work/plain/etc/orix-conf/telephony/linedb" general current_version)" \
    "$factory_label"

# --- trees that lack something -------------------------------------------------------------------

cp -a "$sample/." "$work/bare/"
rm -rf "$work/bare/mnt" "$work/bare/usr" "$work/bare/proc" "$work/bare/bin"
run --binary "$binary" "$work/bare"
check 'a tree with the configuration alone is rehearsed' status_is 0
for place in proc/orix mnt/bbram usr/share/regional bin/rtsync; do
    check "a missing $place is said" holds "$work/stderr" "has no $place"
done

run --binary "$binary"
check 'no TREE: exit status' status_is 2
check 'no TREE: message' holds "$work/stderr" 'no TREE given'

run --binary "$binary" "$work/nowhere"
check 'a TREE that does not exist: exit status' status_is 2
check 'a TREE that does not exist: message' holds "$work/stderr" \
    "no such directory: $work/nowhere"

mkdir -p "$work/live/etc/orix-conf" "$work/factory/etc/default-conf/telephony"
run --binary "$binary" "$work/live"
check 'no factory tree: exit status' status_is 2
check 'no factory tree: message' holds "$work/stderr" 'has no etc/default-conf/telephony'

run --binary "$binary" "$work/factory"
check 'no live tree: exit status' status_is 2
check 'no live tree: message' holds "$work/stderr" 'has no etc/orix-conf'

mkdir "$work/linked"
cp -a "$sample/." "$work/linked/"
mv "$work/linked/etc/orix-conf" "$work/outside"
ln -s "$work/outside" "$work/linked/etc/orix-conf"
fingerprint "$work/outside" >"$work/before"
run --binary "$binary" "$work/linked"
check 'a link out of the tree: exit status' status_is 2
check 'a link out of the tree: message' holds "$work/stderr" 'leads out of the tree'
fingerprint "$work/outside" >"$work/after"
check 'what the link leads to is untouched' cmp "$work/before" "$work/after"

# --- other errors --------------------------------------------------------------------------------

run --binary "$work/unbuilt" "$sample"
check 'no program: exit status' status_is 2
check 'no program: it says how to build it' holds "$work/stderr" 'cmake --preset release'

run --binary "$binary" --apply "$out" "$sample"
check 'OUT in use: exit status' status_is 2
check 'OUT in use: message' holds "$work/stderr" 'OUT is not empty'

run --binary "$binary" --apply "$sample/out" "$sample"
check 'OUT inside TREE: exit status' status_is 2
check 'OUT inside TREE: message' holds "$work/stderr" 'OUT lies inside TREE'

run --nonsense "$sample"
check 'an unknown option: exit status' status_is 2

# Everything that PATH offers, except bubblewrap.
mkdir "$work/path"
ln -s -t "$work/path" /usr/bin/*
rm -f "$work/path/bwrap"
PATH=$work/path run --binary "$binary" "$sample"
check 'no bubblewrap: exit status' status_is 2
check 'no bubblewrap: message' holds "$work/stderr" 'apt-get install bubblewrap'

# What the program returns is what the rehearsal returns, and nothing of it stays behind.
printf '#!/bin/sh\necho said aloud\nexit 7\n' >"$work/seven"
chmod +x "$work/seven"
mkdir "$work/tmp"
TMPDIR=$work/tmp run --binary "$work/seven" "$sample"
check "the program's own exit status" status_is 7
check 'what it printed is shown' holds "$work/stdout" 'said aloud'
check 'a missing report is said' holds "$work/stderr" 'wrote no mend.log'
check 'the temporary files are gone' [ -z "$(ls -A "$work/tmp")" ]

printf '#!/bin/sh\ncat /etc/shadow /etc/passwd; ls -d /home /root /var; cat <&0; : >/usr/bin/x\n' \
    >"$work/prowler"
chmod +x "$work/prowler"
run --binary "$work/prowler" "$sample"
check "the host's /etc is out of sight" lacks "$work/stdout" 'root:'
check "the host's other directories are out of sight" holds "$work/stdout" "'/home': No such file"
check "the host's programs are read-only" holds "$work/stdout" 'Read-only file system'

if [ "$failures" -gt 0 ]; then
    printf '%d checks FAILED\n' "$failures"
    exit 1
fi
echo 'all checks passed'
