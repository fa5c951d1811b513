// Placeholder: filled in by the stage's owner.
#include "AudioBfProcess_internal.h"

bool Bf_DumpSetUp(BfCoreState &, const char *) { return true; }
uint32_t Bf_DumpFollowEnvironment(BfCoreState &) { return 0; }
void Bf_DumpWrite(FILE *, const int16_t *, uint32_t) {}
void Bf_DumpCloseAll(BfCoreState &) {}
