// The enhanced mode (kivbf_ext.h): its switch and codes, that it leaves the
// operating modes as they were, that it recovers from hostile input, and
// that it gains on a simple scene.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "AudioBfProcess.h"
#include "kivbf_ext.h"
#include "support.h"

using namespace kivbf_test;

namespace {

constexpr int kHop = 128;
constexpr uint32_t kRate = 16000;
constexpr float kSpacingCm = 4.2875f;  // end-fire lag of two samples at 16 kHz

// Deterministic noise in [-1, 1).
struct Lcg {
    uint32_t state;
    float Next() {
        state = state * 1664525u + 1013904223u;
        return static_cast<float>(state >> 8) / 8388608.0f - 1.0f;
    }
};

// A voiced, syllable-gated tone complex: a stand-in for a talker.
std::vector<float> Voice(size_t samples, float f0, float syllable_hz, uint32_t seed) {
    std::vector<float> x(samples);
    Lcg noise{seed};
    double phase = 0.0;
    for (size_t n = 0; n < samples; ++n) {
        const double t = static_cast<double>(n) / kRate;
        const double pitch = f0 * (1.0 + 0.15 * std::sin(2.0 * M_PI * 0.7 * t));
        phase += 2.0 * M_PI * pitch / kRate;
        double v = 0.0;
        for (int h = 1; h <= 12; ++h) v += std::sin(h * phase) / h;
        const double gate = std::sin(M_PI * syllable_hz * t);
        x[n] = static_cast<float>(gate * gate * (v + 0.1 * noise.Next()));
    }
    return x;
}

// Two-channel 16-bit scene: the talker at broadside, a talker-like
// interferer at end-fire (two samples earlier at microphone 0) scaled by
// `interferer_gain`, with
// `reflections` random late arrivals per source and microphone, and
// independent noise of `hiss` peak at each microphone.
std::vector<int16_t> Scene(size_t samples, int reflections, float interferer_gain = 1.0f, float hiss = 0.002f) {
    const std::vector<float> talker = Voice(samples, 130.0f, 3.1f, 1);
    const std::vector<float> other = Voice(samples, 210.0f, 2.3f, 2);
    std::vector<float> mic[2] = {std::vector<float>(samples), std::vector<float>(samples)};
    Lcg random{7};
    for (int m = 0; m < 2; ++m) {
        const std::vector<float> *sources[2] = {&talker, &other};
        for (int src = 0; src < 2; ++src) {
            const size_t direct = src == 0 ? 0 : (m == 0 ? 0 : 2);
            std::vector<std::pair<size_t, float>> taps = {{direct, src == 0 ? 1.0f : interferer_gain}};
            for (int r = 0; r < reflections; ++r) {
                const size_t lag = 20 + static_cast<size_t>((random.Next() + 1.0f) * 2400.0f);
                taps.push_back({lag, 0.5f * random.Next() * std::exp(-static_cast<float>(lag) / 800.0f)});
            }
            for (const auto &[lag, gain] : taps)
                for (size_t n = lag; n < samples; ++n) mic[m][n] += gain * (*sources[src])[n - lag];
        }
        for (float &v : mic[m]) v += hiss * random.Next();
    }
    std::vector<int16_t> pcm(2 * samples);
    for (size_t n = 0; n < samples; ++n)
        for (int m = 0; m < 2; ++m) pcm[2 * n + m] = static_cast<int16_t>(std::lrint(mic[m][n] * 3000.0f));
    return pcm;
}

class Handle {
public:
    explicit Handle(uint32_t mode = 1) : h_(MakeConfiguredHandle(buffer_, 0, kRate, kSpacingCm)) {
        EXPECT_EQ(KivBf_SetMode(h_, mode, 0.0f), KIVBF_OK);
    }
    AudioBfHandle get() const { return h_; }

private:
    WorkingBuffer buffer_;
    AudioBfHandle h_;
};

}  // namespace

TEST(Enhanced, SwitchCodesAndOffByDefault) {
    WorkingBuffer buffer;
    const AudioBfInit init = DefaultInit();
    AudioBfHandle h = KivBf_Init(buffer.data(), &init);
    ASSERT_NE(h, nullptr);
    uint32_t enabled = 7;
    EXPECT_EQ(KivBfExt_GetEnhancedMode(h, &enabled), KIVBF_OK);
    EXPECT_EQ(enabled, 0u);
    EXPECT_EQ(KivBfExt_SetEnhancedMode(h, 1), KIVBF_ERR_PREREQUISITE);  // before SetConfig
    EXPECT_EQ(KivBfExt_SetEnhancedMode(nullptr, 1), KIVBF_ERR_HANDLE);
    EXPECT_EQ(KivBfExt_GetEnhancedMode(h, nullptr), KIVBF_ERR_NULL_POINTER);

    Handle a, b;
    for (uint32_t bad : {2u, 3u, 0xFFFFFFFFu})
        EXPECT_EQ(KivBfExt_SetEnhancedMode(a.get(), bad), KIVBFEXT_ERR_ENHANCED_SWITCH);
    EXPECT_EQ(KivBfExt_SetEnhancedMode(a.get(), 0), KIVBF_OK);  // off stays bit-exact
    const std::vector<int16_t> pcm = Scene(kHop * 200, 30);
    EXPECT_EQ(RunStream(a.get(), pcm), RunStream(b.get(), pcm));

    // SetMode's refused mode 4 is not a successful SetMode: the mode stays on.
    EXPECT_EQ(KivBfExt_SetEnhancedMode(a.get(), 1), KIVBF_OK);
    EXPECT_EQ(KivBf_SetMode(a.get(), 4, 0.0f), KIVBF_ERR_MODE);
    EXPECT_EQ(KivBfExt_GetEnhancedMode(a.get(), &enabled), KIVBF_OK);
    EXPECT_EQ(enabled, 1u);
    EXPECT_EQ(KivBf_SetMode(a.get(), 1, 0.0f), KIVBF_OK);
    EXPECT_EQ(KivBfExt_GetEnhancedMode(a.get(), &enabled), KIVBF_OK);
    EXPECT_EQ(enabled, 0u);
}

