// Placeholder: filled in by the stage's owner.
#include "Beamformer_core.h"

void Bf_PostFilterGain(BfCoreState &) {}
void Bf_PostFilterApply(BfCoreState &) {}
void Bf_PostFilterMix(BfCoreState &) {}
