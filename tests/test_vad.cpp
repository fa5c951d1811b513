// The detector's wrapper (instance, sensitivity, mode, frame handling, messages)
// and the hangover of 64-sample frames, which the reference comparison only
// reaches through whatever material it happens to generate.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "AudioVadProcess.h"
#include "support.h"
#include "vad_instance.h"
#include "webrtc/vad_tables.h"
#include "webrtc/webrtc_vad.h"

namespace {

namespace vad = kivbf::vad;

const std::string kErr = "[ALGO_MSG_ERR] [VAD] ";

class VadTest : public testing::Test {
protected:
    void *Make(uint32_t rate = 16000, uint32_t channels = 1) {
        const KivVadSetup setup{128, channels, rate};
        return KivVad_Init(memory_, &setup);
    }
    // Runs `call` and returns its code followed by what it printed.
    static std::string Outcome(const std::function<int32_t()> &call) {
        int32_t code = 0;
        const std::string printed = kivbf_test::Captured([&] { code = call(); });
        return std::to_string(code) + " " + printed;
    }
    // The four threshold rows sit side by side in both the state and the table.
    static bool HasThresholdsOf(void *instance, int mode) {
        return std::memcmp(vad::Detector(*static_cast<vad::KivVadHeader *>(instance)).overhang_max_short,
                           &vad::kModeRows[mode], sizeof(vad::VadModeRows)) == 0;
    }

    alignas(16) unsigned char memory_[kKivVadInstanceSize];
};

TEST_F(VadTest, CallsReportTheirRefusals) {
    void *instance = Make();
    const KivVadInit init{100, 1};
    const int16_t block[128] = {};
    const struct { std::function<int32_t()> call; std::string outcome; } cases[] = {
        {[&] { return static_cast<int32_t>(KivVad_GetBufferSize()); }, "1600 "},
        {[&] { return KivVad_Init(memory_, nullptr) != nullptr; },
         "0 " + kErr + "The workingBufferAddress or vad_init is NULL\t\n"},
        {[&] { return KivVad_Config(nullptr, &init); }, "-1 [ALGO_MSG_ERR] [KivVad_Config]The VadHandle is NULL\t\n"},
        // Before any mode is set the instance is in mode 0, which does not classify.
        {[&] { return KivVad_Run(instance, block); }, "0 " + kErr + "This lib does not include mode 0\t\n"},
        {[&] { return KivVad_Run(nullptr, block); }, "-1 [ALGO_MSG_ERR] [KivVad_Run]The VadHandle is NULL\t\n"},
        {[&] { return KivVad_SetMode(instance, 0); }, "-1 " + kErr + "This lib does not include mode 0\t\n"},
        {[&] { return KivVad_SetMode(instance, 2); }, "-1 " + kErr + "This lib does not include mode 2\t\n"},
        {[&] { return KivVad_SetMode(instance, 0xFFFFFFFFu); }, "-1 " + kErr + "Mode can only be set to 0~3\t\n"},
        {[&] { return KivVad_SetMode(nullptr, 1); }, "-1 [ALGO_MSG_ERR]  [VAD]The handle is Null!\t\n"},
        {[&] { return KivVad_SetMode(instance, 1); }, "0 [ALGO_MSG_MSG] [VAD] mode = 1\t\n"},
        {[&] { return KivVad_SetMode(Make(48000), 1); },
         "-1 [ALGO_MSG_ERR] [VAD][mode1] Not support sample rate 48000\n"},
        // A refused rate still hands back the instance, which then cannot classify.
        {[&] { return Make(44100) == memory_; },
         "1 " + kErr + "Not support sample rate 44100\n" + kErr + "Handle init ERROR!\t\n"},
        {[&] { return KivVad_SetMode(memory_, 1); }, "-1 [ALGO_MSG_ERR] [VAD][mode1] Not support sample rate 0\n"},
    };
    for (const auto &c : cases) EXPECT_EQ(Outcome(c.call), c.outcome);
}

TEST_F(VadTest, SensitivityPicksAggressivenessAndRefusalKeepsIt) {
    void *instance = Make();
    const char *const names[] = {"Low", "mid", "high"};
    for (uint32_t sensitivity = 0; sensitivity < 3; ++sensitivity) {
        const KivVadInit init{40 + sensitivity, sensitivity};
        EXPECT_EQ(Outcome([&] { return KivVad_Config(instance, &init); }),
                  "0 [ALGO_MSG_MSG] [VAD] Delay frame: " + std::to_string(40 + sensitivity) +
                      "\n[ALGO_MSG_MSG] [VAD] Sensitivity: " + names[sensitivity] + "\n");
        EXPECT_TRUE(HasThresholdsOf(instance, 3 - static_cast<int>(sensitivity))) << sensitivity;
    }

    // Sensitivity 3: refused after the delay is stored; thresholds stay at "high".
    const KivVadInit bad{77, 3};
    EXPECT_EQ(Outcome([&] { return KivVad_Config(instance, &bad); }),
              "-1 [ALGO_MSG_MSG] [VAD] Delay frame: 77\n" + kErr +
                  "Sensitivity config setting ERROR....\n"
                  "[ALGO_MSG_ERR] [KivVad_Config]The Configuration setting ERROR\t\n");
    EXPECT_EQ(static_cast<vad::KivVadHeader *>(instance)->delay_frames, 77u);
    EXPECT_TRUE(HasThresholdsOf(instance, 1));
}

TEST_F(VadTest, StereoFramesAreAveragedTowardZero) {
    void *instance = Make(16000, 2);
    const int16_t pairs[][3] = {{32767, 32767, 32767}, {-3, 0, -1}, {3, 0, 1},  // left, right, mono
                                {-32768, -32768, -32768}, {-32768, 32767, 0}, {-1, 0, 0}, {101, -104, -1}};
    int16_t stereo[256] = {};
    for (size_t i = 0; i < std::size(pairs); ++i) std::memcpy(&stereo[2 * i], pairs[i], 4);
    Outcome([&] { return KivVad_Run(instance, stereo); });
    const int16_t *mono = vad::MonoFrame(*static_cast<vad::KivVadHeader *>(instance));
    for (size_t i = 0; i < std::size(pairs); ++i) EXPECT_EQ(mono[i], pairs[i][2]) << i;
}

TEST(VadDetector, SpeechIsHeldForTheModesHangover) {
    vad::VadDetectorState s{};
    int16_t zeros[128] = {}, downsampled[128];
    // Band energies at the speech model's means: a clear speech frame.
    int16_t speech[vad::kBands];
    for (int b = 0; b < vad::kBands; ++b) speech[b] = static_cast<int16_t>(vad::kSpeechDataMeans[b] / 8);
    const struct { int mode, run, held; } cases[] = {
        {0, 3, 3}, {0, 7, 5}, {1, 6, 3}, {1, 9, 5}, {2, 1, 2}, {2, 7, 3}, {3, 6, 2}, {3, 8, 3}};
    for (const auto &c : cases) {
        ASSERT_TRUE(vad::VadCore_Init(s) == 0 && vad::VadCore_SetMode(s, c.mode) == 0);
        s.resample_by_two = 1, s.frame_length = 128;
        for (int i = 0; i < c.run; ++i) ASSERT_EQ(vad::GmmProbability(s, speech, 1000, 64, 7), 1) << i;
        int held = 0;
        while (vad::VadCore_Process(s, zeros, downsampled, 7) == 1) ++held;
        EXPECT_EQ(held, c.held) << "mode " << c.mode << " run " << c.run;
        EXPECT_EQ(vad::VadCore_Process(s, zeros, downsampled, 7), 0);
    }
}

}  // namespace
