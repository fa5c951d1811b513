// Lifecycle of a handle: the working buffer's layout, Init/Reset, Free, the
// handle check and the calling-order tests shared by the exported calls.
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "AudioBfProcess_internal.h"
#include "AudioVadProcess.h"
#include "debug_msglevel.h"
#include "version.h"

using namespace kivbf;

namespace {

constexpr char kHandleMarker[4] = {'W', '0', 'Q', '0'};
constexpr uintptr_t kBufferAlignment = 16;

// Flag words: 1 done, 0 being done, 2 not done since Init/Reset (or freed).
constexpr int32_t kFlagDone = 1;
constexpr int32_t kFlagNotDone = 2;

// The working buffer: core state, then the VAD instance, then the FFT region.
uint32_t WorkingBufferSize() {
    return static_cast<uint32_t>(sizeof(BfCoreState)) + KivVad_GetBufferSize() +
           FFT_GetBufferSize(kFftSize);
}

BfCoreState &CarveWorkingBuffer(void *working_buffer) {
    auto *bytes = static_cast<unsigned char *>(working_buffer);
    BfCoreState &s = *static_cast<BfCoreState *>(working_buffer);
    s.vad_instance = bytes + sizeof(BfCoreState);
    s.fft_record.fft_Ne10_cfg = bytes + sizeof(BfCoreState) + KivVad_GetBufferSize();
    return s;
}

bool IsSupportedSampleRate(uint32_t rate) {
    return rate == 8000 || rate == 16000 || rate == 32000 || rate == 48000;
}

// Tests the record in the order the library reports: point number, microphone
// count, spacing, sample rate. Prints the first failure.
bool InitRecordIsValid(const AudioBfInit &init, int32_t level) {
    if (init.point_number != kPointNumber) {
        DML_PRINT(level, DML_ERR, "[%s] %s[BF] Fail! This library only support %d point number!!\r\n",
                  static_cast<int>(kPointNumber));
        return false;
    }
    if (init.mic_number != static_cast<uint32_t>(kMics)) {
        DML_PRINT(level, DML_ERR, "[%s] %s[BF] Fail! This library only support %d Microphones!!\r\n",
                  kMics);
        return false;
    }
    // NaN fails too; an infinite spacing would put infinities into the geometry.
    if (!(init.microphone_distance > 0.0f) || std::isinf(init.microphone_distance)) {
        DML_PRINT(level, DML_ERR, "[%s] %s[BF] Fail! The microphone_distance must be positibe!!\r\n");
        return false;
    }
    if (!IsSupportedSampleRate(init.sample_rate)) {
        DML_PRINT(level, DML_ERR, "[%s] %s[BF] Fail! Only support 8/16/32/48 KHz sample rate.\t\n");
        return false;
    }
    return true;
}

void CopyInitRecord(BfCoreState &s, const AudioBfInit &init) {
    std::memcpy(s.handle_marker, kHandleMarker, sizeof kHandleMarker);
    s.fft_record.fft_size = kFftSize;
    s.point_number = init.point_number;
    s.sample_rate = init.sample_rate;
    s.microphone_distance = static_cast<float>(init.microphone_distance / 100.0);  // cm -> m
    s.mic_number = init.mic_number;
}

void WriteDefaults(BfCoreState &s, int32_t level) {
    s.noise_threshold_db = -20;
    s.noise_threshold_q15 = Bf_VolTableLookup(s.noise_threshold_db);
    s.Noise_estimation = 0;
    s.output_gain = 0.7f;
    s.vad_enable = 0;
    s.loading_base = 0.001f;
    s.diagonal_loading = 10;
    s.target_angle = 90.0f;
    s.is_dynamic = 0;
    s.mode = 0;
    s.array_geometry = 0;
    s.pf_flow = 1;
    s.debug_level = level;
}

// The detector always runs at 16 kHz, whatever the stream's rate; the block
// is resampled on the way in.
void SetUpVad(BfCoreState &s, int32_t level) {
    const KivVadSetup setup{s.point_number, 1, 16000};
    (void)KivVad_Init(s.vad_instance, &setup);
    DML_PRINT(level, DML_WRN, "[%s] %s[VAD] Force VAD sampling rate at 16000 Hz! \r\n");
    const KivVadInit vad_init{100, 0};
    (void)KivVad_Config(s.vad_instance, &vad_init);
    (void)KivVad_SetMode(s.vad_instance, 1);
}

// Init and Reset are the same operation; `name` ("Init" or "Reset") appears
// in their messages and is handed to the handle check.
AudioBfHandle InitialiseHandle(void *working_buffer, const AudioBfInit *init, const char *name) {
    const int32_t level = DebugMsgLevel_Read();
    if (working_buffer == nullptr || init == nullptr) {
        DML_PRINT(level, DML_ERR,
                  "[%s] %s[BF] [%s] Fail! The working buffer or init parameter is NULL!!\r\n", name);
        return nullptr;
    }
    // The state's vector arrays are aligned for the SIMD kernels; refuse a
    // buffer that would break that before writing a single byte.
    if (reinterpret_cast<uintptr_t>(working_buffer) % kBufferAlignment != 0) {
        DML_PRINT(level, DML_ERR,
                  "[%s] %s[BF] [%s] Fail! The working buffer must be %d-byte aligned!!\r\n", name,
                  static_cast<int>(kBufferAlignment));
        return nullptr;
    }

    std::memset(working_buffer, 0, WorkingBufferSize());
    BfCoreState &s = CarveWorkingBuffer(working_buffer);

    if (!InitRecordIsValid(*init, level)) return nullptr;
    CopyInitRecord(s, *init);
    WriteDefaults(s, level);
    if (Bf_HandleCheck(s, level, name) != KIVBF_OK) return nullptr;

    if (Bf_CoreInit(s) != 0) {
        DML_PRINT(level, DML_ERR, "[%s] %s[BF] [%s] Fail! Initialization fail!\t\n", name);
        return nullptr;
    }
    SetUpVad(s, level);
    if (!Bf_DumpSetUp(s, name)) return nullptr;

    s.init_flag = kFlagDone;
    s.config_flag = kFlagNotDone;
    s.shape_flag = kFlagNotDone;
    s.run_flag = kFlagNotDone;
    s.mode_flag = kFlagNotDone;
    s.calibration_flag = 0;
    return working_buffer;
}

}  // namespace

