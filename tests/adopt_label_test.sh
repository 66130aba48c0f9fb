#!/usr/bin/env bash
# tests/adopt_label_test.sh SCRIPT UPGRADE_AT: what adopt-label does to the labels of a small unit,
# one state a row, and what becomes of the sample when label and upgrade go through a unit's years.
set -euo pipefail

script=$(realpath -- "${1:?usage: tests/adopt_label_test.sh SCRIPT UPGRADE_AT}")
# shellcheck source=tests/lib/appliance.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib/appliance.sh" "${@:2}"
trap 'chmod -R u+w "$work"; rm -rf -- "$work"' EXIT

at() {
    unit=$1
    live=$unit/etc/orix-conf/config_label.txt
    first=$unit/etc/orix-conf/config_label.first
    factory=$unit/etc/default-conf/config_label.txt
    settings=$unit/etc/default/setupmend
    tree=$unit/etc/orix-conf/telephony
    stamped=$tree/mend-label.stamped
}

# adopt MODE: sets $said and $status. What is said on the standard error output is told apart.
adopt() {
    status=0
    said=$(env ${orix_path+"ORIX_PATH=$orix_path"} sh "$script" "$1" "$unit" 2>"$work/complaints") || status=$?
}

# copy LABEL: a recovery copy whose tree has that label, "-" for none.
copy() {
    mkdir "$tree.mend-undo"
    : >"$tree.mend-undo/target.mend-tmp"
    put "$tree.mend-undo/mend-label" "$1"
}

# content FILE: "-" when it is not there.
content() {
    cat "$1" 2>/dev/null || echo -
}

# expect WHAT LIVE TREE SAID [STATUS]: after a run that said so in one line, the labels are these. Of 3,
# setupmend must not run.
expect() {
    tried=$((tried + 1))
    local found
    found="$(content "$live") $(content "$tree/mend-label")"
    if [ "$status" -ne "${5-0}" ] || [ "$(wc -l <<<"$said")" -ne 1 ] || [[ $said != *"$4"* ]] ||
        [ "$found" != "$2 $3" ] || [ -n "$(find "$unit" -name '*label*.mend-tmp')" ]; then
        fail "$1: status $status, labels $found, said: $said"
    fi
}

# --- one state a row -------------------------------------------------------------------------------

# put FILE TEXT: no file for "-".
put() {
    [ "$2" = - ] || printf '%s\n' "$2" >"$1"
}

# row MODE FACTORY LIVE FIRST TREE STAMP to LIVE TREE SAID [CHANGE]: from the labels and the stamp on
# the left, "-" for none, after CHANGE, a shell command, the run leaves those on the right. With "no" for
# "to", it does not let setupmend run.
row() {
    local mode=$1 status_then=0
    [ "$7" = to ] || status_then=3
    chmod -R u+w "$unit" 2>/dev/null || true
    rm -rf "$unit"
    mkdir -p "$tree" "${factory%/*}/telephony" "${settings%/*}"
    put "$factory" "$2"
    put "$live" "$3"
    put "$first" "$4"
    put "$tree/mend-label" "$5"
    [ ! -e "$live" ] || chmod 640 "$live"
    printf '# x\nlog=1\nsection other\n{\ncurrent_version=9\n}\n section general\r\n{\na=b=c\n%s\n}\n' \
        " current_version =${6/#-/}" >"$tree/linedb"
    [ "$6" != - ] || sed -i '/ current_version/d' "$tree/linedb"
    eval "${11-}"
    adopt "$mode"
    expect "$*" "$8" "$9" "${10}" "$status_then"
}

