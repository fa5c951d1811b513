// Shared by the exported calls: the handle check, the calling-order tests and
// the PCM dump.
#pragma once

#include <cstdint>

#include "../include/AudioBfProcess.h"
#include "Beamformer_core.h"

// Flags a call needs, tested in this order (each must equal 1).
enum BfPrerequisite : uint32_t {
    BF_NEED_INIT = 1u,
    BF_NEED_CONFIG = 2u,
    BF_NEED_SHAPE = 4u,
    BF_NEED_MODE = 8u,
};

inline BfCoreState *Bf_StateOf(AudioBfHandle handle) { return static_cast<BfCoreState *>(handle); }

// Point number 128, two microphones, marker "W0Q0", in that order; prints the
// failing test's message naming `name` ("Run", "SetShape", ...).
uint32_t Bf_HandleCheck(const BfCoreState &s, int32_t level, const char *name);

// Tests the flags in `needs` in the order init, config, shape, mode and prints
// "[BF] [<name>] Fail! Please call KivBf_<X> first!" for the first one missing.
// Returns KIVBF_ERR_NOT_INITIALISED, KIVBF_ERR_PREREQUISITE or KIVBF_OK.
uint32_t Bf_CheckPrerequisites(const BfCoreState &s, uint32_t needs, const char *name);

// The opening the exported calls share. Bf_IsNull: true, after printing
// `message` whatever the level, when `pointer` (the handle or an argument) is
// null. Bf_CheckReady: the flags in `needs`, then the handle itself, both
// naming `name`; the first failure's status, else KIVBF_OK.
bool Bf_IsNull(const void *pointer, const char *message);
uint32_t Bf_CheckReady(const BfCoreState &s, uint32_t needs, const char *name);
// Both for a call with no other pointer to test: a null handle gives
// KIVBF_ERR_HANDLE after `null_message`, else Bf_CheckReady's status.
uint32_t Bf_OpenCall(AudioBfHandle handle, const char *null_message, uint32_t needs,
                     const char *name);

// PCM dump (AudioBfProcess_dump.cpp).
// Init/Reset: reads AUDIO_BF_DUMP into dump_mode and, when it is not 0, checks
// the directory and opens the three files. `caller` is "Init" or "Reset".
// Returns false (after printing) on any failure.
bool Bf_DumpSetUp(BfCoreState &s, const char *caller);
// Run, before processing: follows AUDIO_BF_DUMP. Returns KIVBF_OK or
// KIVBF_ERR_DUMP_OPEN.
uint32_t Bf_DumpFollowEnvironment(BfCoreState &s);
// Writes `count` samples to an open dump file; a closed (null) file is skipped.
void Bf_DumpWrite(FILE *file, const int16_t *samples, uint32_t count);
// Closes whichever of the three files are open and clears their pointers.
void Bf_DumpCloseAll(BfCoreState &s);
