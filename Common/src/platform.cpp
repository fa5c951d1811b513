// Placeholder: filled in by the stage's owner.
#include "platform.h"

extern "C" {
int32_t PelFsOpen(intptr_t *, const char *, uint32_t, uint32_t) { return -1; }
int64_t PelFsSeek(intptr_t, int64_t, int32_t) { return -1; }
int64_t PelFsRead(intptr_t, void *, uint64_t) { return 0; }
int32_t PelFsClose(intptr_t) { return 0; }
void *PelOsMemAlloc(uint64_t) { return nullptr; }
void PelOsMemRelease(void *) {}
}