at "$work/unit"
# shellcheck disable=SC2016 # the changes are for eval
{
    #   mode   factory live first  tree  stamp    live  tree
    # A tree gets its label.
    row before 5.1.0 2.2.0 -       -     -     to 2.2.0 2.2.0 'telephony is 2.2.0'
    [ "$(content "$first")" = 2.2.0 ] || fail 'the first label is not remembered'
    row before 5.1.0 5.1.0 -       -     5.1.0 to 5.1.0 5.1.0 'so says'
    [ "$(content "$stamped")" = 5.1.0 ] || fail 'the stamp is not noted'
    [ "$(content "$first")" = unknown ] || fail 'a label that was rewritten is taken for the first'
    row before 5.1.0 5.1.0 2.2.0   -     -     to 2.2.0 2.2.0 'warning'
    row before 5.1.0 5.1.0 unknown -     -     no 5.1.0 -     'nothing tells what version'
    row before 5.2.0 5.1.0 2.2.0   -     3.0.1 no 5.1.0 -     'adopt-label accept'
    row before 3.0.1 5.1.0 2.2.0   -     3.0.1 to 5.1.0 -     'adopt-label accept'
    row before 5.1.0 2.2.0 -       -     5.1.0 to 2.2.0 -     'nothing tells whether'
    [ "$(content "$first")" = 2.2.0 ] || fail 'the label of a unit that never adopted is not the first'
    row before 5.2.0 2.2.0 2.2.0   -     5.1.0 to 5.1.0 5.1.0 'warning'
    row before 5.1.0 -     -       -     5.1.0 to 5.1.0 5.1.0 'warning'
    row before 5.1.0 2.2.0 2.2.0   -     '5 1' no 2.2.0 -     'is no version'
    # A factory reset: to nothing, and to the factory's files.
    row before 5.1.0 3.0.1 2.2.0   -     -     to 5.1.0 5.1.0 "the factory's" 'rm "$tree/linedb"'
    row before 5.1.0 3.0.1 2.2.0   -     -     to 5.1.0 5.1.0 "the factory's" \
        'mkdir "${factory%/*}/telephony/04"; cp "$tree/linedb" "${factory%/*}/telephony/04/x"; ln -s /nowhere "$tree/regional"'
    row before 5.1.0 3.0.1 2.2.0   -     -     to 2.2.0 2.2.0 'warning' \
        'cp "$tree/linedb" "${factory%/*}/telephony/x"; echo 1 >"$tree/own"'
    row before 5.1.0 3.0.1 2.2.0   3.0.1 -     to 5.1.0 5.1.0 "the factory's" \
        'echo 3.0.1 >"$stamped"; cp "$tree/linedb" "${factory%/*}/telephony"'
    row before 5.1.0 3.0.1 -       -     -     no 3.0.1 -     'nothing tells what' \
        'rm "$tree/linedb"; echo 1 >"$tree/own"'
    row before 5.1.0 3.0.1 -       -     -     to 3.0.1 -     'there is no' 'rm -r "$tree"'
    # The live label follows the tree's, whichever is newer; the newline counts.
    row before 5.1.0 5.1.0 2.2.0   2.2.0 -     to 2.2.0 2.2.0 'which said "5.1.0", now says 2.2.0'
    row before 3.0.1 2.2.0 2.2.0   5.1.0 3.0.1 to 5.1.0 5.1.0 'now says 5.1.0'
    row before 5.1.0 5.1.0 2.2.0   5.1.0 5.1.0 to 5.1.0 5.1.0 'now says 5.1.0' 'printf 5.1.0 >"$live"'
    row before 5.1.0 5.1.0 2.2.0   5.1.0 -     to 5.1.0 5.1.0 'so says' 'chmod a-w "${live%/*}" "$tree"'
    row before 5.1.0 2.2.0 2.2.0   5.1   -     no 2.2.0 5.1   'not one line' 'echo >>"$tree/mend-label"'
    row before 5.1.0 2.2.0 2.2.0   5.1   5.1.0 to 2.2.0 5.1   'not one line' 'echo >>"$tree/mend-label"'
    # One that cannot be set. A directory in its place is as good as a disk that is read-only.
    row before 5.1.0 -     2.2.0   5.1.0 5.1.0 no -     5.1.0 'it stays' 'mkdir "$live"'
    # A label that no gate can be measured against, in the firmware and in the tree.
    row before -     2.2.0 2.2.0   2.2.0 -     no 2.2.0 2.2.0 'every conversion would run'
    row before 5.1.0 2.2.0 2.2.0   2.2.0 -     no 2.2.0 2.2.0 'not one line' 'printf "5.1.0\r\n" >"$factory"'
    row before 5.1.0 2.2.0 2.2.0   2.2.0 -     no 2.2.0 2.2.0 'another version' 'printf 5.1.12 >"$factory"'
    row before 5.1.0 2.2.0 2.2.0   2.2.0 -     to 2.2.0 2.2.0 'so says' 'printf 5.1.0 >"$factory"'
    row before 5.2   2.2.0 2.2.0   2.2.0 -     no 2.2.0 2.2.0 'not three numbers'
    row before 6.0.0 5.2   2.2.0   5.2   5.2   no 5.2   5.2   'not three numbers'
    row before 5.1.0 2.2   2.2     2.2   -     to 2.2   2.2   'so says'
    # A linedb from elsewhere under the label of a finished upgrade, or of one that was fallen back from.
    row before 5.1.0 5.1.0 2.2.0   5.1.0 -     no 5.1.0 5.1.0 'a backup put back' 'echo 5.1.0 >"$stamped"'
    row before 5.1.0 5.1.0 2.2.0   5.1.0 -     no 5.1.0 5.1.0 'a backup put back' 'echo 3.0.1 >"$stamped"'
    row before 5.1.0 5.1.0 2.2.0   2.2.0 -     to 2.2.0 2.2.0 'now says 2.2.0' 'echo 5.1.0 >"$stamped"'
    row before 5.1.0 5.1.0 2.2.0   5.1.0 3.0.1 to 5.1.0 5.1.0 'is 5.1.0, and so says' 'echo 3.0.1 >"$stamped"'
    row before 3.0.1 5.1.0 2.2.0   5.1.0 3.0.1 to 5.1.0 5.1.0 'is 5.1.0, and so says' 'echo 5.1.0 >"$stamped"'
    # One that is lost, which the run restores.
    row before 5.1.0 5.1.0 2.2.0   5.1.0 -     to 5.1.0 5.1.0 'so says' 'echo 5.1.0 >"$stamped"; rm "$tree/linedb"; echo >"$tree/own"'
    row before 5.1.0 5.1.0 2.2.0   5.1.0 -     to 5.1.0 5.1.0 'so says' 'echo 5.1.0 >"$stamped"; : >"$tree/linedb"'
    row before 5.1.0 5.1.0 2.2.0   5.1.0 -     to 5.1.0 5.1.0 'so says' 'echo 5.1.0 >"$stamped"; sed -i \$d "$tree/linedb"'
    row before 5.1.0 5.1.0 2.2.0   5.1.0 -     to 5.1.0 5.1.0 'so says' 'echo 5.1.0 >"$stamped"; echo text >>"$tree/linedb"'
    # Behind an early end, nothing before it is mended.
    row before 5.1.0 2.2.0 2.2.0   2.2.0 5.1.0 no 2.2.0 2.2.0 'did not come to its end'
    # A recovery copy: the label of what it would put back, unless that may be another tree.
    row before 5.1.0 5.1.0 2.2.0   2.2.0 -     to 2.2.0 2.2.0 'recovery copy' 'copy 2.2.0'
    row before 5.1.0 5.1.0 2.2.0   5.1.0 5.1.0 to 2.2.0 5.1.0 'recovery copy' 'copy 2.2.0'
    row before 5.1.0 5.1.0 2.2.0   -     -     to 2.2.0 -     'recovery copy' 'copy 2.2.0; rm -r "$tree"'
    row before 6.0.0 2.2.0 2.2.0   5.1.0 -     to 6.0.0 5.1.0 'this start settles' 'copy 2.2.0'
    row before 5.1.0 2.2.0 -       -     -     to 2.2.0 -     'stands' 'copy -'
    row before 5.1.0 2.2.0 -       -     -     to 2.2.0 2.2.0 'so says' 'mkdir "$tree.mend-undo"'

    # Behind the upgrade.
    row after  5.1.0 2.2.0 2.2.0   5.1.0 5.1.0 to 5.1.0 5.1.0 'now says 5.1.0'
    [ "$(stat -c %a "$live")" = 640 ] || fail 'the label has another mode'
    row after  5.1.0 5.1.0 2.2.0   5.1.0 5.1.0 to 5.1.0 5.1.0 'up to date' 'chmod a-w "${live%/*}" "$tree"'
    row after  5.1.0 5.1.0 2.2.0   5.1.0 -     to 5.1.0 5.1.0 'up to date' 'echo 5.1.0 >"$stamped"'
    [ ! -e "$stamped" ] || fail 'the linedb that was restored would be taken for a backup'
    row after  5.1.0 -     2.2.0   5.1.0 5.1.0 to 5.1.0 5.1.0 'now says'
    row after  5.1.0 2.2.0 2.2.0   5.1.0 5.1.0 to 5.1.0 5.1.0 'now says' 'mv "$live" "$work/l"; ln -s "$work/l" "$live"'
    [ -L "$live" ] || fail 'a link is replaced'
    row after  5.1.0 2.2.0 2.2.0   5.1.0 5.1.0 to 2.2.0 5.1.0 'stands' 'copy 2.2.0'
    row after  5.1.0 2.2.0 2.2.0   5.1.0 5.1.0 to 2.2.0 5.1.0 'stands' 'copy 2.2.0; mv "$tree.mend-undo" "$tree/.mend-undo"'
    row after  5.1.0 2.2.0 2.2.0   5.1.0 5.1.0 to 2.2.0 5.1.0 'stands' \
        'rm -rf "$work/t"*; mv "$tree" "$work/t"; ln -s "$work/t" "$tree"; copy 2.2.0; mv "$tree.mend-undo" "$work/t.mend-undo"'
    row after  5.1.0 2.2.0 2.2.0   2.2.0 5.1.0 to 2.2.0 2.2.0 'did not come to its end' 'echo 2.2.0 >"$stamped"'
    [ ! -e "$stamped" ] || fail 'the remedy for an early end would be taken for a backup'
    row after  5.1.0 2.2.0 2.2.0   2.2.0 -     to 2.2.0 2.2.0 'has not ended'
    row after  5.1.0 2.2.0 2.2.0   -     5.1.0 to 2.2.0 -     'no label of its own'
    row after  5.1.0 2.2.0 2.2.0   5.1.0 5.0.0 to 2.2.0 5.1.0 'stamped "5.0.0"'
    row after  5.1.0 6.0.0 2.2.0   5.1.0 5.1.0 to 6.0.0 5.1.0 'not lowered'
    row after  3.0.1 5.1.0 2.2.0   5.1.0 3.0.1 to 5.1.0 5.1.0 'older than' 'echo 5.1.0 >"$stamped"'
    [ "$(content "$stamped")" = 3.0.1 ] || fail "the older firmware's stamp is not noted"
    row after  5.9.0 5.10.0 2.2.0 5.10.0 5.9.0 to 5.10.0 5.10.0 'older than'
    row after  -     2.2.0 2.2.0   2.2.0 2.2.0 to 2.2.0 2.2.0 'is not there'
    row after  5.1.0 2.2.0 2.2.0   5.1.  5.1.  to 5.1.  5.1.  'warning' 'printf 5.1.0 >"$factory"'
    row after  5.1.0 2.2.0 2.2.0   2.2.0 2.2.0 to 2.2.0 2.2.0 'not one line' 'echo 5.1.0 >>"$factory"'
    row after  5.1.0 2.2.0 2.2.0   2.2.0 2.2.0 to 2.2.0 2.2.0 'not one line' 'printf "5.1.0\0\n" >"$factory"'
    row after  5.1.0 2.2.0 2.2.0   2.2.0 2.2.0 to 2.2.0 2.2.0 'too long' 'printf %049d\\n 5 >"$factory"'

    # A person's word.
    row accept 5.1.0 2.2.0 2.2.0   -     5.1.0 to 5.1.0 5.1.0 'as accepted'
    row accept 5.1.0 5.1.0 2.2.0   5.1.0 3.0.1 to 3.0.1 3.0.1 'as accepted'
    row accept 3.0.1 5.1.0 2.2.0   5.1.0 3.0.1 to 5.1.0 5.1.0 'not accepted'
    row accept 5.1.0 5.1.0 2.2.0   5.1.0 -     to 5.1.0 5.1.0 'stays what its label says' 'echo 5.1.0 >"$stamped"'
    [ ! -e "$stamped" ] || fail 'accept does not end the warning'
    row accept 5.1.0 2.2.0 2.2.0   -     -     to 2.2.0 -     'no version'

    # A second tree has its own label, and the unit's label is that of the tree in use.
    orix_path=/mnt/x/ row before 5.1.0 5.1.0 2.2.0 5.1.0 -     to 3.0.1 5.1.0 'now says 3.0.1' \
        'mkdir -p "$unit/mnt/x"; cp -r "$tree" "$unit/mnt/x"; echo 3.0.1 >"$unit/mnt/x/telephony/mend-label"'
    orix_path=/mnt/x row before 5.1.0 5.1.0 2.2.0 5.1.0 -     to 3.0.1 5.1.0 'now says 3.0.1' \
        'mkdir -p "$unit/mnt"; cp -r "$tree" "$unit/mnt/xtelephony"; echo 3.0.1 >"$unit/mnt/xtelephony/mend-label"'
    for mode in before after accept; do
        row "$mode" 5.1.0 2.2.0 -  -     5.1.0 to 2.2.0 -     'ADOPT_LABEL=no' 'echo ADOPT_LABEL=no >"$settings"'
    done
}

