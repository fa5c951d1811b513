// Placeholder: filled in by the stage's owner.
#include "Beamformer_core.h"

void Bf_BeamSum(BfCoreState &) {}
void Bf_Canceller(BfCoreState &) {}
