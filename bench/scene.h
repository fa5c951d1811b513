// The benchmark's audio and handles, shared by the timing and the counting
// programs.
//
// A 16 kHz two-channel scene: a voiced talker at broadside (the look
// direction, the same at both microphones) over a low-passed noise source
// that reaches microphone 1 two samples after microphone 0, plus independent
// sensor noise. The talker is well above the default -20 dBFS level gate,
// the noise alone well below it.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "AudioBfProcess.h"
#include "../tests/scene.h"

namespace kivbf_bench {

using kivbf_scene::kHop;
inline constexpr uint32_t kSampleRate = 16000;
inline constexpr float kDistanceCm = 5.0f;
inline constexpr float kLookAngle = 0.0f;  // broadside
inline constexpr int kWarmUpBlocks = 300;
inline constexpr int kStreamBlocks = 250;

enum class Talker { kBursts, kAlways, kNever };  // indexes MakeScene's voice table

// Interleaved PCM, `blocks` blocks. Bursts: 30 blocks of speech, 20 of pause.
// A resonance near 700 Hz driven by a pitch train that glides per burst.
inline std::vector<int16_t> MakeScene(Talker talker, int blocks) {
    static constexpr int32_t (*kVoice[])(int32_t, int) = {
        [](int32_t y, int n) { return (n / kHop) % 50 < 30 ? y / 2 : 0; },
        [](int32_t y, int) { return y / 2; },
        [](int32_t, int) { return 0; },
    };
    const kivbf_scene::Recipe recipe = {
        .multiplier = 1103515245u, .increment = 12345u, .seeds = {3, 5, 7, 9}, .a1 = 30600, .a2 = 15700,
        .pulse = 4000, .excitation_shift = 5, .interferer_shift = 2, .interferer_divisor = 6,
        .sensor_shift = 9,
        .pitch_period = [](int n) { return 100 + 4 * ((n / kHop / 50) % 6); },
        .talker = kVoice[static_cast<int>(talker)]};
    return kivbf_scene::MakeScene(recipe, blocks * kHop);
}

// One 16-byte aligned working buffer with a handle in `mode`, configured as
// an application would, and warmed up on the burst scene.
class Instance {
public:
    Instance(uint32_t mode, uint32_t vad_enable) {
        size_ = KivBf_GetBufferSize();
        buffer_ = std::aligned_alloc(16, (size_ + 15) / 16 * 16);
        const AudioBfInit init{128, kSampleRate, kDistanceCm, 2};
        handle_ = KivBf_Init(buffer_, &init);
        AudioBfConfig config{};
        KivBf_GetConfig(handle_, &config);
        config.temperature = 20;
        config.vad_enable = vad_enable;
        KivBf_SetConfig(handle_, &config);
        KivBf_SetShape(handle_, KIVBF_GEOMETRY_LINEAR);
        KivBf_SetMode(handle_, mode, kLookAngle);  // mode 4 is refused but kept
        const std::vector<int16_t> warm_up = MakeScene(Talker::kBursts, kWarmUpBlocks);
        std::vector<int16_t> out(kHop);
        for (int b = 0; b < kWarmUpBlocks; ++b) Run(&warm_up[2 * kHop * b], out.data());
    }
    ~Instance() {
        KivBf_Free(handle_);
        std::free(buffer_);
    }
    Instance(const Instance &) = delete;
    Instance &operator=(const Instance &) = delete;

    uint32_t Run(const int16_t *block, int16_t *out) {
        const float direction = kLookAngle;
        return KivBf_Run(handle_, block, out, &direction);
    }
    AudioBfHandle handle() const { return handle_; }

private:
    void *buffer_;
    uint32_t size_;
    AudioBfHandle handle_;
};

}  // namespace kivbf_bench
