#!/usr/bin/env bash
# Installs the build to a fresh prefix and uses it as a newcomer would, with the README's commands and
# the examples the package installs: builds the plug-in template against the package and runs its tests, installs its plug-in into the
# installed host's folder, builds the embedding host and drives a routine of each plug-in with it, and
# starts the installed routine-host with no path options to check that it serves the plug-ins and the
# console it was installed with, and reloads a rebuilt plug-in on SIGHUP.
# Usage: run_examples.sh <build dir> <source root> <work dir> <generator> <c++ compiler> [launcher]
set -euo pipefail
build=$1 source=$2 work=$3 generator=$4 compiler=$5 launcher=${6:-}
prefix=$work/prefix
host_pid=""
trap '[ -z "$host_pid" ] || { kill "$host_pid" 2>/dev/null; wait "$host_pid" 2>/dev/null; } || true' EXIT

fail() { echo "FAILED: $*" >&2; exit 1; }
step() { echo "== $*"; }
# Every wait below is bounded, so a broken install fails this test instead of hanging it.
configure() {
    cmake -S "$1" -B "$2" -G "$generator" -DCMAKE_CXX_COMPILER="$compiler" \
        ${launcher:+-DCMAKE_CXX_COMPILER_LAUNCHER="$launcher"} -DCMAKE_PREFIX_PATH="$prefix" "${@:3}" >/dev/null
}

rm -rf "$work"
mkdir -p "$work"

step "install to a fresh prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
examples=$prefix/share/doc/NyRoutine/examples
for path in bin/routine-host include/NyRoutine/Routine.h include/NyRoutine/Testing/RoutineDriver.h \
            share/routine-host/web/index.html share/doc/NyRoutine/README.md; do
    [ -e "$prefix/$path" ] || fail "$path is not installed"
done
for pattern in 'lib*/libNyRoutine.so*' 'lib*/libNyRoutineTesting.so*' 'lib*/cmake/NyRoutine/NyRoutineConfig.cmake' \
               'lib*/cmake/NyRoutine/NyRoutinePlugin.cmake' 'lib*/routine-host/plugins/sample_routines.so'; do
    compgen -G "$prefix/$pattern" >/dev/null || fail "nothing installed matches $pattern"
done
[ ! -e "$prefix/share/routine-host/web/node_modules" ] || fail "the console's test tooling is installed"
# The libraries find each other in their own folder, wherever that is (a distribution's library folder
# is deeper than lib/): moved together elsewhere, each still resolves every library of the package.
mkdir -p "$work/moved/lib/x86_64-linux-gnu"
cp -P "$prefix"/lib*/libNy*.so* "$work/moved/lib/x86_64-linux-gnu/"
for library in "$work"/moved/lib/x86_64-linux-gnu/libNy*.so.*.*; do
    ! env -u LD_LIBRARY_PATH ldd "$library" | grep 'libNy.* not found' || fail "$(basename "$library") does not find its peers"
done

step "the plug-in template: build, test, install its plug-in"
configure "$examples/plugin-template" "$work/template"
cmake --build "$work/template" -j 2
ctest --test-dir "$work/template" --output-on-failure --timeout 60 || fail "the template's tests"
cmake --install "$work/template" >/dev/null
compgen -G "$prefix/lib*/routine-host/plugins/example_routines.so" >/dev/null ||
    fail "the template's plug-in was not installed into the host's plug-in folder"

step "the embedding host"
configure "$examples/embed-host" "$work/embed-host"
cmake --build "$work/embed-host" -j 2
# The README's minimal host: the installed folder's SelfTest runs while the module goes.
timeout 60 "$work/embed-host/minimal-host" > "$work/minimal.out" 2> "$work/minimal.err" ||
    { cat "$work/minimal.out" "$work/minimal.err"; fail "minimal-host"; }
grep -q '^POST /routines -> 201 {"id":"SelfTest-0"' "$work/minimal.out" || fail "minimal-host did not create"
grep -q '^notification: created /routines/SelfTest-0' "$work/minimal.out" || fail "minimal-host saw no notification"
grep -q '^log \[' "$work/minimal.err" || fail "no log line reached minimal-host's sink"
embed=$work/embed-host/embed-host
# Without arguments: the installed plug-in folder (now the sample plug-in and the template's) and a
# Calibration of the sample plug-in.
timeout 60 "$embed" > "$work/embed-default.out" 2> "$work/embed-default.err" ||
    { cat "$work/embed-default.out" "$work/embed-default.err"; fail "embed-host with its defaults"; }
