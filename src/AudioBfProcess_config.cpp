// Placeholder: filled in by the stage's owner.
#include "AudioBfProcess_internal.h"

extern "C" {
uint32_t KivBf_SetConfig(AudioBfHandle, AudioBfConfig *) { return 0; }
uint32_t KivBf_GetConfig(AudioBfHandle, AudioBfConfig *) { return 0; }
}
