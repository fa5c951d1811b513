# Packages for the ARM cross builds; sourced by setup.sh --cross.
# The target libraries are Debian's multiarch -dev packages, installed beside
# the native ones under /usr/lib/<triplet>; qemu-user runs the test binaries.
cross_arches=(arm64 armhf)
cross_packages=(g++-aarch64-linux-gnu g++-arm-linux-gnueabihf qemu-user)
for arch in "${cross_arches[@]}"; do
  cross_packages+=(
    "libkissfft-dev:$arch" "libcjson-dev:$arch" "libgtest-dev:$arch"
    "libsndfile1-dev:$arch" "libwebrtc-audio-processing-dev:$arch"
  )
done