grep -q '"type":"Alignment"' "$work/embed-default.out" || fail "embed-host did not see the template's type"
grep -q 'Calibration-0 ended in state 3' "$work/embed-default.out" || fail "the calibration did not complete"
grep -q 'RoutineModule loading plugins' "$work/embed-default.err" || fail "no log line reached the sink"
# The template's plug-in file, its type and parameters written before the continue.
timeout 60 "$embed" "$work/template/example_routines.so" Alignment '{"position":12.5,"speed":1}' \
    > "$work/embed-template.out" 2> "$work/embed-template.err" ||
    { cat "$work/embed-template.out" "$work/embed-template.err"; fail "embed-host with the template's plug-in"; }
grep -q '^PATCH /routines/Alignment-0 -> 204' "$work/embed-template.out" || fail "the parameters were refused"
grep -q '"results":{"deviation":0.005,"note":"","position":12.5}' "$work/embed-template.out" ||
    { cat "$work/embed-template.out"; fail "the alignment's results"; }
# A refused write stores nothing and names the field.
timeout 60 "$embed" "$work/template/example_routines.so" Alignment '{"position":101}' > "$work/embed-refused.out" 2>&1 ||
    true
grep -q '^PATCH /routines/Alignment-0 -> 400 .*"fields":{"position"' "$work/embed-refused.out" ||
    { cat "$work/embed-refused.out"; fail "an out-of-limit position was not refused per field"; }

step "the installed routine-host, no path options"
installed_help=$("$prefix/bin/routine-host" --help)
real_prefix=$(cd "$prefix" && pwd -P)
grep -q -- "--plugins DIR .*(default: $real_prefix/lib[^ ]*/routine-host/plugins)" <<<"$installed_help" ||
    fail "the installed host's --help does not name the installed plug-in folder: $installed_help"
grep -q -- "--web DIR .*(default: $real_prefix/share/routine-host/web)" <<<"$installed_help" ||
    fail "the installed host's --help does not name the installed console"
build_help=$("$build/bin/routine-host" --help)
grep -q -- "(default: $(cd "$build" && pwd -P)/plugins)" <<<"$build_help" ||
    fail "the build tree's host does not default to the build's plug-ins: $build_help"
grep -q -- "(default: $(cd "$source" && pwd -P)/web)" <<<"$build_help" ||
    fail "the build tree's host does not default to the console's sources"

"$prefix/bin/routine-host" --listen 127.0.0.1:0 > "$work/host.out" 2> "$work/host.err" &
host_pid=$!
for _ in $(seq 200); do grep -qs listening "$work/host.out" && break; sleep 0.1; done
port=$(sed -n 's/^listening on http:\/\/127.0.0.1:\([0-9]*\)$/\1/p' "$work/host.out")
[ -n "$port" ] || { cat "$work/host.err"; fail "the installed host did not start"; }
types=$(curl -s --max-time 10 "http://127.0.0.1:$port/routineTypes")
for type in Calibration SelfTest Alignment; do
    grep -q "\"type\":\"$type\"" <<<"$types" || fail "the installed host does not list $type: $types"
done
curl -s --max-time 10 "http://127.0.0.1:$port/" | grep -qi '<!doctype html>' || fail "the console's page"
[ "$(curl -s -o /dev/null -w '%{http_code}' --max-time 10 "http://127.0.0.1:$port/web/app.js")" = 200 ] ||
    fail "the console's script"

step "reload: the template rebuilt, installed again and picked up on SIGHUP"
cp -r "$examples/plugin-template" "$work/template-v2-src"
sed -i 's/"Axis alignment"/"Axis alignment, second build"/' "$work/template-v2-src/ExampleRoutines.cpp"
grep -q 'second build' "$work/template-v2-src/ExampleRoutines.cpp" || fail "the template's display name moved"
configure "$work/template-v2-src" "$work/template-v2" -DEXAMPLE_BUILD_TESTS=OFF
cmake --build "$work/template-v2" -j 2
cmake --install "$work/template-v2" >/dev/null
kill -HUP "$host_pid"
for _ in $(seq 100); do
    curl -s --max-time 10 "http://127.0.0.1:$port/routineTypes" | grep -q 'second build' && break
    sleep 0.1
done
curl -s --max-time 10 "http://127.0.0.1:$port/routineTypes" | grep -q '"displayName":"Axis alignment, second build"' ||
    { cat "$work/host.err"; fail "the rebuilt plug-in was not reloaded"; }
grep -q 'reloaded 1 ' "$work/host.err" || { cat "$work/host.err"; fail "the rescan's summary does not say what it reloaded"; }
installed_hash=$(sha256sum "$(compgen -G "$prefix/lib*/routine-host/plugins/example_routines.so")" | cut -d' ' -f1)
curl -s --max-time 10 "http://127.0.0.1:$port/plugins" | grep -q "\"sha256\":\"$installed_hash\"" ||
    fail "/plugins does not show the hash of the installed file"

kill "$host_pid"
wait "$host_pid" || fail "the installed host did not shut down cleanly"
host_pid=""
echo "install and examples: OK"
