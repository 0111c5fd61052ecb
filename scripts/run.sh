#!/usr/bin/env bash
# The main job: installs what is missing, builds kr, and runs the platform
# on this machine in a private runtime directory: kr-loader starts the
# example daemon, and kr-cli talks to it (a request and its reply, a change
# and the notification a subscriber gets). The README walks through what
# this prints.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" --target kr-loader kr-example kr-cli >/dev/null

bin=$PWD/build
loader=$bin/platform/loader/kr-loader
example=$bin/examples/kr-example
cli=$bin/tools/kr-cli/kr-cli

KR_RUNTIME_DIR=$(mktemp -d /tmp/kr-platform.XXXXXX)
export KR_RUNTIME_DIR
loader_pid=
cleanup() {
  if [ -n "$loader_pid" ] && kill -0 "$loader_pid" 2>/dev/null; then
    kill -TERM "$loader_pid" 2>/dev/null || true
    wait "$loader_pid" 2>/dev/null || true
  fi
  rm -rf "$KR_RUNTIME_DIR"
}
trap cleanup EXIT

step() { printf '\n== %s\n' "$*"; }
show() { printf '$ %s\n' "$*" | sed "s|$bin/[^ ]*/||g"; "$@"; }

step "The platform: kr-loader starts kr-example at bus address 40"
cat >"$KR_RUNTIME_DIR/loader.conf" <<EOF
daemon 40 always $example
EOF
sed "s|$bin/[^ ]*/||" "$KR_RUNTIME_DIR/loader.conf"
"$loader" --config "$KR_RUNTIME_DIR/loader.conf" 2>"$KR_RUNTIME_DIR/loader.log" &
loader_pid=$!
# Up when the example daemon answers a no-op.
for _ in $(seq 100); do
  "$cli" --timeout 1 call 40/10 CMD_NOOP >/dev/null 2>&1 && break
  sleep 0.1
done
echo "runtime directory: $KR_RUNTIME_DIR"

step "A request and its reply"
show "$cli" get 40/10
show "$cli" call 40/10 0x100 '{"string:1": "reader"}'

step "A subscriber, and a change it is told about"
"$cli" --compact listen 40/10 --count 1 >"$KR_RUNTIME_DIR/listen.out" &
listener=$!
sleep 0.5  # let the subscription reach the daemon
show "$cli" set 40/10 '{"string:1": "Good morning"}'
wait "$listener"
echo "the subscriber printed:"
cat "$KR_RUNTIME_DIR/listen.out"

step "Errors come back as errors"
show "$cli" set 40/10 '{}' || echo "(exit status $?)"
show "$cli" get 41 || echo "(exit status $?)"

step "Stopping: the loader asks the daemon to leave, then exits"
kill -TERM "$loader_pid"
wait "$loader_pid" && echo "kr-loader exited 0"
loader_pid=
sed 's/^/  /' "$KR_RUNTIME_DIR/loader.log"