# understood SETTINGS ORIX_PATH ADOPT_LABEL KEEP_REPORTS COMPLAINT: a complaint for each slip, and the
# defaults in its place.
understood() {
    printf '%b' "$1" >"$settings"
    (
        eval "$(sh "$script" settings "$unit" 2>"$work/complaints")"
        echo "${ORIX_PATH-none} $ADOPT_LABEL $KEEP_REPORTS"
    ) >"$work/understood"
    tried=$((tried + 1))
    # One complaint for each slip, and none without.
    if [ "$(cat "$work/understood")" != "$2 $3 $4" ] || [[ $(cat "$work/complaints") != *"$5"* ]] ||
        [ "$(wc -l <"$work/complaints")" -ne $((0${5:+1})) ]; then
        fail "settings $1: $(cat "$work/understood" "$work/complaints")"
    fi
}
mkdir -p "$unit/mnt/x/telephony" "$unit/mnt/ytelephony"
[ -z "$(sh "$script" settings "$unit" 2>&1 >/dev/null)" ] || fail 'it complains about no settings at all'
understood '' none yes 3 ''
understood '# all of it\n\nexport ORIX_PATH="/mnt/x/" # here\r\nADOPT_LABEL=no\nKEEP_REPORTS=0\n' /mnt/x/ no 0 ''
understood "ORIX_PATH='/mnt/y'\n" /mnt/y yes 3 ''
understood 'ORIX_PATH=/mnt/x\n' /mnt/x/ yes 3 'lacks the / at its end'
understood 'ORIX_PATH=/mnt/z\n' none yes 3 '/etc/orix-conf/ is taken'
understood 'ORIX_PATH=\n' none yes 3 '/etc/orix-conf/ is taken'
understood 'ORIX_PATH=mnt/x/\n' none yes 3 '/etc/orix-conf/ is taken'
understood 'ORIX_PATH=/mnt/z/\n' /mnt/z/ yes 3 'there is no /mnt/z/telephony'
for value in NO off No; do
    understood "ADOPT_LABEL=$value\n" none yes 3 "ADOPT_LABEL=$value is neither"
