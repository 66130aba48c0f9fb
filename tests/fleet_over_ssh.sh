#!/usr/bin/env bash
# tests/fleet_over_ssh.sh SETUPMEND_REHEARSE [SITES]: a fleet on other machines, which are sshd of
# our own on this one, each with file systems, homes and processes of its own. One of them dies in
# the middle, and a third has another program, which must not answer: every site has to be in the
# result, once. For the night; needs root and sshd.
set -euo pipefail
export LC_ALL=C

repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
rehearse=$(realpath -- "${1:?usage: tests/fleet_over_ssh.sh SETUPMEND_REHEARSE [SITES]}")
sites=${2-24}
[ "$(id -u)" -eq 0 ] || { echo 'skipped: machines of our own need root' && exit 0; }

work=$(mktemp -d /var/tmp/over-ssh.XXXXXX)
machines=()
cleanUp() {
    for pid in "${machines[@]}"; do kill -KILL "$pid" 2>/dev/null || true; done
    rm -rf -- "$work"
}
trap cleanUp EXIT
mkdir -p /run/sshd
ssh-keygen -q -t ed25519 -N '' -f "$work/key"

# machine NUMBER PORT [PROGRAM]: its /root, /tmp and /dev/shm are its own, and all its processes end with it.
machine() {
    local home=$work/machine$1
    mkdir -p "$home/root/.ssh" "$home/tmp"
    cp "$work/key.pub" "$home/root/.ssh/authorized_keys"
    chmod 700 "$home/root" "$home/root/.ssh"
    chmod 1777 "$home/tmp"
    ssh-keygen -q -t ed25519 -N '' -f "$home/host"
    cat >"$home/sshd_config" <<END
ListenAddress 127.0.0.1:$2
HostKey $home/host
PidFile none
UsePAM no
StrictModes no
PermitRootLogin prohibit-password
PasswordAuthentication no
AuthorizedKeysFile /root/.ssh/authorized_keys
MaxStartups 100
END
    unshare --mount --pid --fork --kill-child --mount-proc sh -c "
        mount --bind $home/root /root && mount --bind $home/tmp /tmp &&
        mount --bind '${3-$rehearse}' '$rehearse' &&
        mount -t tmpfs none /dev/shm && exec $(command -v sshd) -D -f $home/sshd_config -E $home/log" &
    machines+=("$!")
}
machine 1 2251
machine 2 2252
cp "$rehearse" "$work/another"
echo >>"$work/another"
machine 3 2253 "$work/another"
login() {
    echo "2/ssh -p $1 -i $work/key -o StrictHostKeyChecking=no -o UserKnownHostsFile=/dev/null -o LogLevel=ERROR root@127.0.0.1"
}
"$repo/bench/make_fleet" "$sites" 3 "$work/fleet"
rm -rf "$work"/fleet/site-0004*  # which would wait for its time limit

"$rehearse" --fleet "$work/fleet" --out "$work/out" --time-limit 120 --sshlogin "$(login 2251)" \
    --sshlogin "$(login 2252)" --sshlogin "$(login 2253)" >"$work/stdout" 2>"$work/stderr" </dev/null &
fleet=$!
# A third of the sites are done: the first machine goes, with what it is doing.
until [ "$(find "$work/out/sites" -name '*.kept' 2>/dev/null | wc -l)" -ge $((sites / 3)) ]; do
    kill -0 "$fleet" 2>/dev/null || { cat "$work/stdout" "$work/stderr" && exit 1; }
    sleep 0.2
done
kill -KILL "${machines[0]}"
status=0
wait "$fleet" || status=$?
head -n 3 "$work/stdout"
[ "$status" -le 4 ]

/usr/bin/python3 - "$work" <<'END'
import collections, json, os, sys
work = sys.argv[1]
sites = json.load(open(work + '/out/fleet.json'))['sites']
names = collections.Counter(site['name'] for site in sites)
assert names == collections.Counter(os.listdir(work + '/fleet')), 'a site is missing, or there twice'
lost = [site['name'] for site in sites if 'the rehearsal died' in site['summary']
        or 'another setupmend-rehearse' in site['summary']]
assert not lost, 'lost: %s' % lost
jobs = [line.split('\t') for line in open(work + '/out/joblog').readlines()[1:]]
hosts = collections.Counter(job[1] for job in jobs if job[6] == '0')
assert len(hosts) == 2, 'not two machines did it: %s' % hosts
print('ok: %d sites, each once; jobs by machine: %s' % (len(sites), sorted(hosts.values())))
END