uint32_t Bf_HandleCheck(const BfCoreState &s, int32_t level, const char *name) {
    if (s.point_number != kPointNumber) {
        DML_PRINT(level, DML_ERR,
                  "[%s] %s[BF] [%s] Fail! This library only support %d point number!!\r\n", name,
                  static_cast<int>(kPointNumber));
        return KIVBF_ERR_POINT_NUMBER;
    }
    if (s.mic_number != static_cast<uint32_t>(kMics)) {
        DML_PRINT(level, DML_ERR,
                  "[%s] %s[BF][%s] Fail! This library only support %d Microphones!!\r\n", name,
                  kMics);
        return KIVBF_ERR_MIC_NUMBER;
    }
    if (std::memcmp(s.handle_marker, kHandleMarker, sizeof kHandleMarker) != 0) {
        DML_PRINT(level, DML_ERR,
                  "[%s] %s[BF][%s] Fail! The handle pointer seems to be dirty!!\r\n", name);
        return KIVBF_ERR_HANDLE;
    }
    return KIVBF_OK;
}

uint32_t Bf_CheckPrerequisites(const BfCoreState &s, uint32_t needs, const char *name) {
    struct Prerequisite {
        BfPrerequisite need;
        const int32_t BfCoreState::*flag;
        const char *call;
        uint32_t code;
    };
    static constexpr Prerequisite kOrder[] = {
        {BF_NEED_INIT, &BfCoreState::init_flag, "KivBf_Init", KIVBF_ERR_NOT_INITIALISED},
        {BF_NEED_CONFIG, &BfCoreState::config_flag, "KivBf_SetConfig", KIVBF_ERR_PREREQUISITE},
        {BF_NEED_SHAPE, &BfCoreState::shape_flag, "KivBf_SetShape", KIVBF_ERR_PREREQUISITE},
        {BF_NEED_MODE, &BfCoreState::mode_flag, "KivBf_SetMode", KIVBF_ERR_PREREQUISITE},
    };
    for (const Prerequisite &p : kOrder) {
        if ((needs & p.need) == 0 || s.*p.flag == kFlagDone) continue;
        DML_PRINT(s.debug_level, DML_ERR, "[%s] %s[BF] [%s] Fail! Please call %s first!\t\n", name,
                  p.call);
        return p.code;
    }
    return KIVBF_OK;
}

