#!/usr/bin/env bash
# Checks that the installed kr package works from outside the tree:
#   1. configures and builds the tree in build-install/ (tests off),
#   2. installs it into a temporary prefix,
#   3. builds tests/install/consumer.cc with CMake's find_package(kr) and
#      runs it,
#   4. builds the same program with the flags from pkg-config's kr.pc and
#      runs it.
# Exits non-zero on any failure. KEEP=1 keeps the temporary directory.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build-install
tmp=$(mktemp -d "${TMPDIR:-/tmp}/kr-install-test.XXXXXX")
if [[ -z ${KEEP:-} ]]; then
  trap 'rm -rf "$tmp"' EXIT
else
  echo "keeping $tmp"
fi
prefix=$tmp/prefix

step() { echo "== $*"; }

step "build the tree in $build"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKR_BUILD_TESTS=OFF >/dev/null
ninja -C "$build"

step "install into $prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
# The package must not depend on the build or source tree.
if grep -rIl -e "$root" "$prefix" >/dev/null; then
  echo "install_test: installed files refer to the source or build tree:" >&2
  grep -rIl -e "$root" "$prefix" >&2
  exit 1
fi
libdir=$(dirname "$(find "$prefix" -name 'libkr.so' | head -n1)")
[[ -f $libdir/libkr.so ]] || { echo "install_test: libkr.so not installed" >&2; exit 1; }
pcdir=$libdir/pkgconfig
[[ -f $pcdir/kr.pc ]] || { echo "install_test: kr.pc not installed" >&2; exit 1; }

step "every installed header compiles on its own"
while IFS= read -r h; do
  echo "#include <${h#"$prefix/include/"}>" | g++ -std=c++20 -fsyntax-only -I"$prefix/include" -x c++ - ||
    { echo "install_test: installed header ${h#"$prefix/include/"} does not compile alone" >&2; exit 1; }
done < <(find "$prefix/include" -name '*.h' | sort)

step "consumer through find_package(kr)"
cmake -S "$root/tests/install" -B "$tmp/cmake-consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
ninja -C "$tmp/cmake-consumer"
LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" "$tmp/cmake-consumer/consumer"

step "consumer through pkg-config kr"
flags=$(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs kr)
echo "pkg-config: $flags"
# shellcheck disable=SC2086
g++ "$root/tests/install/consumer.cc" -o "$tmp/pc-consumer" $flags
LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" "$tmp/pc-consumer"

echo "install_test: ok"
