#include "beam_core.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kivbf_ext.h"

namespace {

constexpr uint32_t kBlock = KIVBF_POINT_NUMBER;
constexpr uint32_t kRates[] = {8000, 16000, 32000, 48000};

// The kivbf tool's settings of what the plugins do not expose (tool_common.h).
constexpr uint32_t kTemperature = 20;
constexpr int32_t kThresholdDb = -20;
constexpr int32_t kDiagonalLoading = 10;

// Host values into the controls' ranges; integer controls rounded, NaN to
// the default.
BeamControls Sanitised(const BeamControls &controls) {
    BeamControls out{};
    for (uint32_t i = 0; i < kControlCount; ++i) {
        const ControlInfo &info = kControls[i];
        float v = controls.value[i];
        if (std::isnan(v)) v = info.initial;
        v = v < info.low ? info.low : v > info.high ? info.high : v;
        out.value[i] = info.integer ? std::nearbyint(v) : v;
    }
    return out;
}

bool Differs(const BeamControls &a, const BeamControls &b, BeamControl first, BeamControl second) {
    return a.value[first] != b.value[first] || a.value[second] != b.value[second];
}

// Round to nearest, saturating; NaN gives silence.
int16_t ToPcm(float x) {
    const float v = x * 32768.0f;
    if (std::isnan(v)) return 0;
    if (v <= -32768.0f) return INT16_MIN;
    if (v >= 32767.0f) return INT16_MAX;
    return static_cast<int16_t>(std::lrint(v));
}
int16_t ToPcm(int16_t x) { return x; }

template <typename Sample>
Sample FromPcm(int16_t x);
template <>
float FromPcm<float>(int16_t x) { return static_cast<float>(x) / 32768.0f; }
template <>
int16_t FromPcm<int16_t>(int16_t x) { return x; }

void Report(const char *call, uint32_t status) {
    std::fprintf(stderr, "kivbf plugin: %s failed: 0x%08X\n", call, status);
}

}  // namespace

bool BeamRateSupported(uint32_t rate) {
    for (uint32_t r : kRates)
        if (r == rate) return true;
    return false;
}

void BeamRateRefusal(uint32_t rate, char *text, size_t size) {
    std::snprintf(text, size,
                  "kivbf: %u Hz is not supported; the supported rates are 8000, 16000, 32000 and "
                  "48000 Hz (resample in front of the plugin)",
                  rate);
}

void BeamMessagesToStderr() {
    static const KivBfExtMessageSink to_stderr{KIVBFEXT_SINK_STDERR, nullptr, nullptr,
                                               KIVBFEXT_LEVEL_FROM_FILE};
    (void)KivBfExt_SetMessageSink(&to_stderr);
}

BeamCore::~BeamCore() {
    if (handle_ != nullptr) (void)KivBf_Free(handle_);
    std::free(storage_);
}

bool BeamCore::Start(uint32_t rate, const BeamControls &controls) {
    if (!BeamRateSupported(rate)) {
        char text[160];
        BeamRateRefusal(rate, text, sizeof text);
        std::fprintf(stderr, "%s\n", text);
        return false;
    }
    if (storage_ == nullptr) {
        storage_ = std::aligned_alloc(16, (KivBf_GetBufferSize() + 15u) & ~15u);
        if (storage_ == nullptr) return false;
    }
    rate_ = rate;
    pending_ = Sanitised(controls);
    return Restart();
}

bool BeamCore::Restart() {
    std::memset(block_, 0, sizeof block_);
    std::memset(result_, 0, sizeof result_);
    fill_ = 0;
    applied_ = pending_;
    return Configure();
}