done
understood 'KEEP_REPORTS=-1\n' none yes 3 'no number'
understood 'ADOPT_LABLE=no\n' none yes 3 'ADOPT_LABLE is no setting'
# shellcheck disable=SC2016 # it must not be run
for line in 'ADOPT_LABEL = no' 'ADOPT_LABEL="no' 'if (' 'ADOPT_LABEL=$(no)' 'ADOPT_LABEL=no; reboot'; do
    understood "$line\nKEEP_REPORTS=1\n" none yes 1 'line 1: not understood'
done
rm "$settings"
mkdir "$settings"
sh "$script" settings "$unit" 2>&1 >/dev/null | grep -qF 'cannot be read' || fail 'settings that are no file'

# --- a unit's years --------------------------------------------------------------------------------

version=$(cat "$repo/examples/appliance/etc/default-conf/config_label.txt")
next=$((${version%%.*} + 1)).0.0

# start: what the unit and the init script do.
start() {
    adopt before
    echo "$said" >"$work/journal"
    [ "$status" -ne 3 ] || return 0
    (cd "$unit" && "$upgrade" "$unit" >/dev/null)
    adopt after
    echo "$said" >>"$work/journal"
}

# unchanged WHAT: but for stamp and labels, the configuration is what it was after the first upgrade.
unchanged() {
    tried=$((tried + 1))
    if ! diff -r --no-dereference -x '*label*' -I '^current_version=' "$work/upgraded" \
        "$unit/etc/orix-conf" >"$work/changes"; then
        fail "$1: $(head -n 20 "$work/changes")"
    fi
}
again() {
    rm -rf "$work/years"
    make_appliance "$work/years" 2.2.0
}

