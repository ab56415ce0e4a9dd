#!/usr/bin/env bash
# Installs the Debian packages this project needs to build, test and benchmark. Idempotent:
# when everything is present it changes nothing and does not touch the network.
set -euo pipefail

packages=(
  build-essential cmake pkg-config git clang-format
  libboost1.81-dev libboost-thread1.81-dev libboost-log1.81-dev libboost-locale1.81-dev
  libboost-system1.81-dev libboost-json1.81-dev
  libtbb-dev gettext
  libgtest-dev libgmock-dev libbenchmark-dev
  rapidjson-dev nlohmann-json3-dev
  libpython3-dev python3-numpy
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all ${#packages[@]} packages present"
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update
$SUDO apt-get install -y --no-install-recommends "${missing[@]}"
