// Placeholder: filled in by the stage's owner.
#include "AudioBfProcess_internal.h"

extern "C" uint32_t KivBf_Run(AudioBfHandle, const int16_t *, int16_t *, const float *) { return 0; }
