// The detector's wrapper (instance, sensitivity, mode, frame handling, messages)
// and the parts of the detector the reference comparison cannot reach on its
// own: refused settings, the hangover of 64-sample frames, silence.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "AudioVadProcess.h"
#include "level_file.h"
#include "support.h"
#include "vad_instance.h"
#include "webrtc/vad_tables.h"
#include "webrtc/webrtc_vad.h"

namespace {

namespace vad = kivbf::vad;

// Runs `call` and returns its code followed by what it printed.
template <typename Call>
std::string Outcome(Call call) {
    kivbf_test::CaptureStart();
    const int32_t code = call();
    return std::to_string(code) + " " + kivbf_test::CaptureStop();
}

const std::string kErr = "[ALGO_MSG_ERR] [VAD] ";

class VadTest : public testing::Test {
protected:
    void SetUp() override { setenv("DML_PATH", "/nonexistent/kivbf_vad_level.json", 1); }

    void *Make(uint32_t rate = 16000, uint32_t channels = 1) {
        const KivVadSetup setup{128, channels, rate};
        return KivVad_Init(memory_, &setup);
    }
    static vad::VadDetectorState &DetectorOf(void *instance) {
        return vad::Detector(*static_cast<vad::KivVadHeader *>(instance));
    }
    // The four threshold rows sit side by side in both the state and the table.
    static bool HasThresholdsOf(void *instance, int mode) {
        return std::memcmp(DetectorOf(instance).overhang_max_short, &vad::kModeRows[mode],
                           sizeof(vad::VadModeRows)) == 0;
    }

