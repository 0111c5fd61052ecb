#!/usr/bin/env bash
# The main job: installs what is missing, builds kr and runs the message tour.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" --target message_tour >/dev/null
./build/examples/message_tour
