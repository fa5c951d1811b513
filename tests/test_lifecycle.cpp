// Handle lifecycle: working-buffer layout, Init/Reset validation, the handle
// check and calling-order tests, Free, version.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "AudioBfProcess_internal.h"
#include "AudioVadProcess.h"
#include "level_file.h"
#include "support.h"

using namespace kivbf_test;

namespace {

BfCoreState &State(AudioBfHandle h) { return *Bf_StateOf(h); }

// Initialises with `init` and returns what was printed; *handle gets the result.
std::string InitCapturing(WorkingBuffer &buffer, const AudioBfInit &init, AudioBfHandle *handle) {
    CaptureStart();
    *handle = KivBf_Init(buffer.data(), &init);
    return CaptureStop();
}

}  // namespace

TEST(Lifecycle, BufferIsThreeRegionsInOrder) {
    SetMessageLevel(7);
    CaptureStart();
    const uint32_t size = KivBf_GetBufferSize();
    const std::string out = CaptureStop();
    const uint32_t vad = KivVad_GetBufferSize();
    EXPECT_EQ(size, sizeof(BfCoreState) + vad + FFT_GetBufferSize(256));
    EXPECT_EQ(out, "[ALGO_MSG_MSG] [BF] Working buffer size = " + std::to_string(size) +
                       " bytes\t\n");

    WorkingBuffer buffer;
    AudioBfInit init = DefaultInit();
    AudioBfHandle h = KivBf_Init(buffer.data(), &init);
    ASSERT_EQ(h, buffer.data());
    auto *base = static_cast<unsigned char *>(buffer.data());
    EXPECT_EQ(State(h).vad_instance, base + sizeof(BfCoreState));
    EXPECT_EQ(State(h).fft_record.fft_Ne10_cfg, base + sizeof(BfCoreState) + vad);

    SetMessageLevel(3);  // no info bit
    CaptureStart();
    EXPECT_EQ(KivBf_GetBufferSize(), size);
    EXPECT_EQ(CaptureStop(), "");
}

TEST(Lifecycle, InitWritesRecordDefaultsAndFlags) {
    SetMessageLevel(3);
    WorkingBuffer buffer;
    AudioBfHandle h;
    const std::string out = InitCapturing(buffer, DefaultInit(16000, 5.0f), &h);
    ASSERT_NE(h, nullptr);
    // The VAD is forced to 16 kHz and says so at every Init.
    EXPECT_NE(out.find("[ALGO_MSG_WRN] [VAD] Force VAD sampling rate at 16000 Hz! \r\n"),
              std::string::npos);
    const BfCoreState &s = State(h);
    EXPECT_EQ(std::memcmp(s.handle_marker, "W0Q0", 4), 0);
    EXPECT_EQ(s.init_flag, 1);
    EXPECT_EQ(s.config_flag, 2);
    EXPECT_EQ(s.shape_flag, 2);
    EXPECT_EQ(s.mode_flag, 2);
    EXPECT_EQ(s.run_flag, 2);
    EXPECT_EQ(s.calibration_flag, 0u);
    EXPECT_EQ(s.debug_level, 3);
    EXPECT_EQ(s.microphone_distance, 0.05f);
    EXPECT_EQ(s.fft_record.fft_size, 256);
    EXPECT_EQ(s.noise_threshold_q15, 3276);
    EXPECT_EQ(s.output_gain, 0.7f);
    EXPECT_EQ(s.target_angle, 90.0f);
    EXPECT_EQ(s.pf_flow, 1);
    EXPECT_EQ(s.speed_of_sound, 0.0f);

    // Core starting values.
    EXPECT_EQ(s.bin_frequency[1], 62.5f);
    EXPECT_EQ(s.bin_frequency[128], 8000.0f);
    const int32_t band[6] = {3, 24, 40, 64, 80, 128};
    EXPECT_EQ(std::memcmp(s.band, band, sizeof band), 0);
    for (int32_t k = 0; k < kivbf::kBins; ++k) {
        ASSERT_EQ(s.pf_gain[k], 1.0f);
        ASSERT_EQ(s.bin_loading[k], 0.001f);
        ASSERT_EQ(s.beam_weights[1][2 * k], 0.5f);
        ASSERT_EQ(s.prior_snr_memory[1][k], 1.0f);
        ASSERT_EQ(s.speech_presence[k], 1.0f);
        ASSERT_EQ(s.unit_vector[k], 1.0f);
        ASSERT_EQ(s.anc_filter[2 * k], 1.0f);
        const float identity[8] = {1, 0, 0, 0, 0, 0, 1, 0};
        ASSERT_EQ(std::memcmp(s.noise_covariance[k], identity, sizeof identity), 0);
    }
    EXPECT_EQ(s.intensity_floor, 0.316227f);
    EXPECT_EQ(s.mode3_scale, 0.049787f);
    EXPECT_EQ(s.intensity_limit, -6.0f);
    EXPECT_EQ(s.pf_mix, 0.001f);
    // Needs the FFT wrapper: FFT_Init marks its record ready.
    EXPECT_EQ(s.fft_record.ne10_init_flag, 1);

    SetMessageLevel(1);  // no warning bit: the VAD notice goes
    EXPECT_EQ(InitCapturing(buffer, DefaultInit(8000), &h).find("[VAD]"), std::string::npos);
}

