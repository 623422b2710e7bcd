#!/bin/sh
# Installs a build into an empty folder and uses what is there, as its users would: the demo, and a
# project outside the tree that finds the library.
# usage: installed.sh BUILD_FOLDER CONSUMER_PROJECT
set -eu
build=$1 consumer=$2
scratch=$(mktemp -d)
unit=
trap 'test -z "$unit" || kill "$unit"; wait; rm -rf "$scratch"' EXIT

cmake --install "$build" --prefix "$scratch/usr" >"$scratch/install.log"
PATH=$scratch/usr/bin:/usr/bin:/bin
cd "$scratch"  # nothing is found by way of the current folder

vexa-host demo --dir "$scratch/demo" -- vexa-unit run --dir '{dir}' --journal '{dir}/journal' >demo.txt ||
    { cat demo.txt; exit 1; }

# With the generator of this build: another's program need not be installed.
generator=$(sed -n 's/^CMAKE_GENERATOR:INTERNAL=//p' "$build/CMakeCache.txt")
cmake -G "$generator" -S "$consumer" -B consumer -DCMAKE_PREFIX_PATH="$scratch/usr" >configure.log
cmake --build consumer >build.log || { cat build.log; exit 1; }
if command -v pkg-config >pkg-config.txt; then # and without CMake: one library, whatever it consists of
    PKG_CONFIG_PATH=$(dirname "$(find "$scratch/usr" -name vexahost.pc)")
    export PKG_CONFIG_PATH
    # shellcheck disable=SC2046 # words on purpose
    "${CXX:-c++}" "$consumer/who_has_the_daq.cpp" $(pkg-config --cflags --libs vexahost) -o who_by_pkg_config
    # The program in the guide, as it stands there.
    sed -n '/^```cpp/,/^```/p' "$consumer/../../docs/host-kit.md" | sed '/^```/d' >guide.cpp
    # shellcheck disable=SC2046
    "${CXX:-c++}" -std=c++20 -Wall -Wextra -Wconversion -Werror guide.cpp $(pkg-config --cflags --libs vexahost) -o guide
fi
vexa-unit run --dir unit --scenario dead-daq >unit.txt 2>&1 &
unit=$!
tries=1000
until test -S unit/host.sock; do
    tries=$((tries - 1))
    test $tries -gt 0 || { cat unit.txt; exit 1; }
    sleep 0.02
done
vexa-unit ctl --dir unit wait call=node.ioctl --for 20s
for program in consumer/who_has_the_daq ./who_by_pkg_config; do
    test -x $program || continue
    answer=$($program unit)
    test "$answer" = "the unit's DAQ application" || { echo "$program: wrong answer: $answer"; exit 1; }
done
