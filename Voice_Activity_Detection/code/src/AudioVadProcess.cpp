// Voice activity detector wrapper: instance set-up in the caller's block,
// sensitivity presets, the mode switch and one decision per frame.
#include "AudioVadProcess.h"

#include <cstring>
#include <new>

#include "debug_msglevel.h"
#include "vad_instance.h"
#include "webrtc/webrtc_vad.h"

using kivbf::vad::KivVadHeader;

namespace {

// The only mode built into this library.
inline constexpr uint32_t kClassifyingMode = 1;

// Detector aggressiveness for sensitivity Low, mid, high: the least sensitive
// setting uses the most aggressive speech threshold.
inline constexpr int32_t kAggressivenessOfSensitivity[] = {3, 2, 1};
inline constexpr const char *kSensitivityMessages[] = {
    "[%s] %s[VAD] Sensitivity: Low\n",
    "[%s] %s[VAD] Sensitivity: mid\n",
    "[%s] %s[VAD] Sensitivity: high\n",
};

bool IsSupportedRate(uint32_t rate) { return rate == 8000 || rate == 16000 || rate == 48000; }
bool IsClassifyingRate(uint32_t rate) { return rate == 8000 || rate == 16000; }

void PrintModeNotBuilt(const KivVadHeader &h, uint32_t mode) {
    DML_PRINT(h.msg_level, DML_ERR, "[%s] %s[VAD] This lib does not include mode %d\t\n",
              static_cast<int>(mode));
}

// Rate and frame length checks, header fields, detector set-up; false when
// the instance cannot classify.
bool SetUpInstance(KivVadHeader &h, const KivVadSetup &config) {
    if (!IsSupportedRate(config.sample_rate)) {
        DML_PRINT(h.msg_level, DML_ERR, "[%s] %s[VAD] Not support sample rate %d\n",
                  static_cast<int>(config.sample_rate));
        return false;
    }
    // The frame buffers hold kFramePoints samples.
    if (config.point_number > kivbf::vad::kFramePoints) return false;

    h.sample_rate = config.sample_rate;
    h.channel_num = config.channel_num;
    h.point_number = config.point_number;
    h.mode = 0;

    kivbf::vad::VadDetectorState &detector = kivbf::vad::Detector(h);
    if (kivbf::vad::VadCore_Init(detector) != 0) return false;
    if (config.sample_rate == 16000) {
        detector.resample_by_two = 1;
        detector.frame_length = config.point_number;
    }
    return true;
}

}  // namespace

extern "C" {

uint32_t KivVad_GetBufferSize(void) { return kKivVadInstanceSize; }

void *KivVad_Init(void *working_buffer, const KivVadSetup *config) {
    if (working_buffer == nullptr || config == nullptr) {
        DML_PRINT_ALWAYS(DML_ERR, "[%s] %s[VAD] The workingBufferAddress or vad_init is NULL\t\n");
        return nullptr;
    }
    std::memset(working_buffer, 0, kKivVadInstanceSize);
    auto *h = new (working_buffer) KivVadHeader{};
    new (static_cast<unsigned char *>(working_buffer) + kivbf::vad::kDetectorOffset)
        kivbf::vad::VadDetectorState{};
    h->mono_frame_offset = kivbf::vad::kMonoFrameOffset;
    h->downsampled_frame_offset = kivbf::vad::kDownsampledFrameOffset;
    h->detector_offset = kivbf::vad::kDetectorOffset;
    h->msg_level = DebugMsgLevel_Read();

    if (!SetUpInstance(*h, *config)) {
        DML_PRINT(h->msg_level, DML_ERR, "[%s] %s%s", "[VAD] Handle init ERROR!\t\n");
    }
    return h;
}

int32_t KivVad_Config(void *vad, const KivVadInit *init) {
    if (vad == nullptr) {
        DML_PRINT_ALWAYS(DML_ERR, "[%s] %s[%s]The VadHandle is NULL\t\n", "KivVad_Config");
        return -1;
    }
    KivVadHeader &h = *static_cast<KivVadHeader *>(vad);
    if (init == nullptr) {
        DML_PRINT(h.msg_level, DML_ERR, "[%s] %s[%s]The Configuration setting ERROR\t\n",
                  "KivVad_Config");
        return -1;
    }

    h.delay_frames = init->delay_frames;
    DML_PRINT(h.msg_level, DML_MSG, "[%s] %s[VAD] Delay frame: %d\n",
              static_cast<int>(init->delay_frames));

    if (init->sensitivity > 2) {
        DML_PRINT(h.msg_level, DML_ERR, "[%s] %s%s", "[VAD] Sensitivity config setting ERROR....\n");
        DML_PRINT(h.msg_level, DML_ERR, "[%s] %s[%s]The Configuration setting ERROR\t\n",
                  "KivVad_Config");
        return -1;
    }
    DML_PRINT(h.msg_level, DML_MSG, kSensitivityMessages[init->sensitivity]);
    const int32_t aggressiveness = kAggressivenessOfSensitivity[init->sensitivity];
    return kivbf::vad::VadCore_SetMode(kivbf::vad::Detector(h), aggressiveness) == 0 ? 0 : -1;
}

int32_t KivVad_SetMode(void *vad, uint32_t mode) {
    if (vad == nullptr) {
        DML_PRINT_ALWAYS(DML_ERR, "[%s] %s [VAD]The handle is Null!\t\n");
        return -1;
    }
    KivVadHeader &h = *static_cast<KivVadHeader *>(vad);
    if (mode > 3) {
        DML_PRINT(h.msg_level, DML_ERR, "[%s] %s[VAD] Mode can only be set to 0~3\t\n");
        return -1;
    }
    if (mode != kClassifyingMode) {
        PrintModeNotBuilt(h, mode);
        return -1;
    }
    if (!IsClassifyingRate(h.sample_rate)) {
        DML_PRINT(h.msg_level, DML_ERR, "[%s] %s[VAD][mode1] Not support sample rate %d\n",
                  static_cast<int>(h.sample_rate));
        return -1;
    }
    h.mode = mode;
    DML_PRINT(h.msg_level, DML_MSG, "[%s] %s[VAD] mode = %d\t\n", static_cast<int>(mode));
    return 0;
}

int32_t KivVad_Run(void *vad, const int16_t *frame) {
    if (vad == nullptr) {
        DML_PRINT_ALWAYS(DML_ERR, "[%s] %s[%s]The VadHandle is NULL\t\n", "KivVad_Run");
        return -1;
    }
    if (frame == nullptr) return -1;
    KivVadHeader &h = *static_cast<KivVadHeader *>(vad);

    int16_t *mono = kivbf::vad::MonoFrame(h);
    if (h.channel_num == 1) {
        std::memcpy(mono, frame, h.point_number * sizeof(int16_t));
    } else {
        for (uint32_t i = 0; i < h.point_number; ++i) {
            mono[i] = static_cast<int16_t>((frame[2 * i] + frame[2 * i + 1]) / 2);
        }
    }

    if (h.mode != kClassifyingMode) {
        if (h.mode <= 3) PrintModeNotBuilt(h, h.mode);
        return 0;
    }
    const int32_t result = kivbf::vad::VadCore_Process(kivbf::vad::Detector(h), mono,
                                                       kivbf::vad::DownsampledFrame(h), h.msg_level);
    return result >= 1 ? 1 : result;
}

}  // extern "C"
