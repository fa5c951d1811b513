// Placeholder: filled in by the stage's owner.
#include "AudioBfProcess_internal.h"

extern "C" {
uint32_t KivBf_GetBufferSize(void) { return sizeof(BfCoreState) + 1600 + FFT_GetBufferSize(256); }
AudioBfHandle KivBf_Init(void *b, const AudioBfInit *) { return b; }
AudioBfHandle KivBf_Reset(AudioBfHandle h, const AudioBfInit *) { return h; }
uint32_t KivBf_Free(AudioBfHandle) { return 0; }
uint32_t KivBf_GetAPIVersion(uint16_t *, uint16_t *) { return 0; }
uint32_t KivBf_SetCallbackFunction(void *, void *, void *, void *) { return 0; }
}
uint32_t Bf_HandleCheck(const BfCoreState &, int32_t, const char *) { return 0; }
uint32_t Bf_CheckPrerequisites(const BfCoreState &, uint32_t, const char *) { return 0; }
