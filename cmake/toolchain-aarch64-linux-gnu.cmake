# Cross build for 64-bit ARM Linux with Debian's cross compiler and the
# target's multiarch -dev packages (scripts/setup.sh --cross installs both).
#   cmake -S . -B build/aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-aarch64-linux-gnu.cmake
# Advanced SIMD is part of the AArch64 base architecture: no flag needed.
set(KIVBF_TARGET_TRIPLET aarch64-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(KIVBF_TARGET_FLAGS "")
set(KIVBF_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/cross-debian-multiarch.cmake)
