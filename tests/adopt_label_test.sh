#!/usr/bin/env bash
# tests/adopt_label_test.sh SCRIPT: what adopt-label does to the live label of a small unit.
set -euo pipefail

script=$(realpath -- "${1:?usage: tests/adopt_label_test.sh SCRIPT}")
work=$(mktemp -d)
trap 'rm -rf -- "$work"' EXIT
unit=$work/unit
live=$unit/etc/orix-conf/config_label.txt
factory=$unit/etc/default-conf/config_label.txt
tree=$unit/etc/orix-conf/telephony
failures=0

# A unit that was upgraded from 2.2.0 to 5.1.0.
reset() {
    rm -rf "$unit"
    mkdir -p "$tree" "${factory%/*}" "$unit/etc/default"
    echo 5.1.0 >"$factory"
    echo 2.2.0 >"$live"
    chmod 640 "$live"
    printf '# x\nlog=1\nsection other\n{\ncurrent_version=9\n}\n section general\r\n{\na=b=c\n%s\n}\n' \
        ' current_version =5.1.0' >"$tree/linedb"
}

# try LABEL SAID [CHANGE]: after CHANGE, a shell command, the live label is LABEL and SAID was said.
try() {
    local said status=0
    reset
    eval "${3-}"
    said=$(env ${orix_path+"ORIX_PATH=$orix_path"} sh "$script" "$unit") || status=$?
    if [ "$status" -eq 0 ] && [ "$(cat "$live" 2>&1)" = "$1" ] && [[ $said == *"$2"* ]] &&
        [ "$(wc -l <<<"$said")" -eq 1 ] && [ -z "$(find "$unit" -name '*.mend-tmp')" ]; then
        echo "ok       ${3-an upgraded unit}"
    else
        printf 'FAILED   %s\n  status %s, label %s, said: %s\n' "${3-}" "$status" "$(cat "$live")" "$said"
        failures=$((failures + 1))
    fi
}

try 5.1.0 'now says 5.1.0'
[ "$(stat -c %a "$live")" = 640 ] || failures=$((failures + 1))
# shellcheck disable=SC2016 # the changes are for eval
{
    try 5.1.0 'is up to date' 'cp "$factory" "$live"; chmod a-w "${live%/*}"'
    try 5.1.0 'now says' 'rm "$live"'
    try 5.1.0 'now says' 'mv "$live" "$work/label"; ln -s "$work/label" "$live"'
    [ -L "$live" ] || failures=$((failures + 1))
    try 2.2.0 'stands' 'mkdir "$tree.mend-undo"'
    try 2.2.0 'stands' 'mv "$tree" "$work/t$$"; ln -s "$work/t$$" "$tree"; mkdir "$work/t$$.mend-undo"'
    try 2.2.0 'stamped "5.0.0"' 'sed -i "s/=5.1.0/=5.0.0/" "$tree/linedb"'
    try 2.2.0 'stamped ""' 'sed -i "s/ general/ other/" "$tree/linedb"'
    try 2.2.0 'stamped ""' 'rm "$tree/linedb"'
    try 2.2.0 'ADOPT_LABEL=no' 'echo ADOPT_LABEL=no >"$unit/etc/default/setupmend"'
    try 5.1.0 'now says' 'echo "syntax (" >"$unit/etc/default/setupmend"'
    try 2.2.0 'warning' 'printf 5.1.0 >"$factory"'
    try 2.2.0 'warning' 'printf 5.1.0 >"$factory"; sed -i "s/=5.1.0/=5.1./" "$tree/linedb"'
    try 2.2.0 'not one line' 'printf "5.1.0\n5.1.0\n" >"$factory"'
    try 2.2.0 'not one line' 'printf "5.1.0\0\n" >"$factory"'
    try 2.2.0 'too long' 'printf %049d\\n 5 >"$factory"'
    try 2.2.0 'no factory label' 'rm "$factory"'
    orix_path=/mnt/x try 2.2.0 'mnt/xtelephony is stamped ""'
    orix_path=/mnt/x try 5.1.0 'now says' 'mkdir "$unit/mnt"; mv "$tree" "$unit/mnt/xtelephony"'
}
[ "$failures" -eq 0 ]
