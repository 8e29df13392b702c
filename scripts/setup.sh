#!/usr/bin/env bash
# Installs the Debian packages that building and testing need. Safe to run
# again: only missing packages are fetched.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  libhidapi-dev libusb-1.0-0-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  libgeographiclib-dev zlib1g-dev libssl-dev libxml2-utils gpsbabel
  clang-14 libclang-rt-14-dev llvm-14
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all packages present"
  exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
