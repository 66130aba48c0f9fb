#!/usr/bin/env bash
# tests/page_test.sh SITE_PAGE FLEET_PAGE: two pages that setupmend-rehearse wrote, in a real
# browser at the width of a phone. The site holds an extension with markup in its name (<script>).
# With AXE, axe-core's axe.min.js, they are also looked through for what keeps people out: on a phone
# and a screen, in light, dark and print.
# tests/page_test.sh --picture FILE SITE_PAGE only takes a picture of a page.
set -euo pipefail
browser=$(command -v chromium) || { echo 'page_test: needs chromium' >&2 && exit 2; }
work=$(mktemp -d)
trap 'rm -rf -- "$work"' EXIT
options=(--headless --disable-gpu --hide-scrollbars "--user-data-dir=$work/profile" --enable-logging=stderr)
[ "$(id -u)" -ne 0 ] || options+=(--no-sandbox)

if [ "${1-}" = --picture ]; then
    timeout 60 "$browser" "${options[@]}" --window-size=1100,1250 "--screenshot=$(realpath -- "$2")" \
        "file://$(realpath -- "$3")" 2>"$work/errors" || { cat "$work/errors" && exit 1; }
    exit
fi
# A window cannot be as narrow as a phone, a frame can.
frame() {
    printf '<meta name="color-scheme" content="%s"><iframe src="page.html" width="%s" height="800" style="border: 0"></iframe><pre></pre>
        <script>onmessage = ({data}) => { document.querySelector("pre").textContent = data; };</script>' "$2" "$1" >"$work/frame.html"
}
# show SCRIPT...: a page and what is run behind it.
show() {
    local script
    cat -- "$work/shown.html"
    for script in "$@"; do echo "<script>" && cat "$script" && echo "</script>"; done
}
# browse WHAT: tells what the test in the page says, and whether it came to its end.
browse() {
    timeout 300 "$browser" "${options[@]}" --window-size=1400,900 --virtual-time-budget=60000 --dump-dom "file://$work/frame.html" \
        >"$work/dom" 2>"$work/errors" || echo "FAILED   the browser ran$1"
    grep -E '^(ok|FAILED) ' "$work/dom" || echo "FAILED   the test came to its end$1"
    ! grep CONSOLE "$work/errors" || echo "FAILED   the console is silent$1"
}
script=${BASH_SOURCE[0]%.sh}.js
for page in "${1:?usage: tests/page_test.sh SITE_PAGE FLEET_PAGE}" "${2:?and a FLEET_PAGE}"; do
    printf '%s\n' "$page:"
    cp -- "$page" "$work/shown.html"
    frame 360 'light dark'
    show "$script" >"$work/page.html"
    browse ''
    sed -n 's/^link //p' "$work/dom" | while IFS= read -r link; do
        [ -f "$(dirname -- "$page")/$(printf '%b' "${link//%/\\x}")" ] || echo "FAILED   dead link: $link"
    done
    [ -n "${AXE-}" ] || { echo 'skipped  axe-core: AXE does not name it' && continue; }
    for medium in light dark print; do
        case $medium in
        # What asks for a medium is made to be asked for that one.
        dark) sed 's/@media screen and (prefers-color-scheme: dark)/@media all/' "$page" ;;
        print) sed 's/@media print/@media all/; s/@media screen/@media speech/' "$page" ;;
        *) cat -- "$page" ;;
        esac >"$work/shown.html"
        for width in 390 1280; do
            frame "$width" light
            show "$AXE" "${script%.js}_axe.js" >"$work/page.html"
            browse " ($medium, $width px)" | sed "s/^ok .*/& ($medium, $width px)/"
        done
    done
done | tee "$work/told"
! grep -q '^FAILED' "$work/told"
