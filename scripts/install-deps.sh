#!/usr/bin/env bash
# Installs what this project needs to build, test and benchmark: Debian packages, then the
# browser client's npm packages exactly as package-lock.json pins them. Idempotent: when
# everything is present it changes nothing and does not touch the network.
set -euo pipefail

packages=(
  build-essential cmake pkg-config git clang-format clang clang-tidy libclang-rt-14-dev
  libboost1.81-dev libboost-thread1.81-dev libboost-log1.81-dev libboost-locale1.81-dev
  libboost-system1.81-dev libboost-json1.81-dev
  libtbb-dev gettext libxxhash-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  rapidjson-dev nlohmann-json3-dev
  libpython3-dev python3-numpy python3-pandas
  chromium
)
# Node.js comes from Debian only when the machine has none; the client's build tool needs 20.19
# or later, which is checked below.
if ! command -v node >/dev/null 2>&1 || ! command -v npm >/dev/null 2>&1; then
  packages+=(nodejs npm)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all ${#packages[@]} Debian packages present"
else
  SUDO=""
  if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
  echo "install-deps: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update
  $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
fi

node_version=$(node -p 'process.versions.node')
if ! node -e 'const [a, b] = process.versions.node.split(".").map(Number);
              process.exit(a > 20 || (a === 20 && b >= 19) ? 0 : 1)'; then
  echo "install-deps: Node.js $node_version is too old for the client build (needs 20.19 or later)" >&2
  exit 1
fi

# The npm packages, reinstalled only when package-lock.json changed since the last install.
cd "$(dirname "$0")/.."
stamp=node_modules/.wsb-package-lock.sha256
want=$(sha256sum package-lock.json | cut -d' ' -f1)
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$want" ]; then
  echo "install-deps: npm packages match package-lock.json"
else
  echo "install-deps: installing npm packages from package-lock.json"
  npm ci --no-audit --no-fund
  echo "$want" > "$stamp"
fi
