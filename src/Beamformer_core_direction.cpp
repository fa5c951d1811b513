// Placeholder: filled in by the stage's owner.
#include "Beamformer_core.h"

void Bf_SpectraAverage(BfCoreState &) {}
void Bf_CoherenceDetect(BfCoreState &) {}
void Bf_DirectionScore(BfCoreState &) {}
void Bf_DirectionWeight(BfCoreState &) {}
