// Placeholder: filled in by the stage's owner.
#include "Beamformer_core.h"

int32_t Bf_CoreInit(BfCoreState &) { return 0; }
int32_t Bf_VolTableLookup(int32_t) { return 0; }
