# shellcheck shell=bash
# Sourced by what looks at installed documents.

# broken_links DIRECTORY: names each link of a document there that leads to no file. False when there
# is one.
broken_links() {
    (
        cd "$1" || exit 1
        grep -o '](\([^)#]*\)' -- *.md | sed 's/:](/ /' | grep -v '://\|[&]' |
            while read -r document target; do
                [ -z "$target" ] || [ -e "$target" ] || echo "$document links to $target"
            done | { ! grep .; }
    )
}
