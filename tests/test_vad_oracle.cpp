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
#include <cstdio>
#include <memory>
#include <vector>

#include "AudioVadProcess.h"
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

using kivbf::vad::VadDetectorState;

constexpr size_t kBlock = 128;
constexpr double kRate = 16000.0;
constexpr double kTwoPi = 6.283185307179586;

class Lcg {
public:
    explicit Lcg(uint32_t seed) : state_(seed) {}
    uint32_t Next() {
        state_ = state_ * 1664525u + 1013904223u;
        return state_;
    }
    double Uniform() { return (Next() >> 8) * (1.0 / 16777216.0); }  // [0, 1)
    double Range(double lo, double hi) { return lo + (hi - lo) * Uniform(); }
    double Noise() { return 2.0 * Uniform() - 1.0; }  // [-1, 1)

private:
    uint32_t state_;
};

int16_t ToPcm(double v) {
    if (v >= 32767.0) return 32767;
    if (v <= -32768.0) return -32768;
    return static_cast<int16_t>(std::lround(v));
}

// Segments of test material, each a few dozen to a few hundred blocks long.
enum class Kind { Silence, LowNoise, Noise, ClippedNoise, Tone, Chirp, Speech, NoisySpeech, Sweep, Square };
constexpr int kKinds = 10;

class SignalSource {
public:
    explicit SignalSource(uint32_t seed) : rng_(seed) { StartSegment(); }

    void NextBlock(int16_t *out) {
        if (remaining_ == 0) StartSegment();
        for (size_t i = 0; i < kBlock; ++i) out[i] = ToPcm(Sample());
        --remaining_;
    }

private:
    void StartSegment() {
        kind_ = static_cast<Kind>(rng_.Next() % kKinds);
        remaining_ = 30 + rng_.Next() % 300;
        length_ = remaining_ * kBlock;
        t_ = 0;
        level_ = std::pow(10.0, rng_.Range(-1.0, 4.6));  // about 0.1 .. 40000
        f0_ = rng_.Range(40.0, 7900.0);
        f1_ = rng_.Range(40.0, 7900.0);
        pitch_ = rng_.Range(90.0, 320.0);
        syllable_hz_ = rng_.Range(2.5, 7.0);
        noise_level_ = level_ * std::pow(10.0, rng_.Range(-3.0, 0.0));
        dc_ = rng_.Uniform() < 0.2 ? rng_.Range(-2000.0, 2000.0) : 0.0;
        phase_ = 0.0;
        harmonics_ = 0;
        for (int h = 1; h * pitch_ < 7500.0 && h <= kMaxHarmonics; ++h) {
            const double f = h * pitch_;
            harmonic_gain_[harmonics_++] = 1.0 / (1.0 + std::pow((f - 700.0) / 300.0, 2)) +
                                           0.5 / (1.0 + std::pow((f - 1800.0) / 400.0, 2)) + 0.05;
        }
    }

    // Harmonics of the pitch shaped by two formant-like peaks, switched on and
    // off at a syllable rate.
    double Voiced(double time) {
        const double envelope = std::max(0.0, std::sin(kTwoPi * syllable_hz_ * time));
        if (envelope == 0.0) return 0.0;
        const double pitch = pitch_ * (1.0 + 0.05 * std::sin(kTwoPi * 1.3 * time));
        phase_ += kTwoPi * pitch / kRate;
        double v = 0.0;
        for (int h = 0; h < harmonics_; ++h) v += harmonic_gain_[h] * std::sin((h + 1) * phase_);
        return envelope * envelope * v;
    }

    double Sample() {
        const double time = t_ / kRate;
        const double progress = static_cast<double>(t_) / static_cast<double>(length_);
        ++t_;
        switch (kind_) {
        case Kind::Silence: return 0.0;
        case Kind::LowNoise: return std::min(level_, 64.0) * rng_.Noise();
        case Kind::Noise: return dc_ + level_ * rng_.Noise();
        case Kind::ClippedNoise: return 80000.0 * rng_.Noise();
        case Kind::Tone: return dc_ + level_ * std::sin(kTwoPi * f0_ * time);
        case Kind::Chirp: {
            phase_ += kTwoPi * (f0_ + (f1_ - f0_) * progress) / kRate;
            return level_ * std::sin(phase_);
        }
        case Kind::Speech: return level_ * 0.4 * Voiced(time);
        case Kind::NoisySpeech: return level_ * 0.4 * Voiced(time) + noise_level_ * rng_.Noise();
        case Kind::Sweep: {
            const double gain = std::pow(10.0, -4.5 + 5.0 * progress);  // -90 dB .. +10 dB of full scale
            return 32768.0 * gain * (rng_.Uniform() < 0.5 ? rng_.Noise() : std::sin(kTwoPi * f0_ * time));
        }
        case Kind::Square: return level_ * (std::sin(kTwoPi * f0_ * time) >= 0.0 ? 1.0 : -1.0);
        }
        return 0.0;
    }

