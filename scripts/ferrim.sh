#!/usr/bin/env bash
# Sets up a Debian machine for Ferrim (installing only what is missing), builds
# in release and runs one job:
#   scripts/ferrim.sh demo   -> ferrim on its embedded demo scene
#   scripts/ferrim.sh test   -> the whole test suite through CTest
#   scripts/ferrim.sh bench [ARGS] -> ferrim_bench with ARGS
# Each step is quick when nothing changed.
set -euo pipefail

job="${1:-demo}"
shift || true
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="$root/build/release"

packages=(cmake ninja-build g++ pkg-config libopenimageio-dev libtbb-dev nlohmann-json3-dev libcli11-dev
          libgtest-dev libgmock-dev libbenchmark-dev libnoise-dev libstb-dev libopencolorio-dev)
missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then missing+=("$p"); fi
done
if ((${#missing[@]})); then
    echo "Installing: ${missing[*]}"
    sudo_cmd=()
    if [ "$(id -u)" != 0 ]; then sudo_cmd=(sudo); fi
    "${sudo_cmd[@]}" apt-get update -qq
    DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

if [ ! -f "$build/build.ninja" ]; then
    (cd "$root" && cmake --preset release >/dev/null)
fi
jobs="$(nproc 2>/dev/null || echo 2)"
# The demo needs only the program; tests and benchmarks are built by their jobs.
case "$job" in
demo) targets=(--target ferrim) ;;
bench) targets=(--target ferrim_bench) ;;
*) targets=() ;;
esac
cmake --build "$build" -j "$jobs" "${targets[@]}"

case "$job" in
demo)
    "$build/tools/ferrim" "$@"
    ;;
test)
    ctest --test-dir "$build" --output-on-failure -j "$jobs" "$@"
    ;;
bench)
    "$build/bench/ferrim_bench" "$@"
    ;;
*)
    echo "usage: scripts/ferrim.sh demo|test|bench [ARGS...]" >&2
    exit 2
    ;;
esac
