# Shared part of the ARM toolchain files: expects KIVBF_TARGET_TRIPLET,
# CMAKE_SYSTEM_PROCESSOR, KIVBF_TARGET_FLAGS and KIVBF_QEMU to be set.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${KIVBF_TARGET_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${KIVBF_TARGET_TRIPLET}-g++)
set(CMAKE_C_FLAGS_INIT "${KIVBF_TARGET_FLAGS}")
set(CMAKE_CXX_FLAGS_INIT "${KIVBF_TARGET_FLAGS}")

# Target libraries live beside the host's in /usr/lib/<triplet>; the cross
# C library in /usr/<triplet>. Never pick up a host library or package.
set(CMAKE_LIBRARY_ARCHITECTURE ${KIVBF_TARGET_TRIPLET})
set(CMAKE_FIND_ROOT_PATH /usr/${KIVBF_TARGET_TRIPLET} /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${KIVBF_TARGET_TRIPLET}/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# Test binaries (and gtest's test discovery) run under user-mode QEMU.
set(CMAKE_CROSSCOMPILING_EMULATOR ${KIVBF_QEMU})
