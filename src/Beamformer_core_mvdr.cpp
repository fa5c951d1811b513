// Placeholder: filled in by the stage's owner.
#include "Beamformer_core.h"

void Bf_NoiseCovarianceUpdate(BfCoreState &) {}
void Bf_AdaptiveWeights(BfCoreState &) {}
