#!/usr/bin/env bash
# Installs every Debian package kivbf needs to build, test and run its tools.
# Idempotent; run as root on Debian 12. Installs nothing when all is present.
#   scripts/setup.sh           native build, tests, tools
#   scripts/setup.sh --cross   also the aarch64 / armhf cross toolchains and libraries
set -euo pipefail

native_packages=(
  build-essential cmake pkg-config git
  libkissfft-dev libcjson-dev libsimde-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libsndfile1-dev libwebrtc-audio-processing-dev
  clang libclang-rt-dev valgrind
  python3 python3-numpy python3-matplotlib python3-scipy espeak-ng
  libsoxr-dev sox ladspa-sdk lv2-dev lilv-utils sordi lv2file
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev gstreamer1.0-tools
  gstreamer1.0-plugins-good pipewire pipewire-bin
)
cross_packages=()
cross_arches=()
if [[ "${1:-}" == "--cross" ]]; then
  source "$(dirname "$0")/cross-packages.sh"
fi

missing=()
for p in "${native_packages[@]}" "${cross_packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [[ ${#missing[@]} -eq 0 ]]; then
  echo "setup: all packages present"
  exit 0
fi

if [[ $(id -u) -ne 0 ]]; then
  echo "setup: missing packages (${missing[*]}); run as root" >&2
  exit 1
fi

for arch in "${cross_arches[@]}"; do
  dpkg --print-foreign-architectures | grep -qx "$arch" || dpkg --add-architecture "$arch"
done

# A mirror that is syncing can fail one architecture's index; retry, then go on
# and let the install decide whether what we need is there.
for attempt in 1 2 3; do
  if apt-get update; then break; fi
  echo "setup: apt-get update failed (attempt $attempt)" >&2
  sleep $((attempt * 5))
done

export DEBIAN_FRONTEND=noninteractive
apt-get install -y --no-install-recommends "${missing[@]}"
echo "setup: installed ${missing[*]}"
