// The process's message sink (KivBfExt_SetMessageSink); the printing side is
// declared in debug_msglevel.h.
#pragma once

#include "kivbf_ext.h"

// Checks and installs `sink` (null: the default); false leaves it unchanged.
bool MessageSink_Set(const KivBfExtMessageSink *sink);
