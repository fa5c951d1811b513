// The detector's wrapper (instance, sensitivity, mode, frame handling, messages)
// and the parts of the detector the reference comparison cannot reach on its
// own: refused settings, the hangover of 64-sample frames, silence.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "AudioVadProcess.h"
#include "support.h"
#include "vad_instance.h"
#include "webrtc/vad_tables.h"
#include "webrtc/webrtc_vad.h"

namespace {

using kivbf::vad::KivVadHeader;
using kivbf::vad::VadDetectorState;
using kivbf_test::CaptureStart;
using kivbf_test::CaptureStop;

class VadTest : public testing::Test {
protected:
    void SetUp() override { setenv("DML_PATH", "/nonexistent/kivbf_vad_level.json", 1); }

    void *Make(uint32_t rate = 16000, uint32_t channels = 1) {
        const KivVadSetup setup{128, channels, rate};
        return KivVad_Init(memory_, &setup);
    }
    static VadDetectorState &DetectorOf(void *vad) {
        return kivbf::vad::Detector(*static_cast<KivVadHeader *>(vad));
    }
    // The four threshold rows sit side by side in both the state and the table.
    static bool HasThresholdsOf(void *vad, int mode) {
        return std::memcmp(DetectorOf(vad).overhang_max_short, &kivbf::vad::kModeRows[mode],
                           sizeof(kivbf::vad::VadModeRows)) == 0;
    }

    alignas(16) unsigned char memory_[kKivVadInstanceSize];
};

TEST_F(VadTest, InstanceIsOneFixedBlockThatSurvivesACopy) {
    EXPECT_EQ(KivVad_GetBufferSize(), 1600u);
    std::memset(memory_, 0xA5, sizeof memory_);
    void *vad = Make();
    ASSERT_EQ(vad, static_cast<void *>(memory_));
    const unsigned char *reserved = memory_ + sizeof(KivVadHeader);
    for (size_t i = 0; i < kivbf::vad::kReservedBytes; ++i) ASSERT_EQ(reserved[i], 0) << i;
    const KivVadInit init{100, 0};
    ASSERT_EQ(KivVad_Config(vad, &init), 0);
    ASSERT_EQ(KivVad_SetMode(vad, 1), 0);

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
        const int32_t original = KivVad_Run(vad, block);
        if (b >= 200) {
            EXPECT_EQ(KivVad_Run(copy, block), original) << b;
        }
    }
}

TEST_F(VadTest, SetUpChecksPointersAndRate) {
    const KivVadSetup setup{128, 1, 16000};
    CaptureStart();
    EXPECT_EQ(KivVad_Init(nullptr, &setup), nullptr);
    EXPECT_EQ(KivVad_Init(memory_, nullptr), nullptr);
    EXPECT_EQ(CaptureStop(),
              "[ALGO_MSG_ERR] [VAD] The workingBufferAddress or vad_init is NULL\t\n"
              "[ALGO_MSG_ERR] [VAD] The workingBufferAddress or vad_init is NULL\t\n");

    CaptureStart();
    EXPECT_EQ(Make(16000), static_cast<void *>(memory_));
    EXPECT_EQ(Make(8000), static_cast<void *>(memory_));
    EXPECT_EQ(Make(48000), static_cast<void *>(memory_));
    EXPECT_EQ(CaptureStop(), "");

    // A refused rate still hands back the instance, which then cannot classify.
    CaptureStart();
    void *vad = Make(44100);
    EXPECT_EQ(vad, static_cast<void *>(memory_));
    EXPECT_EQ(KivVad_SetMode(vad, 1), -1);
    EXPECT_EQ(CaptureStop(),
              "[ALGO_MSG_ERR] [VAD] Not support sample rate 44100\n"
              "[ALGO_MSG_ERR] [VAD] Handle init ERROR!\t\n"
              "[ALGO_MSG_ERR] [VAD][mode1] Not support sample rate 0\n");

    // 16 kHz frames are halved before they are classified; 8 kHz ones are not.
    EXPECT_EQ(DetectorOf(Make(16000)).resample_by_two, 1);
    EXPECT_EQ(DetectorOf(Make(16000)).frame_length, 128u);
    EXPECT_EQ(DetectorOf(Make(8000)).resample_by_two, 0);
}

