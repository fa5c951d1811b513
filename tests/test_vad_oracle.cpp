// Decision-for-decision comparison of the detector with the WebRTC voice
// activity detector of libwebrtc-audio-processing, on 128-sample 16 kHz blocks.
//
// The library's public entry only takes 10/20/30 ms frames, so the reference
// runs its internal 16 kHz path, which halves the block with its own
// down-sampler state and classifies the 64 samples; both sides therefore see
// the same 8 kHz frames. The raw classifier value is compared, so hangover
// counts must agree as well as speech/noise.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#include "webrtc/webrtc_vad.h"

extern "C" {
// The library installs no header for its detector.
struct WebRtcVadInst;
WebRtcVadInst *WebRtcVad_Create(void);
int WebRtcVad_Init(WebRtcVadInst *handle);
int WebRtcVad_set_mode(WebRtcVadInst *handle, int mode);
void WebRtcVad_Free(WebRtcVadInst *handle);
int WebRtcVad_CalcVad16khz(WebRtcVadInst *inst, const int16_t *speech_frame, size_t frame_length);
}

namespace {

constexpr size_t kBlock = 128;
constexpr double kRate = 16000.0;
constexpr double kTwoPi = 6.283185307179586;

// Test material in segments of 30..329 blocks, each of one kind with its own
// random level, frequencies, pitch and offset.
struct SignalSource {
    explicit SignalSource(uint32_t seed) : state_(seed) {}

    void NextBlock(int16_t *out) {
        if (remaining_ == 0) StartSegment();
        --remaining_;
        for (size_t i = 0; i < kBlock; ++i)
            out[i] = static_cast<int16_t>(std::lround(std::clamp(Sample(), -32768.0, 32767.0)));
    }

    enum Kind { kSilence, kLowNoise, kNoise, kClippedNoise, kTone, kChirp, kSpeech, kSweep };

    uint32_t Next() { return state_ = state_ * 1664525u + 1013904223u; }
    double Range(double lo, double hi) { return lo + (hi - lo) * ((Next() >> 8) / 16777216.0); }
    double Noise() { return Range(-1.0, 1.0); }

    void StartSegment() {
        kind_ = static_cast<Kind>(Next() % (kSweep + 1)), remaining_ = 30 + Next() % 300;
        length_ = remaining_ * kBlock, t_ = phase_ = 0.0;
        level_ = std::pow(10.0, Range(-1.0, 4.6));  // about 0.1 .. 40000
        f0_ = Range(40.0, 7900.0), f1_ = Range(40.0, 7900.0);
        pitch_ = Range(90.0, 320.0), syllable_hz_ = Range(2.5, 7.0);
        noise_level_ = level_ * std::pow(10.0, Range(-6.0, 0.0));  // from clean to noisy speech
        dc_ = Range(0.0, 1.0) < 0.2 ? Range(-2000.0, 2000.0) : 0.0;
    }

    // Harmonics of a wavering pitch shaped by two formant-like peaks, switched
    // on and off at a syllable rate.
    double Voiced(double time) {
        const double envelope = std::max(0.0, std::sin(kTwoPi * syllable_hz_ * time));
        if (envelope == 0.0) return 0.0;
        phase_ += kTwoPi * pitch_ * (1.0 + 0.05 * std::sin(kTwoPi * 1.3 * time)) / kRate;
        double v = 0.0;
        for (int h = 1; h * pitch_ < 7500.0 && h <= 30; ++h) {
            const double low = (h * pitch_ - 700.0) / 300.0, high = (h * pitch_ - 1800.0) / 400.0;
            v += (1.0 / (1.0 + low * low) + 0.5 / (1.0 + high * high) + 0.05) * std::sin(h * phase_);
        }
        return envelope * envelope * v;
    }

    double Sample() {
        const double time = t_ / kRate, progress = t_ / length_;
        t_ += 1.0;
        switch (kind_) {
        case kSilence: return 0.0;
        case kLowNoise: return std::min(level_, 64.0) * Noise();
        case kNoise: return dc_ + level_ * Noise();
        case kClippedNoise: return 80000.0 * Noise();
        case kTone: return dc_ + level_ * std::sin(kTwoPi * f0_ * time);
        case kChirp: phase_ += kTwoPi * (f0_ + (f1_ - f0_) * progress) / kRate; return level_ * std::sin(phase_);
        case kSpeech: return level_ * 0.4 * Voiced(time) + noise_level_ * Noise();
        case kSweep:  // noise or a tone from -90 dB to +10 dB of full scale
            return 32768.0 * std::pow(10.0, -4.5 + 5.0 * progress) *
                   (Range(0.0, 1.0) < 0.5 ? Noise() : std::sin(kTwoPi * f0_ * time));
        }
        return 0.0;
    }

    uint32_t state_, remaining_ = 0;
    Kind kind_ = kSilence;
    double length_ = 1, t_ = 0, phase_ = 0, level_ = 0, f0_ = 0, f1_ = 0, pitch_ = 0, syllable_hz_ = 0;
    double noise_level_ = 0, dc_ = 0;
};

using Reference = std::unique_ptr<WebRtcVadInst, decltype(&WebRtcVad_Free)>;

Reference MakeReference(int mode) {
    Reference ref(WebRtcVad_Create(), &WebRtcVad_Free);
    EXPECT_TRUE(WebRtcVad_Init(ref.get()) == 0 && WebRtcVad_set_mode(ref.get(), mode) == 0);
    return ref;
}

TEST(VadOracle, AgreesWithReferenceInAllModes) {
    constexpr int kBlocks = 100000, kModes = kivbf::vad::kModes;
    std::vector<Reference> refs;
    kivbf::vad::VadDetectorState ours[kModes] = {};
    int16_t block[kBlock], downsampled[kBlock];
    for (int mode = 0; mode < kModes; ++mode) {
        refs.push_back(MakeReference(mode));
        ASSERT_TRUE(kivbf::vad::VadCore_Init(ours[mode]) == 0 && kivbf::vad::VadCore_SetMode(ours[mode], mode) == 0);
        ours[mode].resample_by_two = 1, ours[mode].frame_length = kBlock;
    }

    SignalSource source(20240611u);
    int mismatches[kModes] = {}, speech[kModes] = {};
    for (int b = 0; b < kBlocks; ++b) {
        source.NextBlock(block);
        for (int mode = 0; mode < kModes; ++mode) {
            const int expected = WebRtcVad_CalcVad16khz(refs[mode].get(), block, kBlock);
            kivbf::vad::VadCore_Process(ours[mode], block, downsampled, 7);
            speech[mode] += expected > 0;
            if (expected != ours[mode].decision && mismatches[mode]++ < 5)
                ADD_FAILURE() << "mode " << mode << " block " << b << ": reference " << expected;
        }
    }
    for (int mode = 0; mode < kModes; ++mode) {  // the mix must exercise both decisions
        EXPECT_EQ(mismatches[mode], 0) << "mode " << mode;
        EXPECT_TRUE(speech[mode] > kBlocks / 20 && speech[mode] < kBlocks - kBlocks / 20) << speech[mode];
    }
}

}  // namespace