    alignas(16) unsigned char memory_[kKivVadInstanceSize];
};

TEST_F(VadTest, InstanceIsOneFixedBlockThatSurvivesACopy) {
    EXPECT_EQ(KivVad_GetBufferSize(), 1600u);
    std::memset(memory_, 0xA5, sizeof memory_);
    void *instance = Make();
    ASSERT_EQ(instance, static_cast<void *>(memory_));
    const unsigned char *reserved = memory_ + sizeof(vad::KivVadHeader);
    for (size_t i = 0; i < vad::kReservedBytes; ++i) ASSERT_EQ(reserved[i], 0) << i;
    const KivVadInit init{100, 0};
    ASSERT_EQ(KivVad_Config(instance, &init), 0);
    ASSERT_EQ(KivVad_SetMode(instance, 1), 0);

    // A byte copy classifies exactly like the original from then on.
    alignas(16) unsigned char copy[kKivVadInstanceSize];
    int16_t block[128];
    uint32_t seed = 5;
    for (int b = 0; b < 400; ++b) {
        if (b == 200) std::memcpy(copy, memory_, sizeof copy);
        for (int16_t &x : block) {
            seed = seed * 1664525u + 1013904223u;
            x = static_cast<int16_t>(static_cast<int32_t>(seed >> 16) - 32768) / ((b / 50) % 2 ? 4 : 512);
        }
        const int32_t original = KivVad_Run(instance, block);
        if (b >= 200) {
            EXPECT_EQ(KivVad_Run(copy, block), original) << b;
        }
    }
}

TEST_F(VadTest, SetUpChecksPointersAndRate) {
    const KivVadSetup setup{128, 1, 16000};
    const std::string refused = "0 " + kErr + "The workingBufferAddress or vad_init is NULL\t\n";
    EXPECT_EQ(Outcome([&] { return KivVad_Init(nullptr, &setup) != nullptr; }), refused);
    EXPECT_EQ(Outcome([&] { return KivVad_Init(memory_, nullptr) != nullptr; }), refused);
    for (uint32_t rate : {16000u, 8000u, 48000u})
        EXPECT_EQ(Outcome([&] { return Make(rate) == memory_; }), "1 ") << rate;

    // A refused rate still hands back the instance, which then cannot classify.
    EXPECT_EQ(Outcome([&] { return Make(44100) == memory_; }),
              "1 " + kErr + "Not support sample rate 44100\n" + kErr + "Handle init ERROR!\t\n");
    EXPECT_EQ(Outcome([&] { return KivVad_SetMode(memory_, 1); }),
              "-1 [ALGO_MSG_ERR] [VAD][mode1] Not support sample rate 0\n");

    // 16 kHz frames are halved before they are classified; 8 kHz ones are not.
    EXPECT_EQ(DetectorOf(Make(16000)).resample_by_two, 1);
    EXPECT_EQ(DetectorOf(Make(16000)).frame_length, 128u);
    EXPECT_EQ(DetectorOf(Make(8000)).resample_by_two, 0);
}

TEST_F(VadTest, SensitivityPicksAggressivenessAndRefusalKeepsIt) {
    void *instance = Make();
    const char *const names[] = {"Low", "mid", "high"};
    const int aggressiveness[] = {3, 2, 1};
    for (uint32_t sensitivity = 0; sensitivity < 3; ++sensitivity) {
        const KivVadInit init{40 + sensitivity, sensitivity};
        EXPECT_EQ(Outcome([&] { return KivVad_Config(instance, &init); }),
                  "0 [ALGO_MSG_MSG] [VAD] Delay frame: " + std::to_string(40 + sensitivity) +
                      "\n[ALGO_MSG_MSG] [VAD] Sensitivity: " + names[sensitivity] + "\n");
        EXPECT_TRUE(HasThresholdsOf(instance, aggressiveness[sensitivity])) << sensitivity;
    }

    // Sensitivity 3: refused after the delay is stored; thresholds stay at "high".
    const KivVadInit bad{77, 3};
    EXPECT_EQ(Outcome([&] { return KivVad_Config(instance, &bad); }),
              "-1 [ALGO_MSG_MSG] [VAD] Delay frame: 77\n" + kErr +
                  "Sensitivity config setting ERROR....\n"
                  "[ALGO_MSG_ERR] [KivVad_Config]The Configuration setting ERROR\t\n");
    EXPECT_EQ(static_cast<vad::KivVadHeader *>(instance)->delay_frames, 77u);
    EXPECT_TRUE(HasThresholdsOf(instance, 1));
    EXPECT_EQ(Outcome([&] { return KivVad_Config(nullptr, &bad); }),
              "-1 [ALGO_MSG_ERR] [KivVad_Config]The VadHandle is NULL\t\n");
}

TEST_F(VadTest, OnlyModeOneIsBuilt) {
    void *instance = Make();
    int16_t loud[128];
    for (int i = 0; i < 128; ++i) loud[i] = static_cast<int16_t>((i % 16 < 8) ? 20000 : -20000);
    // Before any mode is set the instance is in mode 0, which does not classify.
    EXPECT_EQ(Outcome([&] { return KivVad_Run(instance, loud); }),
              "0 " + kErr + "This lib does not include mode 0\t\n");
    EXPECT_EQ(Outcome([&] { return KivVad_Run(nullptr, loud); }),
              "-1 [ALGO_MSG_ERR] [KivVad_Run]The VadHandle is NULL\t\n");

    for (uint32_t mode : {0u, 2u, 3u, 4u, 0xFFFFFFFFu})
        EXPECT_EQ(Outcome([&] { return KivVad_SetMode(instance, mode); }),
                  "-1 " + kErr + (mode < 4 ? "This lib does not include mode " + std::to_string(mode)
                                           : std::string("Mode can only be set to 0~3")) + "\t\n");
    EXPECT_EQ(Outcome([&] { return KivVad_SetMode(nullptr, 1); }),
              "-1 [ALGO_MSG_ERR]  [VAD]The handle is Null!\t\n");
    EXPECT_EQ(Outcome([&] { return KivVad_SetMode(instance, 1); }), "0 [ALGO_MSG_MSG] [VAD] mode = 1\t\n");

    void *wide = Make(48000);
    EXPECT_EQ(Outcome([&] { return KivVad_SetMode(wide, 1); }),
              "-1 [ALGO_MSG_ERR] [VAD][mode1] Not support sample rate 48000\n");
}

TEST_F(VadTest, StereoFramesAreAveragedTowardZero) {
    void *instance = Make(16000, 2);
    const int16_t pairs[][3] = {  // left, right, mono
        {32767, 32767, 32767}, {-3, 0, -1}, {3, 0, 1}, {-32768, -32768, -32768},
        {-32768, 32767, 0}, {-1, 0, 0}, {101, -104, -1}};
    int16_t stereo[256] = {};
    for (size_t i = 0; i < std::size(pairs); ++i) std::memcpy(&stereo[2 * i], pairs[i], 4);
    Outcome([&] { return KivVad_Run(instance, stereo); });
    const int16_t *mono = vad::MonoFrame(*static_cast<vad::KivVadHeader *>(instance));
    for (size_t i = 0; i < std::size(pairs); ++i) EXPECT_EQ(mono[i], pairs[i][2]) << i;
}

TEST_F(VadTest, MessagesFollowTheLevelFile) {
    kivbf_test::SetMessageLevel(1);
    const KivVadInit init{100, 1};
    EXPECT_EQ(Outcome([&] {
                  KivVad_Config(Make(44100), &init);
                  KivVad_Config(Make(16000), &init);
                  return KivVad_SetMode(memory_, 1);
              }),
              "0 " + kErr + "Not support sample rate 44100\n" + kErr + "Handle init ERROR!\t\n");
}

// --- The detector itself -----------------------------------------------------------

class VadDetectorTest : public testing::Test {
protected:
    void Start(int mode) {
        ASSERT_EQ(vad::VadCore_Init(s_), 0);
        ASSERT_EQ(vad::VadCore_SetMode(s_, mode), 0);
        s_.resample_by_two = 1;
        s_.frame_length = 128;
    }
    int32_t Silence() { return vad::VadCore_Process(s_, zeros_, downsampled_, 7); }

