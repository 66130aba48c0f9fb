# shellcheck shell=bash
# Sourced by the scripts that upgrade generated appliances under adverse conditions.

repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd -P)

# make_appliance DIRECTORY LABEL UPGRADE: the sample as it is (2.2.0), or as a unit that was sold
# with the firmware LABEL would look. UPGRADE is the program that upgrades a tree.
make_appliance() {
    local directory=$1 label=$2 upgrade=$3
    cp -a "$repo/examples/appliance" "$directory"
    mkdir "$directory/tmp"
    # A file behind a link that leads out of the telephony directory, with a value that must not be
    # converted twice.
    mv "$directory/etc/orix-conf/telephony/e1t1/trunk0.cfg" "$directory/etc/orix-conf/trunk0.cfg"
    ln -s ../../trunk0.cfg "$directory/etc/orix-conf/telephony/e1t1/trunk0.cfg"
    [ "$label" != 2.2.0 ] || return 0
    "$upgrade" "$directory"
    local live=$directory/etc/orix-conf/telephony
    echo "$label" >"$directory/etc/orix-conf/config_label.txt"
    sed -i '/^current_version=/d; /^is_ext_length_defined=/d' "$live/linedb"
    sed -i '/^section common/,/^}/ s/^min_rtp_port=.*/min_rtp_port=9000/' "$live/rtp.cfg"
    printf 'section trunk\n{\nechoDelay=160\nnetworkside=1\n}\nsection isdn_user\n{\nroute_call=DestNumber\nroute_msn_call= 12 , DestNumber\n}\n' >"$live/isdn/trunk0.cfg"
    printf 'section\n{\ncall_type=PSTN\nuser_name=0209\n}\n' >"$live/21/speedcalldb"
    printf 'section\n{\naddress_list=22/a/b,23\n}\n' >"$live/21/grouplistdb"
    printf 'zero_out=1\nmail_box_portion=9\n' >"$live/21/voicemaildb"
    printf 'timer_profile=default\n' >"$live/timerprofile.cfg"
    rm -f "$directory/mend.log"
}

# manifest DIRECTORY: kind, mode, owner, name and content of all that an upgrade may change.
manifest() {
    (
        cd "$1" || exit 1
        find etc/orix-conf mnt \( -type f -printf '%y %m %u %g %p\n' \) -o -printf '%y %m %u %g %p %l\n' |
            LC_ALL=C sort
        find etc/orix-conf mnt -type f -print0 | LC_ALL=C sort -z | xargs -0 sha256sum
    )
}
