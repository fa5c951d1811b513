// Placeholder: filled in by the stage's owner.
#include "Beamformer_core.h"

void Bf_InputLevel(BfCoreState &) {}
void Bf_OutputStage(BfCoreState &, int16_t *) {}
