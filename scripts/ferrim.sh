#!/usr/bin/env bash
# Sets up a Debian machine for Ferrim (installing only what is missing), builds
# in release and runs one job:
#   scripts/ferrim.sh demo   -> ferrim on its embedded demo scene
#   scripts/ferrim.sh test   -> the whole test suite through CTest (the Python tests too)
#   scripts/ferrim.sh python -> the Python module, made importable by python3
#   scripts/ferrim.sh bench [ARGS] -> ferrim_bench with ARGS
#   scripts/ferrim.sh pybench [RUNS] -> mapping from Python against the same call from C++
# Each step is quick when nothing changed.
set -euo pipefail

job="${1:-demo}"
shift || true
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="$root/build/release"

packages=(cmake ninja-build g++ pkg-config libopenimageio-dev libtbb-dev nlohmann-json3-dev libcli11-dev
          libgtest-dev libgmock-dev libbenchmark-dev libnoise-dev libstb-dev libopencolorio-dev libembree-dev
          python3-dev python3-numpy python3-pytest pybind11-dev)
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
python) targets=(--target ferrim_python) ;;
pybench) targets=(--target ferrim_python ferrim_python_bench) ;;
*) targets=() ;;
esac
cmake --build "$build" -j "$jobs" "${targets[@]}"

# Debian's interpreter, the one the module is built for (see python/CMakeLists.txt).
python=/usr/bin/python3
[ -x "$python" ] || python=python3
# Makes `python3 -c "import ferrim"` work: a .pth file in the user's site
# folder names the build's package folder, so no root is needed, rebuilds are
# seen at once, and deleting the one file undoes it.
register_python_module() {
    [ -f "$build/python/ferrim/__init__.py" ] || return 0
    local site
    if site="$("$python" -c 'import site, sys; print(site.getusersitepackages()) if site.ENABLE_USER_SITE else sys.exit(1)')"; then
        mkdir -p "$site"
        echo "$build/python" >"$site/ferrim.pth"
        echo "Python: $python imports ferrim from $build/python (through $site/ferrim.pth)"
    else
        echo "Python: user site folder disabled; import ferrim with PYTHONPATH=$build/python"
    fi
}

case "$job" in
demo)
    "$build/tools/ferrim" "$@"
    ;;
test)
    register_python_module
    ctest --test-dir "$build" --output-on-failure -j "$jobs" "$@"
    ;;
python)
    register_python_module
    ;;
pybench)
    PYTHONPATH="$build/python:$build/python/bench" "$python" "$root/python/bench/map_bench.py" "$@"
    ;;
bench)
    "$build/bench/ferrim_bench" "$@"
    ;;
*)
    echo "usage: scripts/ferrim.sh demo|test|python|bench|pybench [ARGS...]" >&2
    exit 2
    ;;
esac
