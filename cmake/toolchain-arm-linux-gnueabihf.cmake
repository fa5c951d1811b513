# Cross build for 32-bit ARM Linux (hard-float ABI) with Debian's cross
# compiler and the target's multiarch -dev packages (scripts/setup.sh --cross).
#   cmake -S . -B build/armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-arm-linux-gnueabihf.cmake
# Debian's armhf baseline is ARMv7-A with VFPv3-D16 and no NEON, so the vector
# unit has to be asked for explicitly.
set(KIVBF_TARGET_TRIPLET arm-linux-gnueabihf)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(KIVBF_TARGET_FLAGS "-march=armv7-a -mfpu=neon-vfpv4 -mfloat-abi=hard")
set(KIVBF_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/cross-debian-multiarch.cmake)
