# shellcheck shell=bash
# Sourced by what builds the workstation's rehearsal.

# shellcheck disable=SC2034,SC2191  # what the scripts use, as WHAT=PACKAGE
rehearse_needs=(g++=g++ cmake=cmake ninja=ninja-build bwrap=bubblewrap parallel=parallel
    /usr/include/CLI/CLI.hpp=libcli11-dev /usr/include/archive.h=libarchive-dev
    /usr/include/dtl/dtl.hpp=libdtl-dev /usr/include/nlohmann/json.hpp=nlohmann-json3-dev
    /usr/include/fmt/format.h=libfmt-dev)

# build_rehearse: quiet unless it fails.
build_rehearse() {
    local root log
    root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd -P)
    mkdir -p "$root/build/release"
    log=$root/build/release/rehearse.log
    [ -e "$root/build/release/setupmend-rehearse" ] ||
        echo '==> building setupmend-rehearse (preset rehearse)'
    if ! (cd "$root" && cmake --preset rehearse && cmake --build build/release) \
        >"$log" 2>&1 </dev/null; then
        cat "$log"
        echo 'error: the build failed' >&2
        return 1
    fi
}
