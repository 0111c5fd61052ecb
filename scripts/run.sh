#!/usr/bin/env bash
# The main job: installs what is missing, builds kr, and runs the platform
# on this machine in a private runtime directory: kr-loader starts the log
# service, the store service and the example daemon, and kr-cli talks to
# them (a request and its reply, a change and the notification a subscriber
# gets, the daemon's log lines and a topic muted, a persistent table edited,
# and found intact after both processes were killed). The README walks
# through what this prints.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" --target kr-loader kr-store kr-log kr-example kr-cli >/dev/null

bin=$PWD/build
loader=$bin/platform/loader/kr-loader
store=$bin/platform/store/kr-store
log=$bin/platform/log/kr-log
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

step "The platform: kr-loader starts kr-log (address 7), kr-store (6) and kr-example (40)"
cp platform/log/kr-log.conf "$KR_RUNTIME_DIR/kr-log.conf"
cat >"$KR_RUNTIME_DIR/loader.conf" <<EOF
daemon 7 always $log --config $KR_RUNTIME_DIR/kr-log.conf
daemon 6 always $store
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

step "The log: kr-example writes through kr::lstream into kr-log"
show "$cli" --compact call 40/10 0x100 '{"string:1": "Ada"}'
show "$cli" log follow --program kr-example --tail 10 --count 5
echo "muting one topic: the per-greeting lines stop, the rest go on"
show "$cli" log mute example.requests
sleep 0.2  # the mute order reaches the daemon
show "$cli" --compact call 40/10 0x100 '{"string:1": "Grace"}'
show "$cli" --compact set 40/10 '{"string:1": "Welcome"}'
sleep 0.2
show "$cli" log follow --program kr-example --tail 2 --count 2
echo "(no line for Grace's greeting: the daemon did not even send it)"
show "$cli" log status
show "$cli" log unmute example.requests

step "A persistent table: ordered address entries (handler 20)"
"$cli" --compact listen 40/20 >"$KR_RUNTIME_DIR/table.out" &
listener=$!
sleep 0.5
show "$cli" --compact add 40/20 '{"string:1": "192.0.2.0/24", "string:STD_DESCR": "lab network"}'
show "$cli" --compact add 40/20 '{"string:1": "198.51.100.7", "string:STD_DESCR": "printer"}'
show "$cli" --compact add 40/20 '{"string:1": "203.0.113.0/24", "string:STD_DESCR": "guests", "bool:STD_DISABLED": true}'
show "$cli" --compact set 40/20 3 '{"bool:STD_DISABLED": false}'
show "$cli" --compact move 40/20 3 1
show "$cli" --compact remove 40/20 2
show "$cli" getall 40/20
sleep 0.5  # changes reach subscribers within 200 ms, several to a message
kill -INT "$listener"
wait "$listener"
echo "the subscriber printed:"
cat "$KR_RUNTIME_DIR/table.out"

step "A crash and a kill: kr-example gets SIGSEGV, kr-store SIGKILL; the loader restarts them"
example_pid=$(pgrep -P "$loader_pid" -x kr-example)
kill -SEGV "$example_pid"
echo "sent SIGSEGV to kr-example (pid $example_pid)"
store_pid=$(pgrep -P "$loader_pid" -x kr-store)
kill -KILL "$store_pid"
echo "killed kr-store (pid $store_pid)"
for _ in $(seq 100); do
  sleep 0.2
  "$cli" --timeout 1 getall 40/20 >/dev/null 2>&1 && break
done
show "$cli" getall 40/20
echo "kr-example's crash report ends with the last lines it logged:"
report="$KR_RUNTIME_DIR/crash/kr-example.$example_pid"
head -n 1 "$report"
sed -n '/^log tail:/,/^memory maps:/p' "$report" | sed '$d'
echo "the table's changes, and the restart, in the log:"
show "$cli" log follow --topic example.table --tail 20 --count 8

step "Errors come back as errors"
show "$cli" set 40/10 '{}' || echo "(exit status $?)"
show "$cli" get 41 || echo "(exit status $?)"

step "Stopping: the loader asks the daemon to leave, then exits"
kill -TERM "$loader_pid"
wait "$loader_pid" && echo "kr-loader exited 0"
loader_pid=
# Each kr-cli took a dynamic address (65536 and up); their comings and
# goings are left out, and so is the crash report shown above (the daemons'
# standard error is the loader's).
grep -Ev 'address [0-9]{5,}[ :]' "$KR_RUNTIME_DIR/loader.log" |
  sed '/^\*\*\* kr crash report/,/^\*\*\* end of kr crash report/c\(the crash report of kr-example, as above)' |
  sed 's/^/  /'
