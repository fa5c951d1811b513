// Placeholder: filled in by the stage's owner.
#include "debug_msglevel.h"

int32_t DebugMsgLevel_Read(void) { return 7; }
