// The benchmark's audio and handles, shared by the timing and the counting
// programs.
//
// A 16 kHz two-channel scene: a voiced talker at broadside (the look
// direction, the same at both microphones) over a low-passed noise source
// that reaches microphone 1 two samples after microphone 0, plus independent
// sensor noise. The talker is well above the default -20 dBFS level gate,
// the noise alone well below it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "AudioBfProcess.h"

namespace kivbf_bench {

inline constexpr int kHop = 128;
inline constexpr uint32_t kSampleRate = 16000;
inline constexpr float kDistanceCm = 5.0f;
inline constexpr float kLookAngle = 0.0f;  // broadside
inline constexpr int kWarmUpBlocks = 300;
inline constexpr int kStreamBlocks = 250;

enum class Talker { kBursts, kAlways, kNever };

class Lcg {
public:
    explicit Lcg(uint32_t seed) : state_(seed) {}
    int32_t Next() {
        state_ = state_ * 1103515245u + 12345u;
        return static_cast<int32_t>(state_ >> 16) - 32768;
    }

private:
    uint32_t state_;
};

// Interleaved PCM, `blocks` blocks. Bursts: 30 blocks of speech, 20 of pause.
inline std::vector<int16_t> MakeScene(Talker talker, int blocks) {
    const int samples = blocks * kHop;
    constexpr int kLag = 2;
    Lcg glottal(3), noise_source(5), sensor0(7), sensor1(9);
    std::vector<int32_t> noise(samples + kLag);
    int32_t lowpass = 0;
    for (int32_t &sample : noise) {
        lowpass += (noise_source.Next() - lowpass) >> 2;
        sample = lowpass / 6;
    }
    std::vector<int16_t> scene(2 * samples);
    int32_t y1 = 0, y2 = 0;
    for (int n = 0; n < samples; ++n) {
        const int block = n / kHop;
        bool on = talker == Talker::kAlways;
        if (talker == Talker::kBursts) on = block % 50 < 30;
        // A resonance near 700 Hz driven by a pitch train that glides per burst.
        const int period = 100 + 4 * ((block / 50) % 6);
        const int32_t pulse = (n % period == 0) ? 4000 : 0;
        const int32_t y = ((30600 * y1 - 15700 * y2) >> 14) + pulse + (glottal.Next() >> 5);
        y2 = y1;
        y1 = y;
        const int32_t voice = on ? y / 2 : 0;
        const int32_t mic0 = voice + noise[n + kLag] + (sensor0.Next() >> 9);
        const int32_t mic1 = voice + noise[n] + (sensor1.Next() >> 9);
        scene[2 * n] = static_cast<int16_t>(std::clamp(mic0, -32768, 32767));
        scene[2 * n + 1] = static_cast<int16_t>(std::clamp(mic1, -32768, 32767));
    }
    return scene;
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
