#!/usr/bin/env bash
# Installs what is missing, builds the browser client and the demo host and starts it on the example workspace. It
# prints the URL with its access token; extra arguments go to wsbrowser (see --help).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
npm run build
cmake -S . -B build/run -DCMAKE_BUILD_TYPE=RelWithDebInfo -DWSB_BUILD_TESTS=OFF >/dev/null
cmake --build build/run -j "$(nproc)" --target wsbrowser
exec build/run/bin/wsbrowser "$@" host/examples/example.py