bool BeamCore::Configure() {
    if (handle_ != nullptr) (void)KivBf_Free(handle_);
    const float *v = applied_.value;
    const AudioBfInit init{kBlock, rate_, v[kControlSpacing], 2};
    handle_ = KivBf_Init(storage_, &init);
    if (handle_ == nullptr) {
        Report("KivBf_Init", KIVBF_ERR_HANDLE);
        return false;
    }
    AudioBfConfig config{};
    uint32_t status = KivBf_GetConfig(handle_, &config);
    config.temperature = kTemperature;
    config.noise_threshold_db = kThresholdDb;
    config.Noise_estimation = 0;
    config.diagonal_loading = kDiagonalLoading;
    config.output_gain = v[kControlOutputGain];
    config.vad_enable = static_cast<uint32_t>(v[kControlVad]);
    const struct {
        const char *call;
        uint32_t status;
    } steps[] = {
        {"KivBf_GetConfig", status},
        {"KivBf_SetConfig", KivBf_SetConfig(handle_, &config)},
        {"KivBf_SetShape", KivBf_SetShape(handle_, static_cast<uint32_t>(v[kControlShape]))},
        {"KivBf_SetCalibration", KivBf_SetCalibration(handle_, 0)},
        {"KivBf_SetMode",
         KivBf_SetMode(handle_, static_cast<uint32_t>(v[kControlMode]), v[kControlAngle])},
        {"KivBf_SetAdaptiveIntensity",
         KivBf_SetAdaptiveIntensity(handle_, static_cast<int32_t>(v[kControlIntensity]))},
        {"KivBfExt_SetAutoSteer",
         KivBfExt_SetAutoSteer(handle_, static_cast<uint32_t>(v[kControlAutoSteer]))},
        {"KivBfExt_SetSearchWindow", KivBfExt_SetSearchWindow(handle_, v[kControlWindowCentre],
                                                              v[kControlWindowHalfWidth])},
    };
    for (const auto &step : steps) {
        if (step.status == KIVBF_OK) continue;
        Report(step.call, step.status);
        (void)KivBf_Free(handle_);
        handle_ = nullptr;
        return false;
    }
    return true;
}

void BeamCore::ApplyChanges() {
    if (std::memcmp(&applied_, &pending_, sizeof applied_) == 0) return;
    const BeamControls before = applied_;
    applied_ = pending_;
    const float *v = applied_.value;
    if (Differs(before, applied_, kControlSpacing, kControlShape)) {
        (void)Configure();
        return;
    }
    if (handle_ == nullptr) return;
    if (Differs(before, applied_, kControlMode, kControlAngle))
        (void)KivBf_SetMode(handle_, static_cast<uint32_t>(v[kControlMode]), v[kControlAngle]);
    if (Differs(before, applied_, kControlOutputGain, kControlVad)) {
        AudioBfConfig config{};
        (void)KivBf_GetConfig(handle_, &config);
        config.output_gain = v[kControlOutputGain];
        config.vad_enable = static_cast<uint32_t>(v[kControlVad]);
        (void)KivBf_SetConfig(handle_, &config);
    }
    if (before.value[kControlIntensity] != v[kControlIntensity])
        (void)KivBf_SetAdaptiveIntensity(handle_, static_cast<int32_t>(v[kControlIntensity]));
    if (before.value[kControlAutoSteer] != v[kControlAutoSteer])
        (void)KivBfExt_SetAutoSteer(handle_, static_cast<uint32_t>(v[kControlAutoSteer]));
    if (Differs(before, applied_, kControlWindowCentre, kControlWindowHalfWidth))
        (void)KivBfExt_SetSearchWindow(handle_, v[kControlWindowCentre], v[kControlWindowHalfWidth]);
}

void BeamCore::RunBlock() {
    ApplyChanges();
    const float direction = 0.0f;
    if (handle_ == nullptr || KivBf_Run(handle_, block_, result_, &direction) != KIVBF_OK)
        std::memset(result_, 0, sizeof result_);
}

// Output frame t is block output t - 127: positions 0..126 of a block read
// the previous block's samples 1..127; position 127 completes the block and
// reads the new block's sample 0.
template <typename Sample>
void BeamCore::Run(const Sample *left, const Sample *right, size_t stride, Sample *out,
                   size_t frames, const BeamControls &controls) {
    pending_ = Sanitised(controls);
    for (size_t i = 0; i < frames; ++i) {
        block_[2 * fill_] = ToPcm(left[i * stride]);
        block_[2 * fill_ + 1] = ToPcm(right[i * stride]);
        if (++fill_ < kBlock) {
            out[i] = FromPcm<Sample>(result_[fill_]);
            continue;
        }
        RunBlock();
        fill_ = 0;
        out[i] = FromPcm<Sample>(result_[0]);
    }
}

void BeamCore::Process(const float *left, const float *right, size_t stride, float *out,
                       size_t frames, const BeamControls &controls) {
    Run(left, right, stride, out, frames, controls);
}

void BeamCore::Process(const int16_t *left, const int16_t *right, size_t stride, int16_t *out,
                       size_t frames, const BeamControls &controls) {
    Run(left, right, stride, out, frames, controls);
}