bool Bf_IsNull(const void *pointer, const char *message) {
    if (pointer != nullptr) return false;
    DML_PRINT_ALWAYS(DML_ERR, message);
    return true;
}

uint32_t Bf_CheckReady(const BfCoreState &s, uint32_t needs, const char *name) {
    const uint32_t status = Bf_CheckPrerequisites(s, needs, name);
    if (status != KIVBF_OK) return status;
    return Bf_HandleCheck(s, s.debug_level, name);
}

uint32_t Bf_OpenCall(AudioBfHandle handle, const char *null_message, uint32_t needs,
                     const char *name) {
    if (Bf_IsNull(handle, null_message)) return KIVBF_ERR_HANDLE;
    return Bf_CheckReady(*Bf_StateOf(handle), needs, name);
}

extern "C" {

uint32_t KivBf_GetBufferSize(void) {
    const int32_t level = DebugMsgLevel_Read();
    const uint32_t size = WorkingBufferSize();
    DML_PRINT(level, DML_MSG, "[%s] %s[BF] Working buffer size = %d bytes\t\n",
              static_cast<int>(size));
    return size;
}

AudioBfHandle KivBf_Init(void *working_buffer, const AudioBfInit *init) {
    return InitialiseHandle(working_buffer, init, "Init");
}

AudioBfHandle KivBf_Reset(AudioBfHandle handle, const AudioBfInit *init) {
    // Dump files still open from before are not closed: their pointers go
    // with the zero-fill.
    return InitialiseHandle(handle, init, "Reset");
}

uint32_t KivBf_Free(AudioBfHandle handle) {
    if (Bf_IsNull(handle, "[%s] %s [BF] [Free] Fail!. The handle is NULL\t\n"))
        return KIVBF_ERR_HANDLE;
    BfCoreState &s = *Bf_StateOf(handle);
    FFT_Free(&s.fft_record);
    s.init_flag = kFlagNotDone;
    s.shape_flag = kFlagNotDone;
    s.config_flag = kFlagNotDone;
    s.run_flag = kFlagNotDone;
    s.mode_flag = kFlagNotDone;
    const char *dump = std::getenv("AUDIO_BF_DUMP");
    if (dump != nullptr && std::atoi(dump) == 1) Bf_DumpCloseAll(s);
    return KIVBF_OK;
}

uint32_t KivBf_GetAPIVersion(uint16_t *major, uint16_t *minor) {
    const int32_t level = DebugMsgLevel_Read();
    *major = static_cast<uint16_t>(API_STRING[0] - '0');
    *minor = static_cast<uint16_t>(API_STRING[1] - '0');
    DML_PRINT(level, DML_MSG, "[%s] %sBF_API_VERSION: %d.%d\n", static_cast<int>(*major),
              static_cast<int>(*minor));
    return KIVBF_OK;
}

uint32_t KivBf_SetCallbackFunction(void *, void *, void *, void *) { return KIVBF_OK; }

}  // extern "C"