at "$work/years"
again
start
cp -a "$unit/etc/orix-conf" "$work/upgraded"
expect 'the first upgrade' "$version" "$version" 'now says'

# Only then: what the factory's files have of an old layout, the merge of the file set would bring
# back with every upgrade to come.
echo "$next" >"$factory"
start
unchanged 'an upgrade to a version that changes nothing'
expect 'an upgrade to a version that changes nothing' "$next" "$next" 'now says'

echo 3.0.1 >"$factory"
start
grep -q 'older than' "$work/journal" || fail 'going back to an older firmware is not told'
unchanged 'back to an older firmware'
start
echo "$next" >"$factory"
start
start
unchanged 'from the older firmware to the newer'
expect 'from the older firmware to the newer' "$next" "$next" 'up to date'
! grep -q warning "$work/journal" || fail "coming back warns: $(cat "$work/journal")"

# The backup of the telephony directory alone, from before the package.
again
start
rm -r "$tree"
make_appliance "$work/backup" 2.2.0
mv "$work/backup/etc/orix-conf/telephony" "$tree"
cp "$work/backup/etc/orix-conf/trunk0.cfg" "$unit/etc/orix-conf"
start
unchanged 'a backup that was put back'
expect 'a backup that was put back' "$version" "$version" 'now says'