    Lcg rng_;
    Kind kind_ = Kind::Silence;
    uint32_t remaining_ = 0;
    uint32_t length_ = 1;
    uint64_t t_ = 0;
    double level_ = 0, f0_ = 0, f1_ = 0, pitch_ = 0, syllable_hz_ = 0, noise_level_ = 0, dc_ = 0;
    double phase_ = 0;
    static constexpr int kMaxHarmonics = 30;
    double harmonic_gain_[kMaxHarmonics] = {};  // formant shaping at the segment's base pitch
    int harmonics_ = 0;
};

struct Reference {
    WebRtcVadInst *inst = WebRtcVad_Create();
    explicit Reference(int mode) {
        EXPECT_EQ(WebRtcVad_Init(inst), 0);
        EXPECT_EQ(WebRtcVad_set_mode(inst, mode), 0);
    }
    ~Reference() { WebRtcVad_Free(inst); }
    Reference(const Reference &) = delete;
    Reference &operator=(const Reference &) = delete;
    int Classify(const int16_t *block) { return WebRtcVad_CalcVad16khz(inst, block, kBlock); }
};

struct Detector {
    VadDetectorState state{};
    int16_t downsampled[kBlock]{};
    explicit Detector(int mode) {
        EXPECT_EQ(kivbf::vad::VadCore_Init(state), 0);
        EXPECT_EQ(kivbf::vad::VadCore_SetMode(state, mode), 0);
        state.resample_by_two = 1;
        state.frame_length = kBlock;
    }
    int Classify(const int16_t *block) {
        kivbf::vad::VadCore_Process(state, block, downsampled, 7);
        return state.decision;
    }
};

TEST(VadOracle, AgreesWithReferenceInAllModes) {
    constexpr int kBlocks = 100000;
    std::vector<Detector> ours;
    std::vector<std::unique_ptr<Reference>> refs;
    for (int mode = 0; mode < kivbf::vad::kModes; ++mode) {
        ours.emplace_back(mode);
        refs.push_back(std::make_unique<Reference>(mode));
    }

    SignalSource source(20240611u);
    int16_t block[kBlock];
    int mismatches[4] = {};
    int speech[4] = {};
    for (int b = 0; b < kBlocks; ++b) {
        source.NextBlock(block);
        for (int mode = 0; mode < kivbf::vad::kModes; ++mode) {
            const int expected = refs[mode]->Classify(block);
            const int actual = ours[mode].Classify(block);
            if (expected > 0) ++speech[mode];
            if (expected != actual && mismatches[mode]++ < 5) {
                ADD_FAILURE() << "mode " << mode << " block " << b << ": reference " << expected
                              << ", detector " << actual;
            }
        }
    }
    for (int mode = 0; mode < kivbf::vad::kModes; ++mode) {
        EXPECT_EQ(mismatches[mode], 0) << "mode " << mode;
        std::printf("mode %d: %d blocks, %d mismatches, speech fraction %.3f\n", mode, kBlocks,
                    mismatches[mode], static_cast<double>(speech[mode]) / kBlocks);
        // A material mix this varied must exercise both decisions.
        EXPECT_GT(speech[mode], kBlocks / 20);
        EXPECT_LT(speech[mode], kBlocks - kBlocks / 20);
    }
}

// The wrapper's sensitivities drive the same detector as aggressiveness 3, 2, 1.
TEST(VadOracle, WrapperSensitivitiesMatchReferenceModes) {
    constexpr int kBlocks = 5000;
    constexpr int kModeOfSensitivity[] = {3, 2, 1};
    for (uint32_t sensitivity = 0; sensitivity < 3; ++sensitivity) {
        alignas(16) unsigned char memory[kKivVadInstanceSize];
        const KivVadSetup setup{128, 1, 16000};
        void *vad = KivVad_Init(memory, &setup);
        const KivVadInit init{100, sensitivity};
        ASSERT_EQ(KivVad_Config(vad, &init), 0);
        ASSERT_EQ(KivVad_SetMode(vad, 1), 0);
        Reference ref(kModeOfSensitivity[sensitivity]);

        SignalSource source(777u + sensitivity);
        int16_t block[kBlock];
        int mismatches = 0;
        for (int b = 0; b < kBlocks; ++b) {
            source.NextBlock(block);
            const int expected = ref.Classify(block) > 0 ? 1 : 0;
            if (KivVad_Run(vad, block) != expected) ++mismatches;
        }
        EXPECT_EQ(mismatches, 0) << "sensitivity " << sensitivity;
    }
}

}  // namespace
