#!/usr/bin/env bash
# How often an upgrade may wait for the disk, and what an up-to-date start may cost, counted in system
# calls: no process, no rename, no sync, no write but the log's, and few calls for each file that it
# looks at.
#
# usage: tests/up_to_date_run.sh UPGRADE_AT
set -euo pipefail

# shellcheck source=tests/lib/appliance.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib/appliance.sh"

"$repo/bench/make_appliance" 40 "$work/unit"
strace -f -o "$work/trace" -e trace=fsync,fdatasync,syncfs,sync "$upgrade" "$work/unit" 2>/dev/null
syncs=$(grep -cE '^[0-9]+ +[a-z]*sync[a-z]*\(' "$work/trace")
echo "an upgrade: $syncs calls that wait for the disk"
[ "$syncs" -le 16 ] || {
    echo "error: at most 16, whatever the number of files"
    exit 1
}
manifest "$work/unit" >"$work/before"
: >"$work/unit/mend.log"
strace -f -y -o "$work/trace" "$upgrade" "$work/unit"
grep -qF 'Configurarion already checked.' "$work/unit/mend.log"
manifest "$work/unit" >"$work/after"
cmp "$work/before" "$work/after"

calls=$(grep -c '^[0-9]* *[a-z_0-9]*(' "$work/trace")
# A file is looked at by the name that it has in both trees.
files=$(grep -oE '"[^"]*/(default-conf|orix-conf)/[^"]*"' "$work/trace" | grep -vE '/"$' |
    grep -F '/orix-conf/' | sort -u | wc -l)
echo "$files files, $calls system calls"
[ "$files" -gt 300 ]
[ "$calls" -le $((100 + 4 * files)) ] || {
    echo "error: at most 100 and 4 for each file"
    exit 1
}
forbidden='(fork|clone|clone3|vfork|rename|renameat2?|f?data?sync|fsync|syncfs|sync|unlink|unlinkat|mkdir|chmod|fchmod|chown|fchown|utimensat|ftruncate|symlink|link)\('
if grep -E "^[0-9]+ +$forbidden" "$work/trace"; then
    echo "error: an up-to-date start changes nothing"
    exit 1
fi
if grep -E '^[0-9]+ +(write|pwrite64|writev)\(' "$work/trace" | grep -vF '/mend.log>'; then
    echo "error: it writes nothing but the log"
    exit 1
fi
[ "$(grep -cE '^[0-9]+ +execve\(' "$work/trace")" -eq 1 ]
