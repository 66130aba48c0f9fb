#!/usr/bin/env bash
# tests/page_test.sh SITE_PAGE FLEET_PAGE: two pages that setupmend-rehearse wrote, in a real
# browser at the width of a phone. The site holds an extension with markup in its name (<script>).
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
echo '<iframe src="page.html" width="360" height="800" style="border: 0"></iframe><pre></pre>
    <script>onmessage = ({data}) => { document.querySelector("pre").textContent = data; };</script>' >"$work/frame.html"
for page in "${1:?usage: tests/page_test.sh SITE_PAGE FLEET_PAGE}" "${2:?and a FLEET_PAGE}"; do
    printf '%s\n' "$page:"
    { cat -- "$page" && echo "<script>" && cat "${BASH_SOURCE[0]%.sh}.js" && echo "</script>"; } >"$work/page.html"
    timeout 120 "$browser" "${options[@]}" --virtual-time-budget=60000 --dump-dom "file://$work/frame.html" \
        >"$work/dom" 2>"$work/errors" || echo 'FAILED   the browser ran'
    grep -E '^(ok|FAILED) ' "$work/dom" || echo 'FAILED   the test came to its end'
    ! grep CONSOLE "$work/errors" || echo 'FAILED   the console is silent'
    sed -n 's/^link //p' "$work/dom" | while IFS= read -r link; do
        [ -f "$(dirname -- "$page")/$(printf '%b' "${link//%/\\x}")" ] || echo "FAILED   dead link: $link"
    done
done | tee "$work/told"
! grep -q '^FAILED' "$work/told"