TEST(Lifecycle, InitRefusesBadRecordsInOrder) {
    SetMessageLevel(1);
    const std::string point = "[ALGO_MSG_ERR] [BF] Fail! This library only support 128 point number!!\r\n";
    const std::string mics = "[ALGO_MSG_ERR] [BF] Fail! This library only support 2 Microphones!!\r\n";
    const std::string distance = "[ALGO_MSG_ERR] [BF] Fail! The microphone_distance must be positibe!!\r\n";
    const std::string rate = "[ALGO_MSG_ERR] [BF] Fail! Only support 8/16/32/48 KHz sample rate.\t\n";
    struct Case {
        AudioBfInit init;
        const std::string &message;
    };
    const Case cases[] = {
        {{0, 16000, 5.0f, 2}, point},     {{127, 16000, 5.0f, 2}, point},
        {{129, 16000, 5.0f, 2}, point},   {{256, 44100, -1.0f, 3}, point},
        {{128, 16000, 5.0f, 1}, mics},    {{128, 44100, 0.0f, 3}, mics},
        {{128, 16000, 0.0f, 2}, distance}, {{128, 16000, -0.5f, 2}, distance},
        {{128, 44100, NAN, 2}, distance}, {{128, 0, 5.0f, 2}, rate},
        {{128, 7999, 5.0f, 2}, rate},     {{128, 8001, 5.0f, 2}, rate},
        {{128, 11025, 5.0f, 2}, rate},    {{128, 15999, 5.0f, 2}, rate},
        {{128, 44100, 5.0f, 2}, rate},    {{128, 47999, 5.0f, 2}, rate},
        {{128, 96000, 5.0f, 2}, rate},
    };
    WorkingBuffer buffer;
    for (const Case &c : cases) {
        AudioBfHandle h;
        EXPECT_EQ(InitCapturing(buffer, c.init, &h), c.message)
            << c.init.point_number << " " << c.init.sample_rate << " " << c.init.mic_number;
        EXPECT_EQ(h, nullptr);
    }
    for (uint32_t good : {8000u, 16000u, 32000u, 48000u}) {
        AudioBfHandle h;
        InitCapturing(buffer, DefaultInit(good), &h);
        EXPECT_NE(h, nullptr) << good;
    }
}

TEST(Lifecycle, NullAndMisalignedBuffersAreRefusedUntouched) {
    SetMessageLevel(1);
    WorkingBuffer buffer;
    AudioBfInit init = DefaultInit();
    CaptureStart();
    EXPECT_EQ(KivBf_Init(nullptr, &init), nullptr);
    EXPECT_EQ(KivBf_Init(buffer.data(), nullptr), nullptr);
    EXPECT_EQ(KivBf_Reset(nullptr, &init), nullptr);
    EXPECT_EQ(CaptureStop(),
              "[ALGO_MSG_ERR] [BF] [Init] Fail! The working buffer or init parameter is NULL!!\r\n"
              "[ALGO_MSG_ERR] [BF] [Init] Fail! The working buffer or init parameter is NULL!!\r\n"
              "[ALGO_MSG_ERR] [BF] [Reset] Fail! The working buffer or init parameter is NULL!!\r\n");

    std::vector<unsigned char> raw(KivBf_GetBufferSize() + 32, 0xA5);
    unsigned char *aligned = raw.data() + (16 - reinterpret_cast<uintptr_t>(raw.data()) % 16);
    for (size_t offset : {1, 4, 8}) {
        CaptureStart();
        EXPECT_EQ(KivBf_Init(aligned + offset, &init), nullptr);
        EXPECT_EQ(KivBf_Reset(aligned + offset, &init), nullptr);
        const std::string out = CaptureStop();
        EXPECT_EQ(out.rfind("[ALGO_MSG_ERR] [BF] [Init] Fail!", 0), 0u) << out;
        EXPECT_NE(out.find("[ALGO_MSG_ERR] [BF] [Reset] Fail!"), std::string::npos);
    }
    for (unsigned char byte : raw) ASSERT_EQ(byte, 0xA5);
}

