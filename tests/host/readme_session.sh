#!/usr/bin/env bash
# Runs the README's curl session, as written, against a host on a free port.
# Usage: readme_session.sh <routine-host> <plugin dir> <README.md>
set -euo pipefail
host=$1 plugins=$2 readme=$3
work=$(mktemp -d)
trap 'kill $pid 2>/dev/null || true; wait $pid 2>/dev/null || true; rm -rf "$work"' EXIT
"$host" --listen 127.0.0.1:0 --plugins "$plugins" --log-level error > "$work/out" &
pid=$!
for _ in $(seq 100); do grep -q listening "$work/out" && break; sleep 0.1; done
port=$(sed -n 's/^listening on http:\/\/127.0.0.1:\([0-9]*\)$/\1/p' "$work/out")
[ -n "$port" ] || { echo "host did not start"; exit 1; }
# The session is the sh block after the marker line in the README.
awk '/<!-- curl-session -->/{found=1; next} found && /^```sh/{inside=1; next} inside && /^```/{exit} inside{print}' \
    "$readme" | sed "s/localhost:8080/localhost:$port/g" > "$work/session.sh"
[ -s "$work/session.sh" ] || { echo "no curl session found in the README"; exit 1; }
(cd "$work" && bash -e session.sh) > "$work/session.out"
cat "$work/session.out"
tail -n 1 "$work/session.out" | grep -q '"state":3' || { echo "the routine did not complete"; exit 1; }
grep -q '"label":"bench A"' "$work/session.out" || { echo "the results do not carry the label"; exit 1; }
grep -q 'event: created' "$work/session.out" || { echo "no created event seen"; exit 1; }