    vad::VadDetectorState s_{};
    int16_t zeros_[128]{}, downsampled_[128]{};
};

TEST_F(VadDetectorTest, SilenceOnlyCountsDownTheHangover) {
    Start(0);
    for (int i = 0; i < 20; ++i) ASSERT_EQ(Silence(), 0) << i;
    EXPECT_EQ(s_.frame_counter, 0);  // nothing to adapt on

    // Band energies at the speech model's means: a clear speech frame.
    int16_t speech[vad::kBands];
    for (int b = 0; b < vad::kBands; ++b) speech[b] = static_cast<int16_t>(vad::kSpeechDataMeans[b] / 8);
    const struct { int mode, run, held; } cases[] = {
        {0, 3, 3}, {0, 7, 5}, {1, 6, 3}, {1, 9, 5}, {2, 1, 2}, {2, 7, 3}, {3, 6, 2}, {3, 8, 3}};
    for (const auto &c : cases) {
        Start(c.mode);
        for (int i = 0; i < c.run; ++i) ASSERT_EQ(vad::GmmProbability(s_, speech, 1000, 64, 7), 1) << i;
        int held = 0;
        while (Silence() == 1) ++held;
        EXPECT_EQ(held, c.held) << "mode " << c.mode << " run " << c.run;
        EXPECT_EQ(s_.hangover, 0);
        EXPECT_EQ(Silence(), 0);
    }
}

TEST_F(VadDetectorTest, RefusedSettingsChangeNothing) {
    EXPECT_EQ(Silence(), -1);  // never initialised
    Start(2);
    const vad::VadDetectorState before = s_;
    EXPECT_EQ(vad::VadCore_SetMode(s_, 4), -1);
    EXPECT_EQ(vad::VadCore_SetMode(s_, -1), -1);
    EXPECT_EQ(std::memcmp(&before, &s_, sizeof s_), 0);
    s_.frame_length = 256;  // longer than the frame buffers
    EXPECT_EQ(Silence(), -1);
}

}  // namespace
