// Platform file and memory calls. The library uses them only to read the
// message-level file. A POSIX implementation ships in platform.cpp; its
// symbols are weak, so an integrator replaces them by defining their own.
#pragma once

#include <cstdint>

extern "C" {

// Opens `path`; stores an opaque handle in *handle. flags 0x10001 asks for
// read access, mode is the access mode for creation (unused when reading).
// Returns 0 on success.
int32_t PelFsOpen(intptr_t *handle, const char *path, uint32_t flags, uint32_t mode);
// Moves to `offset` from origin (0 start, 1 current, 2 end); returns the new
// position, or -1.
int64_t PelFsSeek(intptr_t handle, int64_t offset, int32_t origin);
// Reads up to length bytes; returns the count read (0 on error or end).
int64_t PelFsRead(intptr_t handle, void *buffer, uint64_t length);
int32_t PelFsClose(intptr_t handle);
void *PelOsMemAlloc(uint64_t size);
void PelOsMemRelease(void *memory);

}
