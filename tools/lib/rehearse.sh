# shellcheck shell=bash
# Sourced by what builds the workstation's rehearsal.

# shellcheck disable=SC2034,SC2191  # what the scripts use, as WHAT=PACKAGE
rehearse_needs=(g++=g++ cmake=cmake ninja=ninja-build bwrap=bubblewrap parallel=parallel
    /usr/include/CLI/CLI.hpp=libcli11-dev /usr/include/archive.h=libarchive-dev
    /usr/include/dtl/dtl.hpp=libdtl-dev /usr/include/nlohmann/json.hpp=nlohmann-json3-dev
    /usr/include/fmt/format.h=libfmt-dev /usr/include/toml++/toml.h=libtomlplusplus-dev
    /usr/include/pugixml.hpp=libpugixml-dev /usr/include/zstd.h=libzstd-dev
    /usr/include/sha2.h=libmd-dev)

# show_progress: of what ninja says, the last line, where somebody looks.
show_progress() {
    local line
    while IFS= read -r line; do
        printf '%s\n' "$line"
        [ ! -t 2 ] || printf '\r\033[K%.78s' "$line" >&2
    done
    [ ! -t 2 ] || printf '\r\033[K' >&2
}

# build_rehearse: says how far it is, and all only when it fails.
build_rehearse() (
    set -o pipefail
    local sources log
    sources=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd -P)
    mkdir -p "$sources/build/release"
    log=$sources/build/release/rehearse.log
    [ -e "$sources/build/release/setupmend-rehearse" ] ||
        echo '==> building setupmend-rehearse (preset rehearse)'
    if ! { (cd "$sources" && cmake --preset rehearse && cmake --build build/release) 2>&1 </dev/null |
        show_progress >"$log"; }; then
        cat "$log"
        echo 'error: the build failed' >&2
        return 1
    fi
)
