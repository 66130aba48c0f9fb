#!/usr/bin/env bash
# Upgrades on a disk that fails: one system call after the other returns an error, a file system
# gets full, and memory is short. Whatever fails, every configuration file is whole, the exit status is
# 0, the log says what could not be saved and why, and the next run on a healthy disk ends with the
# tree of an undisturbed upgrade.
#
# usage: tests/failing_disk.sh UPGRADE_AT [--every N]
#
# UPGRADE_AT is the program of that name from a build with tests. With --every N only each N-th call
# is made to fail.
set -euo pipefail

# shellcheck source=tests/lib/appliance.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib/appliance.sh"

live=etc/orix-conf/telephony

declare -A words=([ENOSPC]='No space left on device' [EIO]='Input/output error'
    [EROFS]='Read-only file system' [EACCES]='Permission denied' [EMFILE]='Too many open files')

# A file is whole when it is as before, as after, or ends as a file of sections does: an upgrade
# saves some files more than once.
check_whole() {
    local file name
    while IFS= read -r -d '' file; do
        name=${file#"$tree"/}
        cmp -s "$file" "$work/before/$name" 2>/dev/null && continue
        cmp -s "$file" "$work/done/$name" 2>/dev/null && continue
        [ -s "$file" ] || [ -e "$work/before/$name" ] || continue
        [ -s "$file" ] && [ -z "$(tail -c 1 "$file")" ] &&
            [ "$(grep -c '^{' "$file")" -eq "$(grep -c '^}' "$file")" ] && continue
        fail "$1: cut: $name"
    done < <(find "$tree/$live" -type f ! -name '*.mend-tmp' -print0)
}

# On a healthy disk again.
check_next_run() {
    local status=0 isLogged=yes
    [ -s "$tree/mend.log" ] || isLogged=no
    "$upgrade" "$tree" >/dev/null 2>&1 || status=$?
    # A disk that refused the recovery copy, too, though not for want of room, leaves nothing to begin
    # again from; one that took not even the log says so nowhere.
    if [ "$status" -eq 0 ] && [ "$isLogged" = no ]; then return; fi
    if [ "$status" -eq 0 ] && grep -qF 'upgrade goes on without it' "$tree/mend.log"; then return; fi
    expect_manifest "$1: the next run does not complete it" "$status"
}

# try CALL ERROR WHEN
try() {
    local what="$1 fails with $2 at $3" status=0 injected
    tried=$((tried + 1))
    renew
    strace -y -o "$work/trace" -e trace="$1" -e signal=none -e inject="$1:error=$2:when=$3" \
        "$upgrade" "$tree" >/dev/null 2>&1 || status=$?
    [ "$status" -eq 0 ] || fail "$what: exit status $status"
    injected=$(grep -m 1 -F '(INJECTED)' "$work/trace") || {
        fail "$what: no call failed"
        return 0
    }
    check_whole "$what"
    # What could not be saved or read is named, with the reason.
    if [[ $3 != *+ && $injected == *"/$live/"*.mend-tmp* && $1 =~ ^(write|fsync|rename)$ ]]; then
        grep -F "Can't save file: " "$tree/mend.log" | grep -qF "${words[$2]}" ||
            fail "$what: the log does not say so: $injected"
    elif [[ $injected == *"/$live/"*"O_RDONLY"* && $injected != *.mend-* ]]; then
        grep -qF "${words[$2]}" "$tree/mend.log" || fail "$what: the log does not say so: $injected"
    fi
    check_next_run "$what"
}

calls=openat,write,fsync,rename,renameat2,newfstatat,getdents64,mkdir,unlink
make_appliance "$work/before" 2.2.0
renew
strace -y -o "$work/calls" -e trace="$calls" -e signal=none "$upgrade" "$tree" \
    >/dev/null 2>&1
cp -a "$tree" "$work/done"
manifest "$tree" >"$work/expected"
# The loader's and the C library's own files are not at stake; the counts go on over them.
awk -v tree="$tree/" -v every="$every" '{
    call = $0; sub(/\(.*/, "", call); ++count[call]
    if (index($0, tree) && ++chosen % every == 0) print call, count[call]
}' "$work/calls" >"$work/points"
errors=(ENOSPC EIO EROFS EACCES EMFILE)
while read -r call number; do
    try "$call" "${errors[tried % ${#errors[@]}]}" "$number"
    # From this call on nothing can be written any more.
    [ $((tried % 4)) -ne 0 ] || [[ $call != @(write|fsync|rename) ]] || try "$call" ENOSPC "$number+"
done <"$work/points"
echo "$tried failing calls"

# A file system that gets full: with one page left, and with more and more of what the recovery copy
# and the new files need.
full() {
    local pages=$1 what="$1 pages left"
    cp -a "$work/before/." "$tree"
    dd if=/dev/zero of="$tree/filler" bs=4096 status=none 2>/dev/null || true
    truncate -s "-$((pages * 4096))" "$tree/filler"
    : >"$work/log"
    ln -s "$work/log" "$tree/mend.log"  # where there is room to say what could not be saved
    "$upgrade" "$tree" >/dev/null 2>&1 || fail "$what: exit status $?"
    check_whole "$what"
    manifest "$tree" >"$work/full"
    cmp -s "$work/expected" "$work/full" || grep -qF "No space left" "$work/log" ||
        fail "$what: the log does not say so"
    rm "$tree/filler"
    check_next_run "$what"
    [ "$failed" -eq 0 ]
}
export -f full check_whole check_next_run expect_manifest manifest fail
export work tree upgrade live
for pages in 0 1 2 4 8 16 32 64 96 128 160 192 224 256 320 400 480 600; do
    tried=$((tried + 1))
    rm -rf "$tree"
    mkdir "$tree"
    failed=0 bwrap --dev-bind / / --perms 0755 --size 4194304 --tmpfs "$tree" bash -c "full $pages" ||
        failed=$((failed + 1))
done

# Too little memory for the run, from none at all to enough: it changes nothing or all, and the next
# start completes it. Below the first limit that the loader needs there is no run.
limit=2000
while [ "$limit" -lt 60000 ] && ! prlimit --as=$((limit * 1024)) "$upgrade" "$work/none" >/dev/null 2>&1; do
    limit=$((limit + 100))
done
for more in 150 300 500 700 800 900 1000 1200 1500 2000 3000 6000; do
    tried=$((tried + 1))
    renew
    status=0
    prlimit --as=$(((limit + more) * 1024)) "$upgrade" "$tree" >/dev/null 2>&1 || status=$?
    [ "$status" -eq 0 ] || fail "$more KB of memory: exit status $status"
    check_whole "$more KB of memory"
    check_next_run "$more KB of memory"
done
finish 'runs on a failing disk' 20