# The same, but unpacked over the directory, where the label of the newer tree stays.
make_appliance "$work/other" 2.2.0
cp -a "$work/other/etc/orix-conf/telephony/linedb" "$tree"
adopt before
expect 'a backup that was put over the tree' "$version" "$version" 'a backup put back' 3

# A linedb that is lost: the factory's takes its place, and nothing stands in the way of that.
again
start
# shellcheck disable=SC2016 # for eval
for damage in 'rm "$tree/linedb"' 'echo { >"$tree/linedb"'; do
    eval "$damage"
    start
    start
    expect "a linedb that was lost by $damage" "$version" "$version" 'up to date'
    grep -q 'section general' "$tree/linedb" || fail "$damage: it is not restored"
done

# A run that ends before the conversions, and the remedy.
again
mv "$unit/etc/default-conf/telephony/04-lines/extensiondb" "$work/extensiondb"
start
expect 'a run that ended early' 2.2.0 2.2.0 'did not come to its end'
mv "$work/extensiondb" "$unit/etc/default-conf/telephony/04-lines/extensiondb"
start
start
sed -i '/^current_version=/d' "$tree/linedb"
start
unchanged 'the remedy for an early end'
expect 'the remedy for an early end' "$version" "$version" 'now says'

# A run that is killed in the middle, and the next start. It may have ended before it is killed.
killed() {
    again
    adopt before
    "$upgrade" "$unit" >/dev/null 2>&1 &
    until [ -e "$tree.mend-undo" ] || ! kill -0 "$!" 2>/dev/null; do :; done
    kill -KILL "$!" 2>/dev/null || true
    wait "$!" 2>/dev/null || true
    [ -e "$tree.mend-undo" ]
}
for _ in {1..20}; do
    killed && break
done
adopt after
expect 'a run that was killed' 2.2.0 2.2.0 'stands'
start
unchanged 'the start behind a killed run'
expect 'the start behind a killed run' "$version" "$version" 'now says'

finish 'states and runs' 70
