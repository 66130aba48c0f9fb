#!/usr/bin/env bash
# tests/release_test.sh SETUPMEND_REHEARSE: runs what docs/release.md tells its readers to run, as it
# stands there, on the backups of three sites: the gate, the CI job, and the sites of a queue's jobs.
set -euo pipefail

repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
rehearse=$(realpath -- "${1:?usage: tests/release_test.sh SETUPMEND_REHEARSE}")
work=$(mktemp -d)
trap 'rm -rf -- "$work"' EXIT
mkdir "$work/bin"
ln -s "$rehearse" "$work/bin/setupmend-rehearse"
export PATH=$work/bin:$PATH
cd "$work"

# block TEXT: the first indented block of the page that has this text, and what is below it as code.
block() {
    awk -v text="$1" '/^    |^$/ { block = block substr($0, 5) "\n"; next }
        { if (index(block, text)) exit; block = "" }
        END { printf "%s", block }' "$repo/docs/release.md" >"$work/block"
    grep -qF -- "$1" "$work/block" || { echo "FAILED: no block has $1" && exit 1; }
}
# tried STATUS COMMAND...
tried() {
    local wanted=$1 status=0
    shift
    "$@" >"$work/output" 2>&1 || status=$?
    [ "$status" -eq "$wanted" ] && return
    echo "FAILED: exit status $status and not $wanted of: $*"
    cat "$work/block" "$work/output"
    exit 1
}

mkdir backups
for site in one two three; do
    cp -a "$repo/examples/appliance" "backups/$site"
    sed -i s/routing_on=1/routing_on=0/ "backups/$site/etc/orix-conf/telephony/extensiondb"
done
cp -a backups/one firmware
rm -r firmware/etc/orix-conf
tar -caf firmware-5.1.0.tar.zst -C firmware .
echo 5.0.9 >firmware/etc/default-conf/config_label.txt
tar -caf firmware-5.0.9.tar.zst -C firmware .

block '--out accepted'
tried 0 bash -e block
block '[[waiver]]'
cp block waivers.toml
export FIRMWARE=firmware-5.1.0.tar.zst VERSION=5.1.0
block '--junit rehearsal.xml'
tried 0 bash -e block
block 'stage: test'
tried 0 bash -ec "$(/usr/bin/python3 -c 'import yaml; print(yaml.safe_load(open("block"))["rehearsal"]["script"][0])')"
xmllint --noout --schema "$repo/docs/junit.xsd" rehearsal.xml
block 'mv candidate accepted'
tried 0 bash -e block

# A queue of either kind, with the last release's firmware: nothing but the stamp is another one.
rm -rf accepted/sites/one.kept parts
export SLURM_ARRAY_TASK_ID JOB_COMPLETION_INDEX
for SLURM_ARRAY_TASK_ID in 1 2; do
    block SBATCH
    tried 0 bash block
done
block 'kind: Job'
JOB_COMPLETION_INDEX=2
tried 0 bash -c "$(/usr/bin/python3 -c 'import yaml; print(yaml.safe_load(open("block"))["spec"]["template"]["spec"]["containers"][0]["args"][0])')"
[ "$(echo parts/*)" = 'parts/one parts/three parts/two' ] || { echo 'FAILED: a queue left a site out' && exit 1; }
block 'cp parts/*/sites/*'
tried 4 bash -e <(grep -v -- '--only' block)
grep -F '3 of them as they were' output
grep -F '1 unknown, 2 unchanged' output
echo 'ok: the commands of docs/release.md do as it says'