TEST_F(VadTest, SensitivityPicksAggressivenessAndRefusalKeepsIt) {
    void *vad = Make();
    const char *const names[] = {"Low", "mid", "high"};
    const int aggressiveness[] = {3, 2, 1};
    for (uint32_t sensitivity = 0; sensitivity < 3; ++sensitivity) {
        const KivVadInit init{40 + sensitivity, sensitivity};
        CaptureStart();
        EXPECT_EQ(KivVad_Config(vad, &init), 0);
        EXPECT_EQ(CaptureStop(), "[ALGO_MSG_MSG] [VAD] Delay frame: " + std::to_string(40 + sensitivity) +
                                     "\n[ALGO_MSG_MSG] [VAD] Sensitivity: " + names[sensitivity] + "\n");
        EXPECT_TRUE(HasThresholdsOf(vad, aggressiveness[sensitivity])) << sensitivity;
    }

    // Sensitivity 3: refused after the delay is stored; thresholds stay at "high".
    const KivVadInit bad{77, 3};
    CaptureStart();
    EXPECT_EQ(KivVad_Config(vad, &bad), -1);
    EXPECT_EQ(CaptureStop(),
              "[ALGO_MSG_MSG] [VAD] Delay frame: 77\n"
              "[ALGO_MSG_ERR] [VAD] Sensitivity config setting ERROR....\n"
              "[ALGO_MSG_ERR] [KivVad_Config]The Configuration setting ERROR\t\n");
    EXPECT_EQ(static_cast<KivVadHeader *>(vad)->delay_frames, 77u);
    EXPECT_TRUE(HasThresholdsOf(vad, 1));

    CaptureStart();
    EXPECT_EQ(KivVad_Config(nullptr, &bad), -1);
    EXPECT_EQ(CaptureStop(), "[ALGO_MSG_ERR] [KivVad_Config]The VadHandle is NULL\t\n");
}

TEST_F(VadTest, OnlyModeOneIsBuilt) {
    void *vad = Make();
    // Before any mode is set the instance is in mode 0, which does not classify.
    int16_t loud[128];
    for (int i = 0; i < 128; ++i) loud[i] = static_cast<int16_t>((i % 16 < 8) ? 20000 : -20000);
    CaptureStart();
    EXPECT_EQ(KivVad_Run(vad, loud), 0);
    EXPECT_EQ(KivVad_Run(nullptr, loud), -1);
    EXPECT_EQ(CaptureStop(),
              "[ALGO_MSG_ERR] [VAD] This lib does not include mode 0\t\n"
              "[ALGO_MSG_ERR] [KivVad_Run]The VadHandle is NULL\t\n");

    for (uint32_t mode : {0u, 2u, 3u}) {
        CaptureStart();
        EXPECT_EQ(KivVad_SetMode(vad, mode), -1);
        EXPECT_EQ(CaptureStop(),
                  "[ALGO_MSG_ERR] [VAD] This lib does not include mode " + std::to_string(mode) + "\t\n");
    }
    for (uint32_t mode : {4u, 0xFFFFFFFFu}) {
        CaptureStart();
        EXPECT_EQ(KivVad_SetMode(vad, mode), -1);
        EXPECT_EQ(CaptureStop(), "[ALGO_MSG_ERR] [VAD] Mode can only be set to 0~3\t\n");
    }
    CaptureStart();
    EXPECT_EQ(KivVad_SetMode(nullptr, 1), -1);
    EXPECT_EQ(KivVad_SetMode(vad, 1), 0);
    EXPECT_EQ(CaptureStop(),
              "[ALGO_MSG_ERR]  [VAD]The handle is Null!\t\n"
              "[ALGO_MSG_MSG] [VAD] mode = 1\t\n");

    void *wide = Make(48000);
    CaptureStart();
    EXPECT_EQ(KivVad_SetMode(wide, 1), -1);
    EXPECT_EQ(CaptureStop(), "[ALGO_MSG_ERR] [VAD][mode1] Not support sample rate 48000\n");
}

