#!/usr/bin/env bash
# installed_package.sh BUILD SOURCES: installs, builds the example hosts against what was installed, by CMake and by
# pkg-config, and lets them hear a simulated channel.
set -euo pipefail
place=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$place"' EXIT
cmake --install "$1" --prefix "$place/usr" >/dev/null
find "$place/usr" -name LICENSE | grep -q . || { echo "the license is not installed"; exit 1; }
cp "$2"/examples/*.c "$2"/examples/*.cpp "$2"/examples/CMakeLists.txt "$place"
cmake -S "$place" -B "$place/build" -DCMAKE_PREFIX_PATH="$place/usr" >/dev/null
cmake --build "$place/build" >/dev/null
export PKG_CONFIG_PATH=$(dirname "$(find "$place/usr" -name libvu.pc)")
cc -std=gnu11 "$place/minimal_host.c" -o "$place/by_pkg_config" $(pkg-config --cflags --libs libvu) -lev \
  -Wl,-rpath,"$(pkg-config --variable=libdir libvu)"

hear() { # HOST DATA_TYPE EXPECTED
  "$place/usr/bin/vu" source sim --listen "unix:$place/sim.sock" --data-type "$2" --sample-rate 1000 --duration 1 \
    --speed 0 2>"$place/source.log" &
  for _ in $(seq 100); do [ -S "$place/sim.sock" ] && break; sleep 0.05; done
  "$1" "$place/sim.sock" >"$place/heard" 2>"$place/host.log" || { cat "$place/host.log"; exit 1; }
  wait $! || { cat "$place/source.log"; exit 1; }
  rm -f "$place/sim.sock"
  [ "$(grep -c "$3" "$place/heard")" = 10 ] || { echo "$1 heard:"; cat "$place/heard"; exit 1; }
}
hear "$place/build/minimal_host" sequential_float32 '^sample [0-9]*: '
hear "$place/build/minimal_host_cpp" sequential_float64 '^sample [0-9]*: mean '
hear "$place/by_pkg_config" sequential_float32 '^sample [0-9]*: '
