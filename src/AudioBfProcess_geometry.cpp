// Placeholder: filled in by the stage's owner.
#include "AudioBfProcess_internal.h"

extern "C" {
uint32_t KivBf_SetShape(AudioBfHandle, uint32_t) { return 0; }
uint32_t KivBf_SetArbitraryShape(AudioBfHandle, const float *) { return 0; }
uint32_t KivBf_GetArrayPosition(AudioBfHandle, float *) { return 0; }
}