// After SetMode the handle runs the new mode exactly as one that never ran
// the enhanced mode, from the first block whose frame lies after the switch.
TEST(Enhanced, SetModeLeavesTheChosenModeAsAlways) {
    const std::vector<int16_t> pcm = Scene(kHop * 500, 30);
    const size_t before = 300;
    for (uint32_t mode : {0u, 2u, 3u}) {
        Handle enhanced, plain;
        ASSERT_EQ(KivBfExt_SetEnhancedMode(enhanced.get(), 1), KIVBF_OK);
        const auto split = pcm.begin() + 2 * kHop * before;
        const std::vector<int16_t> head(pcm.begin(), split), tail(split, pcm.end());
        EXPECT_NE(RunStream(enhanced.get(), head), RunStream(plain.get(), head));
        ASSERT_EQ(KivBf_SetMode(enhanced.get(), mode, 0.0f), KIVBF_OK);
        ASSERT_EQ(KivBf_SetMode(plain.get(), mode, 0.0f), KIVBF_OK);
        const std::vector<int16_t> out_e = RunStream(enhanced.get(), tail), out_p = RunStream(plain.get(), tail);
        EXPECT_TRUE(std::equal(out_e.begin() + kHop, out_e.end(), out_p.begin() + kHop)) << "mode " << mode;
    }
}

// Three minutes of hostile input, then 16 s of a reverberant scene: over the
// scene's last 8 s the output is within -20 dB of a fresh handle's. Also
// under a loud hiss, where the talker rarely dominates a bin and whatever
// the hostile input taught the mode is seldom corrected by evidence.
TEST(Enhanced, KeepsItsFootingAfterHostileInput) {
    const size_t segment = kRate * 30;  // six kinds of 30 s
    std::vector<int16_t> hostile(2 * 6 * segment);
    Lcg random{11};
    for (size_t n = 0; n < segment; ++n) {
        const int16_t square = (n / 64) % 2 ? 32767 : -32768;
        const int16_t alternating = n % 2 ? 32767 : -32768;
        const int16_t spike = n % 1000 == 0 ? 32767 : 0;
        const int16_t speech_like = static_cast<int16_t>(8000.0f * random.Next());
        const int16_t rows[6][2] = {{square, square},       {32767, -32768}, {alternating, alternating},
                                    {spike, spike},         {speech_like, 0}, {0, 0}};
        for (int kind = 0; kind < 6; ++kind)
            for (int m = 0; m < 2; ++m) hostile[2 * (kind * segment + n) + m] = rows[kind][m];
    }
    for (float hiss : {0.002f, 0.3f}) {
        const std::vector<int16_t> scene = Scene(kRate * 16, 60, 1.0f, hiss);
        Handle survivor, fresh;
        ASSERT_EQ(KivBfExt_SetEnhancedMode(survivor.get(), 1), KIVBF_OK);
        ASSERT_EQ(KivBfExt_SetEnhancedMode(fresh.get(), 1), KIVBF_OK);
        RunStream(survivor.get(), hostile);
        const std::vector<int16_t> out_s = RunStream(survivor.get(), scene), out_f = RunStream(fresh.get(), scene);
        ASSERT_EQ(out_s.size(), out_f.size());
        const size_t from = out_f.size() / 2;
        double difference = 0.0, energy = 0.0;
        for (size_t i = from; i < out_f.size(); ++i) {
            const double d = static_cast<double>(out_s[i]) - out_f[i];
            difference += d * d;
            energy += static_cast<double>(out_f[i]) * out_f[i];
        }
        const double db = 10.0 * std::log10(difference / energy + 1e-30);
        EXPECT_LT(db, -20.0) << "hiss " << hiss;
    }
}

// Anechoic, talker at broadside, a talker-like interferer at end-fire 6 dB
// below it. The talker is dry and leaves evidence enough for the mode to see
// it: about 10 dB of SI-SDR gain, where the beam made for a reverberant
// talker gives about 4; the limit sits well above the latter (the figures on
// rooms come from kivbf eval).
TEST(Enhanced, GainsOnAnAnechoicScene) {
    const size_t samples = kRate * 8;
    const std::vector<int16_t> pcm = Scene(samples, 0, 0.5f);
    const std::vector<float> talker = Voice(samples, 130.0f, 3.1f, 1);
    Handle h;
    ASSERT_EQ(KivBfExt_SetEnhancedMode(h.get(), 1), KIVBF_OK);
    const std::vector<int16_t> out = RunStream(h.get(), pcm);
    // SI-SDR against the talker over the second half (the output lags one block).
    auto si_sdr = [&](auto sample) {
        double tt = 0.0, ty = 0.0, yy = 0.0;
        for (size_t n = samples / 2; n + kHop < out.size(); ++n) {
            const double y = sample(n), t = talker[n];
            tt += t * t;
            ty += t * y;
            yy += y * y;
        }
        const double target = ty * ty / tt;
        return 10.0 * std::log10(target / (yy - target));
    };
    const double in = si_sdr([&](size_t n) { return static_cast<double>(pcm[2 * n]); });
    const double outcome = si_sdr([&](size_t n) { return static_cast<double>(out[n + kHop]); });
    EXPECT_GT(outcome - in, 9.0) << "in " << in << " dB, out " << outcome << " dB";
}
