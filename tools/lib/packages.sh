# shellcheck shell=bash
# Sourced by demo, check and .ci/run: gets the Debian packages that a script needs.

# install_missing WHAT=PACKAGE...
#
# WHAT is a command looked up in PATH, or the absolute name of a file. Looking for the thing itself
# rather than for its package leaves alone a machine that has it from somewhere else, and touches
# the network only when something is really missing.
install_missing() {
    local entry what package
    local -a missing=() as_root=()
    for entry in "$@"; do
        what=${entry%%=*}
        package=${entry#*=}
        packages_have "$what" || missing+=("$package")
    done
    [ "${#missing[@]}" -gt 0 ] || return 0

    if ! command -v apt-get >/dev/null; then
        echo "error: missing here, and there is no apt-get to install it: ${missing[*]}" >&2
        return 1
    fi
    if [ "$(id -u)" -ne 0 ]; then
        if ! command -v sudo >/dev/null; then
            echo "error: packages are missing; install them as root:" \
                "apt-get install ${missing[*]}" >&2
            return 1
        fi
        as_root=(sudo)
    fi
    as_root+=(env DEBIAN_FRONTEND=noninteractive)

    echo "==> installing with apt-get: ${missing[*]}"
    "${as_root[@]}" apt-get update -qq -o DPkg::Lock::Timeout=120 </dev/null || return 1
    "${as_root[@]}" apt-get install -y -qq --no-install-recommends -o DPkg::Lock::Timeout=120 \
        "${missing[@]}" </dev/null >/dev/null || return 1
    hash -r

    # A package that installed cleanly and still lacks what was asked for would otherwise show up
    # much later as a puzzling failure.
    for entry in "$@"; do
        what=${entry%%=*}
        if ! packages_have "$what"; then
            echo "error: ${entry#*=} is installed, but $what is still missing" >&2
            return 1
        fi
    done
}

packages_have() {
    case $1 in
    /*) [ -e "$1" ] ;;
    *) command -v "$1" >/dev/null ;;
    esac
}
