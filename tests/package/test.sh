#!/usr/bin/env bash
# test.sh PREFIX SCRATCH: uses the companion library that is installed under PREFIX as another project would: with
# CMake and with pkg-config. SCRATCH is a folder for what is built.
set -euo pipefail
here=$(realpath "${BASH_SOURCE[0]%/*}")
prefix=$1 scratch=$2

rm -rf "$scratch"
cmake -G Ninja -S "$here" -B "$scratch" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$scratch"
"$here/../../scripts/sandbox" "$scratch/companion"

PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name guilink-companion.pc)")
export PKG_CONFIG_PATH
read -ra flags <<<"$(pkg-config --cflags --libs 'guilink-companion >= 0.1')"
c++ -std=c++17 -o "$scratch/by_pkg_config" "$here/companion.cpp" "${flags[@]}"
"$here/../../scripts/sandbox" "$scratch/by_pkg_config"

# Whatever the library defines is in namespace guilink, or a copy of a template of the standard library.
strangers=$(find "$prefix" -name 'libguilink-*.a' \
    -exec nm --demangle --defined-only --extern-only --format=posix {} + |
    grep -vE '(guilink|std|__gnu_cxx)::|\.a\[|^DW\.ref|^$' || true)
[[ ! $strangers ]] || {
    echo "in the global namespace: $strangers" >&2
    exit 1
}
