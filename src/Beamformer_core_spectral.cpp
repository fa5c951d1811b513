// Placeholder: filled in by the stage's owner.
#include "Beamformer_core.h"

void Bf_Analysis(BfCoreState &) {}
void Bf_Synthesis(BfCoreState &, const float *, float *) {}
