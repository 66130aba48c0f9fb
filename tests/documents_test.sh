#!/usr/bin/env bash
# tests/documents_test.sh UPGRADE_AT: what the documents quote and count is what the programs print, and
# what they name is there.
set -euo pipefail

# shellcheck source=tests/lib/appliance.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib/appliance.sh"
cd "$repo"
documents=(README.md docs/*.md)

# run: upgrades $tree; the report goes, as a unit would have written it, to the end of $work/reports.
run() {
    rm -f "$tree/mend.log"
    "$upgrade" "$tree" >/dev/null 2>&1 || true
    sed "s:$tree/:/:g" "$tree/mend.log" >"$work/report"
    cat "$work/report" >>"$work/reports"
}
sample() {
    rm -rf "$tree"
    cp -a examples/appliance "$tree"
    mkdir "$tree/tmp"
}

# --- figures ---------------------------------------------------------------------------------------

# kilobytes FILE, in KB of 1000 bytes
kilobytes() {
    echo $((($(wc -c <"$1") + 500) / 1000))
}
# says DOCUMENT TEXT: across line ends.
says() {
    tried=$((tried + 1))
    tr '\n>' '  ' <"$1" | tr -s ' ' | grep -qF -- "$2" || fail "$1 does not say: $2"
}
# near FOUND SAID: no further off than a tenth.
near() {
    [ "$((10 * ($1 > $2 ? $1 - $2 : $2 - $1)))" -le "$2" ]
}

version=$(cat examples/appliance/etc/default-conf/config_label.txt)
sample
run
cp "$work/report" "$work/sample"
says docs/operations.md "An upgrade of the sample, with 5 extensions, writes $(kilobytes "$work/sample") KB"
run

# The next firmware, on a unit whose label still names the version from before the upgrade.
cp -a "$tree" "$work/upgraded"
echo "$((${version%%.*} + 1)).0.0" >"$tree/etc/default-conf/config_label.txt"
run
diff -rq --no-dereference "$work/upgraded/etc/orix-conf" "$tree/etc/orix-conf" >"$work/changes" || true
changed=$(wc -l <"$work/changes")
for document in README.md docs/operations.md; do
    says "$document" "upgraded from 2.2.0 to $version whose label still says 2.2.0"
    says "$document" "on the sample, $changed files change"
done
grep -qx 'password=0000' "$tree/etc/orix-conf/telephony/21/voicemaildb" || fail 'no password goes back to 0000'

rm -rf "$tree"
bench/make_appliance 295 "$tree"
run
size=$(kilobytes "$work/report")
lines=$(wc -l <"$work/report")
packed=$(gzip -c "$work/report" | wc -c)
run
said=$(tr '\n' ' ' <docs/operations.md | grep -o 'one of 300 extensions writes .* compress to [0-9]* KB')
[[ $said =~ \ ([0-9]+)\.([0-9])\ MB\ in\ ([0-9]+),000\ lines,\ and\ each\ start\ behind\ it\ ([0-9]+)\ KB.*\ ([0-9]+)\ KB$ ]]
tried=$((tried + 1))
if ! { near "$size" "${BASH_REMATCH[1]}${BASH_REMATCH[2]}00" && near "$lines" "${BASH_REMATCH[3]}000" &&
    near "$(kilobytes "$work/report")" "${BASH_REMATCH[4]}" && near "$((packed / 1000))" "${BASH_REMATCH[5]}"; }; then
    fail "300 extensions: $size KB, $lines lines, $(kilobytes "$work/report") KB a start, $packed bytes packed, not: $said"
fi

steps=$(sed -n '/^const VersionedStep versionedSteps/,/^};/p' app/run.cpp | grep -c '^    {"')
tried=$((tried + 1))
last=$(sed -n '/^Only when the version labels differ/,/^Most of these/p' docs/upgrade.md | grep -oE '^[0-9]+\.' | tail -n 1)
[ "$last" = "$steps." ] || fail "docs/upgrade.md has $last steps, the program $steps"
[ "$(grep -cE '^\| [0-9]+ \| `' docs/architecture.md)" -eq "$steps" ] || fail "docs/architecture.md: another number of steps than $steps"

# --- excerpts --------------------------------------------------------------------------------------

# What the pages on reports quote besides: a spoilt linedb, a file that ends too soon.
sample
echo '{' >"$tree/etc/orix-conf/telephony/linedb"
run
sample
sed -i '$d' "$tree/etc/orix-conf/telephony/22/grouplistdb"
run

# The texts of the program, those that go over several lines in one.
cat {app,files,recovery,steps/*}/*.cpp | tr '\n' ' ' | sed -E 's/" *\+? *"//g' >"$work/texts"

# quoted TEXT: a run has printed it; or its words are in the sources, for what takes a broken disk.
quoted() {
    local words
    grep -qxF -- "$1" "$work/reports" && return
    # A version is the sample's, which every run prints.
    [[ ! $1 =~ [0-9]+\.[0-9]+\.[0-9]+ ]] || return 1
    words=$(sed -E 's#/[^ ,]*|PATH|\bN\b|[0-9.]+|[:;]|\([^)]*\)#\n#g' <<<"$1" | awk '
        { gsub(/^[ \t,]+|[ \t,]+$/, "") } length($0) > length(best) { best = $0 } END { print best }')
    [ "${#words}" -gt 9 ] && grep -qF -- "$words" "$work/texts"
}

for document in docs/operations.md docs/upgrade.md; do
    # Blocks of indented lines; those with a line of a report are excerpts.
    awk '
        /^    / { block = block substr($0, 5) "\n"; next }
        { flush() }
        END { flush() }
        function flush() {
            if (block ~ /(^|\n)(\t|===|MINOR ERROR|Opening)/) printf "%s", block
            block = ""
        }' "$document" >"$work/quotes"
    # Commands stand before what they print.
    expected=$work/sample
    while IFS= read -r line; do
        tried=$((tried + 1))
        case $line in
        '$ '*)
            eval "${line:2}" <"$work/sample" >"$work/printed" || true
            expected=$work/printed
            ;;
        ...) ;;
        *) if [ "$expected" = "$work/printed" ] && ! grep -qxF -- "$line" "$work/printed"; then
            quoted "$line" && expected=$work/sample
        else
            quoted "$line"
        fi || fail "$document quotes what nothing prints: $line" ;;
        esac
    done < <(sed 's: /var/log/setupmend/mend.log::' "$work/quotes")
done

# --- names -----------------------------------------------------------------------------------------

# anchors FILE: of its headings.
anchors() {
    grep -E '^#+ ' "$1" | sed -E 's/^#+ //' | tr '[:upper:]' '[:lower:]' | sed -E 's/[^a-z0-9 -]//g; s/ /-/g'
}
for document in "${documents[@]}" examples/appliance/README.md; do
    while IFS= read -r link; do
        tried=$((tried + 1))
        target=${link%%#*}
        [ -z "$target" ] || target=$(dirname "$document")/$target
        if [ -n "$target" ] && [ ! -e "$target" ]; then
            fail "$document links to $link, which is not there"
        elif [[ $link == *#* ]] && ! anchors "${target:-$document}" | grep -qxF -- "${link#*#}"; then
            fail "$document links to $link, and there is no such heading"
        fi
    done < <(grep -o '](\([^)]*\))' "$document" | sed 's/^](//; s/)$//' | grep -v '://\|[& ]')
    # What stands in the example of a step to be added is not there yet.
    # shellcheck disable=SC2016 # backquotes of the document
    while IFS= read -r name; do
        tried=$((tried + 1))
        [ -e "$name" ] || fail "$document names $name, which is not there"
    done < <(grep -oE '`(app|bench|cmake|docs|examples|files|packaging|recovery|steps|store|tests|tools|util)/[A-Za-z0-9_./-]+`' "$document" |
        tr -d '`' | grep -v dscp)
done
while IFS= read -r preset; do
    grep -qF "\`$preset\`" docs/building.md || fail "docs/building.md has no preset $preset"
done < <(sed -n '/"configurePresets"/,/"buildPresets"/s/.*"name": "\(.*\)",.*/\1/p' CMakePresets.json)

finish 'quotes, figures and names' 100
