#!/usr/bin/env bash
# Keeps the README's listings in step with the files they show. A listing is the fenced block right
# after a line "<!-- listing: <path> -->" and must equal the file at <path> (relative to the source root).
# Usage: readme_listings.sh <source root>            checks; names and shows each listing that differs
#        readme_listings.sh <source root> --update   rewrites the listings from the files
set -euo pipefail
root=$1
mode=${2:-check}
readme=$root/README.md
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

paths=$(sed -n 's/^<!-- listing: \(.*\) -->$/\1/p' "$readme")
[ -n "$paths" ] || { echo "README.md has no listings"; exit 1; }

if [ "$mode" = --update ]; then
    awk -v root="$root" '
        inside && /^```$/ { while ((getline line < file) > 0) print line; close(file); inside = 0; print; next }
        inside { next }
        marker && /^```/ { print; inside = 1; marker = 0; next }
        /^<!-- listing: .* -->$/ {
            file = $0; sub(/^<!-- listing: /, "", file); sub(/ -->$/, "", file); file = root "/" file; marker = 1
        }
        { print }' "$readme" > "$work/README.md"
    cp "$work/README.md" "$readme"
    exit 0
fi

status=0
for path in $paths; do
    [ -f "$root/$path" ] || { echo "README.md lists $path, which does not exist"; status=1; continue; }
    awk -v want="$path" '
        inside && /^```$/ { exit }
        inside { print; next }
        marker && /^```/ { inside = 1; next }
        $0 == "<!-- listing: " want " -->" { marker = 1 }' "$readme" > "$work/listing"
    if ! diff -u "$root/$path" "$work/listing" > "$work/diff"; then
        echo "README.md: the listing of $path differs from the file:"
        cat "$work/diff"
        status=1
    fi
done
if [ "$status" != 0 ]; then
    echo "Update the listings with: tests/install/readme_listings.sh <source root> --update"
fi
exit $status