TEST(Lifecycle, ResetEqualsFreshInitByteForByte) {
    SetMessageLevel(1);
    WorkingBuffer buffer;
    AudioBfInit init = DefaultInit(48000, 7.0f);
    ASSERT_NE(KivBf_Init(buffer.data(), &init), nullptr);
    const auto *bytes = static_cast<const unsigned char *>(buffer.data());
    const std::vector<unsigned char> fresh(bytes, bytes + buffer.size());

    AudioBfHandle h = MakeConfiguredHandle(buffer, 1, 16000, 3.0f);
    BfCoreState &s = State(h);
    s.run_flag = 1;  // as after a block
    s.calibration_flag = 1;
    std::memset(s.ola_buffer, 0x7F, sizeof s.ola_buffer);
    std::memset(s.input_window, 0x3C, sizeof s.input_window);
    EXPECT_EQ(KivBf_SetShape(h, 0), KIVBF_ERR_SHAPE_AFTER_RUN);

    ASSERT_EQ(KivBf_Reset(h, &init), h);
    EXPECT_EQ(std::memcmp(bytes, fresh.data(), fresh.size()), 0);
    AudioBfConfig config{};
    ASSERT_EQ(KivBf_GetConfig(h, &config), KIVBF_OK);
    ASSERT_EQ(KivBf_SetConfig(h, &config), KIVBF_OK);
    EXPECT_EQ(KivBf_SetShape(h, 0), KIVBF_OK);  // settable again
}

TEST(Lifecycle, HandleCheckOrderAndMessages) {
    SetMessageLevel(1);
    WorkingBuffer buffer;
    AudioBfHandle h = MakeConfiguredHandle(buffer);
    BfCoreState &s = State(h);
    AudioBfConfig config{};

    s.handle_marker[3] = 'X';
    CaptureStart();
    EXPECT_EQ(KivBf_GetConfig(h, &config), KIVBF_ERR_HANDLE);
    EXPECT_EQ(CaptureStop(), "[ALGO_MSG_ERR] [BF][GetConfig] Fail! The handle pointer seems to be dirty!!\r\n");
    s.mic_number = 3;
    CaptureStart();
    EXPECT_EQ(KivBf_GetConfig(h, &config), KIVBF_ERR_MIC_NUMBER);
    EXPECT_EQ(CaptureStop(), "[ALGO_MSG_ERR] [BF][GetConfig] Fail! This library only support 2 Microphones!!\r\n");
    s.point_number = 256;
    CaptureStart();
    EXPECT_EQ(KivBf_GetConfig(h, &config), KIVBF_ERR_POINT_NUMBER);
    EXPECT_EQ(CaptureStop(), "[ALGO_MSG_ERR] [BF] [GetConfig] Fail! This library only support 128 point number!!\r\n");

    s.debug_level = 0;  // codes stay, messages go
    CaptureStart();
    EXPECT_EQ(Bf_HandleCheck(s, s.debug_level, "Run"), KIVBF_ERR_POINT_NUMBER);
    EXPECT_EQ(CaptureStop(), "");
}