TEST_F(VadTest, StereoFramesAreAveragedTowardZero) {
    void *vad = Make(16000, 2);
    int16_t stereo[256] = {};
    const int16_t pairs[][3] = {  // left, right, mono
        {32767, 32767, 32767}, {-3, 0, -1}, {3, 0, 1}, {-32768, -32768, -32768},
        {-32768, 32767, 0}, {-1, 0, 0}, {101, -104, -1}};
    for (size_t i = 0; i < std::size(pairs); ++i) {
        stereo[2 * i] = pairs[i][0];
        stereo[2 * i + 1] = pairs[i][1];
    }
    CaptureStart();
    KivVad_Run(vad, stereo);
    CaptureStop();
    const int16_t *mono = kivbf::vad::MonoFrame(*static_cast<KivVadHeader *>(vad));
    for (size_t i = 0; i < std::size(pairs); ++i) EXPECT_EQ(mono[i], pairs[i][2]) << i;
}

TEST_F(VadTest, MessagesFollowTheLevelFile) {
    const std::string path = testing::TempDir() + "kivbf_vad_level.json";
    FILE *f = std::fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fputs("{\"debug_level\": 1}", f);
    std::fclose(f);
    setenv("DML_PATH", path.c_str(), 1);

    CaptureStart();
    void *vad = Make(44100);
    const KivVadInit init{100, 1};
    KivVad_Config(vad, &init);
    vad = Make(16000);
    KivVad_Config(vad, &init);
    KivVad_SetMode(vad, 1);
    EXPECT_EQ(CaptureStop(),
              "[ALGO_MSG_ERR] [VAD] Not support sample rate 44100\n"
              "[ALGO_MSG_ERR] [VAD] Handle init ERROR!\t\n");
    std::remove(path.c_str());
}

// --- The detector itself -----------------------------------------------------------

class VadDetectorTest : public testing::Test {
protected:
    void Start(int mode) {
        ASSERT_EQ(kivbf::vad::VadCore_Init(s_), 0);
        ASSERT_EQ(kivbf::vad::VadCore_SetMode(s_, mode), 0);
        s_.resample_by_two = 1;
        s_.frame_length = 128;
    }
    int32_t Silence() {
        const int16_t zeros[128] = {};
        return kivbf::vad::VadCore_Process(s_, zeros, downsampled_, 7);
    }
    // Band energies at the speech model's means: a clear speech frame.
    void SpeechRun(int frames) {
        int16_t features[kivbf::vad::kBands];
        for (int b = 0; b < kivbf::vad::kBands; ++b)
            features[b] = static_cast<int16_t>(kivbf::vad::kSpeechDataMeans[b] / 8);
        for (int i = 0; i < frames; ++i)
            ASSERT_EQ(kivbf::vad::GmmProbability(s_, features, 1000, 64, 7), 1) << i;
    }
    int HeldFrames() {
        int held = 0;
        while (Silence() == 1) ++held;
        return held;
    }

    VadDetectorState s_{};
    int16_t downsampled_[128]{};
};

TEST_F(VadDetectorTest, SilenceOnlyCountsDownTheHangover) {
    Start(0);
    for (int i = 0; i < 20; ++i) ASSERT_EQ(Silence(), 0) << i;
    EXPECT_EQ(s_.frame_counter, 0);  // nothing to adapt on

    struct Case {
        int mode, run, held;
    };
    const Case cases[] = {{0, 3, 3}, {0, 7, 5}, {1, 6, 3}, {1, 9, 5},
                          {2, 1, 2}, {2, 7, 3}, {3, 6, 2}, {3, 8, 3}};
    for (const Case &c : cases) {
        Start(c.mode);
        SpeechRun(c.run);
        EXPECT_EQ(HeldFrames(), c.held) << "mode " << c.mode << " run " << c.run;
        EXPECT_EQ(s_.hangover, 0);
        EXPECT_EQ(Silence(), 0);
    }
}

TEST_F(VadDetectorTest, RefusedSettingsChangeNothing) {
    const int16_t frame[128] = {};
    EXPECT_EQ(kivbf::vad::VadCore_Process(s_, frame, downsampled_, 7), -1);  // never initialised
    Start(2);
    const VadDetectorState before = s_;
    EXPECT_EQ(kivbf::vad::VadCore_SetMode(s_, 4), -1);
    EXPECT_EQ(kivbf::vad::VadCore_SetMode(s_, -1), -1);
    EXPECT_EQ(std::memcmp(&before, &s_, sizeof s_), 0);
    s_.frame_length = 256;  // longer than the frame buffers
    EXPECT_EQ(kivbf::vad::VadCore_Process(s_, frame, downsampled_, 7), -1);
}

}  // namespace
