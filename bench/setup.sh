#!/usr/bin/env bash
# Installs the comparison peers of the benchmarks from Debian: protobuf
# (protoc and the C++ library) and msgpack-cxx (header-only) for
# kr_bench_message, libuv and libevent for kr_bench_loop, libdbus-1 and
# dbus-daemon (package dbus) for kr_bench_bus, SQLite for kr_bench_store,
# and Google Benchmark. They
# are only linked into the benchmark binaries, never into libkr. Safe to
# run again.
set -euo pipefail

pkgs=(protobuf-compiler libprotobuf-dev libmsgpack-cxx-dev libbenchmark-dev libuv1-dev libevent-dev
  libdbus-1-dev dbus libsqlite3-dev pkg-config)

missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q '^install ok installed$' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

SUDO=
[ "$(id -u)" -ne 0 ] && SUDO=sudo
export DEBIAN_FRONTEND=noninteractive
install() { $SUDO apt-get install -y --no-install-recommends "${missing[@]}"; }
# A stale package list is the usual reason for "not found"; refresh once.
install || { $SUDO apt-get update && install; }