TEST(Lifecycle, PrerequisitesAreTestedInOrder) {
    SetMessageLevel(1);
    WorkingBuffer buffer;
    AudioBfInit init = DefaultInit();
    AudioBfHandle h = KivBf_Init(buffer.data(), &init);
    ASSERT_NE(h, nullptr);
    BfCoreState &s = State(h);
    const uint32_t all = BF_NEED_INIT | BF_NEED_CONFIG | BF_NEED_SHAPE | BF_NEED_MODE;
    struct Case {
        int32_t init, config, shape, mode;
        uint32_t code;
        const char *call;
    };
    const Case cases[] = {
        {2, 0, 0, 0, KIVBF_ERR_NOT_INITIALISED, "KivBf_Init"},
        {1, 0, 2, 2, KIVBF_ERR_PREREQUISITE, "KivBf_SetConfig"},
        {1, 1, 0, 0, KIVBF_ERR_PREREQUISITE, "KivBf_SetShape"},
        {1, 1, 1, 2, KIVBF_ERR_PREREQUISITE, "KivBf_SetMode"},
    };
    for (const Case &c : cases) {
        s.init_flag = c.init;
        s.config_flag = c.config;
        s.shape_flag = c.shape;
        s.mode_flag = c.mode;
        CaptureStart();
        EXPECT_EQ(Bf_CheckPrerequisites(s, all, "Run"), c.code);
        EXPECT_EQ(CaptureStop(), std::string("[ALGO_MSG_ERR] [BF] [Run] Fail! Please call ") +
                                     c.call + " first!\t\n");
    }
    s.mode_flag = 1;
    EXPECT_EQ(Bf_CheckPrerequisites(s, all, "Run"), KIVBF_OK);
    s.mode_flag = 0;  // a flag left at 0 by a failed call is not ready
    EXPECT_EQ(Bf_CheckPrerequisites(s, all, "Run"), KIVBF_ERR_PREREQUISITE);
    EXPECT_EQ(Bf_CheckPrerequisites(s, BF_NEED_INIT | BF_NEED_SHAPE, "Run"), KIVBF_OK);
}

TEST(Lifecycle, FreeMarksTheHandleFreed) {
    SetMessageLevel(1);
    CaptureStart();
    EXPECT_EQ(KivBf_Free(nullptr), KIVBF_ERR_HANDLE);
    EXPECT_EQ(CaptureStop(), "[ALGO_MSG_ERR]  [BF] [Free] Fail!. The handle is NULL\t\n");

    WorkingBuffer buffer;
    AudioBfHandle h = MakeConfiguredHandle(buffer);
    EXPECT_EQ(KivBf_Free(h), KIVBF_OK);
    const BfCoreState &s = State(h);
    for (int32_t flag : {s.init_flag, s.config_flag, s.shape_flag, s.mode_flag, s.run_flag})
        EXPECT_EQ(flag, 2);
    EXPECT_EQ(s.fft_record.ne10_init_flag, 0);
    AudioBfConfig config{};
    CaptureStart();
    EXPECT_EQ(KivBf_GetConfig(h, &config), KIVBF_ERR_NOT_INITIALISED);
    EXPECT_EQ(CaptureStop(), "[ALGO_MSG_ERR] [BF] [GetConfig] Fail! Please call KivBf_Init first!\t\n");
    EXPECT_EQ(KivBf_Free(h), KIVBF_OK);  // a second Free is harmless
}

TEST(Lifecycle, VersionAndCallback) {
    SetMessageLevel(7);
    uint16_t major = 0, minor = 0;
    CaptureStart();
    EXPECT_EQ(KivBf_GetAPIVersion(&major, &minor), KIVBF_OK);
    EXPECT_EQ(CaptureStop(), "[ALGO_MSG_MSG] BF_API_VERSION: 1.5\n");
    EXPECT_EQ(major, 1);
    EXPECT_EQ(minor, 5);
    EXPECT_EQ(KivBf_SetCallbackFunction(nullptr, nullptr, nullptr, nullptr), KIVBF_OK);
}

TEST(Lifecycle, VolTable1Lookup) {
    EXPECT_EQ(Bf_VolTableLookup(5), 32767);
    EXPECT_EQ(Bf_VolTableLookup(-100), 1);
    EXPECT_EQ(Bf_VolTableLookup(INT32_MIN), 1);
    // Down to -75 dB the rows are 32767 * 10^(dB/20) cut toward zero; the
    // last five are the table's own.
    for (int32_t db = 0; db >= -75; --db)
        EXPECT_EQ(Bf_VolTableLookup(db), static_cast<int32_t>(32767.0 * std::pow(10.0, db / 20.0)))
            << db;
    const int32_t tail[5] = {4, 3, 2, 1, 1};
    for (int32_t i = 0; i < 5; ++i) EXPECT_EQ(Bf_VolTableLookup(-76 - i), tail[i]);
}
