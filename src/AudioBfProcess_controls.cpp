// Placeholder: filled in by the stage's owner.
#include "AudioBfProcess_internal.h"

extern "C" {
uint32_t KivBf_SetMode(AudioBfHandle, uint32_t, float) { return 0; }
uint32_t KivBf_SetAdaptiveIntensity(AudioBfHandle, int32_t) { return 0; }
uint32_t KivBf_DynamicLoading(AudioBfHandle, const int32_t *, const int32_t *, uint32_t) { return 0; }
uint32_t KivBf_SetPfFlow(AudioBfHandle, uint32_t) { return 0; }
uint32_t KivBf_SetCalibration(AudioBfHandle, uint32_t) { return 0; }
}
