// The configuration record: check order, clamping, derived values.
#include <gtest/gtest.h>

#include <cmath>

#include "AudioBfProcess_internal.h"
#include "level_file.h"
#include "support.h"

using namespace kivbf_test;

namespace {

AudioBfHandle InitHandle(WorkingBuffer &buffer) {
    AudioBfInit init = DefaultInit();
    AudioBfHandle h = KivBf_Init(buffer.data(), &init);
    EXPECT_NE(h, nullptr);
    return h;
}

AudioBfConfig Defaults(AudioBfHandle h) {
    AudioBfConfig config{};
    EXPECT_EQ(KivBf_GetConfig(h, &config), KIVBF_OK);
    return config;
}

const std::string kPrefix = "[ALGO_MSG_ERR] [BF] [SetConfig] Fail! ";

}  // namespace

TEST(Config, GetConfigAfterInitGivesDefaults) {
    WorkingBuffer buffer;
    const AudioBfConfig c = Defaults(InitHandle(buffer));
    EXPECT_EQ(c.temperature, 0u);
    EXPECT_EQ(c.noise_threshold_db, -20);
    EXPECT_EQ(c.Noise_estimation, 0u);
    EXPECT_EQ(c.output_gain, 0.7f);
    EXPECT_EQ(c.vad_enable, 0u);
    EXPECT_EQ(c.diagonal_loading, 10);
}

TEST(Config, NullPointersPrintWhateverTheLevel) {
    WorkingBuffer buffer;
    AudioBfHandle h = InitHandle(buffer);
    Bf_StateOf(h)->debug_level = 0;
    AudioBfConfig config = Defaults(h);
    CaptureStart();
    EXPECT_EQ(KivBf_SetConfig(nullptr, &config), KIVBF_ERR_HANDLE);
    EXPECT_EQ(KivBf_SetConfig(h, nullptr), KIVBF_ERR_NULL_CONFIG);
    EXPECT_EQ(KivBf_GetConfig(nullptr, nullptr), KIVBF_ERR_HANDLE);
    EXPECT_EQ(KivBf_GetConfig(h, nullptr), KIVBF_ERR_NULL_CONFIG);
    EXPECT_EQ(CaptureStop(),
              kPrefix + "The handle is NULL!!\r\n" + kPrefix +
                  "The configuration parameter is NULL!!\r\n"
                  "[ALGO_MSG_ERR] [BF] [GetConfig] Fail! The handle is NULL!!\r\n"
                  "[ALGO_MSG_ERR] [BF] [GetConfig] Fail! The configuration parameter is NULL!!\r\n");
}

TEST(Config, InvalidFieldsAreRefusedInOrderAndUnconfigure) {
    SetMessageLevel(1);
    struct Case {
        uint32_t noise_estimation, vad;
        float gain;
        uint32_t code;
        std::string message;
    };
    const std::string gain_message =
        "The output_gain setting is not allowed, it should be set between [0.0,1.0]!!\r\n";
    const Case cases[] = {
        {2, 2, 0.0f, KIVBF_ERR_NOISE_ESTIMATION,
         "The Noise_estimation setting is not allowed, only for 0 or 1!!\r\n"},
        {0xFFFFFFFFu, 0, 0.5f, KIVBF_ERR_NOISE_ESTIMATION,
         "The Noise_estimation setting is not allowed, only for 0 or 1!!\r\n"},
        {1, 2, 0.0f, KIVBF_ERR_VAD_ENABLE,
         "The vad_enable setting is not allowed, only for 0 or 1!!\r\n"},
        {0, 1, 0.0f, KIVBF_ERR_OUTPUT_GAIN, gain_message},
        {0, 1, -0.5f, KIVBF_ERR_OUTPUT_GAIN, gain_message},
        {0, 1, 1.0000001f, KIVBF_ERR_OUTPUT_GAIN, gain_message},
        {0, 1, NAN, KIVBF_ERR_OUTPUT_GAIN, gain_message},
        {0, 1, INFINITY, KIVBF_ERR_OUTPUT_GAIN, gain_message},
    };
    WorkingBuffer buffer;
    AudioBfHandle h = MakeConfiguredHandle(buffer);
    const BfCoreState &s = *Bf_StateOf(h);
    for (const Case &c : cases) {
        AudioBfConfig config = Defaults(h);
        config.temperature = 30;
        config.Noise_estimation = c.noise_estimation;
        config.vad_enable = c.vad;
        config.output_gain = c.gain;
        CaptureStart();
        EXPECT_EQ(KivBf_SetConfig(h, &config), c.code);
        EXPECT_EQ(CaptureStop(), kPrefix + c.message);
        // Old settings stay, but the handle is unconfigured until a success.
        EXPECT_EQ(s.config_flag, 0);
        EXPECT_EQ(s.temperature, 20u);
        CaptureStart();
        EXPECT_EQ(KivBf_SetShape(h, 0), KIVBF_ERR_PREREQUISITE);
        EXPECT_EQ(CaptureStop(),
                  "[ALGO_MSG_ERR] [BF] [SetShape] Fail! Please call KivBf_SetConfig first!\t\n");
        config = Defaults(h);
        ASSERT_EQ(KivBf_SetConfig(h, &config), KIVBF_OK);
    }
    AudioBfConfig config = Defaults(h);
    for (float gain : {1.0f, 1e-30f, 0.7f}) {
        config.output_gain = gain;
        EXPECT_EQ(KivBf_SetConfig(h, &config), KIVBF_OK) << gain;
    }
}

TEST(Config, StateTestsComeBeforeFieldTests) {
    SetMessageLevel(1);
    WorkingBuffer buffer;
    AudioBfHandle h = InitHandle(buffer);
    BfCoreState &s = *Bf_StateOf(h);
    AudioBfConfig config = Defaults(h);
    config.vad_enable = 7;

    s.handle_marker[0] = 0;
    CaptureStart();
    EXPECT_EQ(KivBf_SetConfig(h, &config), KIVBF_ERR_HANDLE);
    EXPECT_EQ(CaptureStop(),
              "[ALGO_MSG_ERR] [BF][SetConfig] Fail! The handle pointer seems to be dirty!!\r\n");
    s.init_flag = 0;
    CaptureStart();
    EXPECT_EQ(KivBf_SetConfig(h, &config), KIVBF_ERR_NOT_INITIALISED);
    EXPECT_EQ(CaptureStop(), kPrefix + "Please call KivBf_Init first!\t\n");
    EXPECT_EQ(s.config_flag, 0);  // cleared before the init test
}

TEST(Config, ClampsAreWrittenBackAndDerivedValuesFollow) {
    WorkingBuffer buffer;
    AudioBfHandle h = InitHandle(buffer);
    const BfCoreState &s = *Bf_StateOf(h);
    struct Case {
        int32_t db_in, db_out, q15;
        int32_t loading_in, loading_out;
        float loading;
        uint32_t temperature;
        float speed;
    };
    const Case cases[] = {
        {-100, -80, 1, 0, 1, 0.0001f, 0, 331.0f},
        {5, 0, 32767, -5, 1, 0.0001f, 20, 343.0f},
        {-76, -76, 4, 150, 100, 0.01f, 35, static_cast<float>(331.0 + 0.6 * 35)},
        {-20, -20, 3276, 50, 50, 0.005f, 1, static_cast<float>(331.0 + 0.6 * 1)},
        {INT32_MIN, -80, 1, INT32_MAX, 100, 0.01f, 100, 391.0f},
        {-1, -1, 29203, 99, 99, 0.0099f, 0xFFFFFFFFu,
         static_cast<float>(331.0 + 0.6 * 4294967295.0)},  // negative reads as huge
    };
    for (const Case &c : cases) {
        AudioBfConfig config = Defaults(h);
        config.noise_threshold_db = c.db_in;
        config.diagonal_loading = c.loading_in;
        config.temperature = c.temperature;
        ASSERT_EQ(KivBf_SetConfig(h, &config), KIVBF_OK);
        EXPECT_EQ(config.noise_threshold_db, c.db_out);
        EXPECT_EQ(config.diagonal_loading, c.loading_out);
        EXPECT_EQ(s.noise_threshold_q15, c.q15);
        EXPECT_EQ(s.speed_of_sound, c.speed) << c.temperature;
        EXPECT_EQ(s.loading_base, static_cast<float>(static_cast<float>(c.loading_out) / 10000.0));
        EXPECT_FLOAT_EQ(s.loading_base, c.loading);
        for (float bin : s.bin_loading) ASSERT_EQ(bin, s.loading_base);
        EXPECT_EQ(s.config_flag, 1);

        const AudioBfConfig back = Defaults(h);
        EXPECT_EQ(back.noise_threshold_db, c.db_out);
        EXPECT_EQ(back.diagonal_loading, c.loading_out);
        EXPECT_EQ(back.temperature, c.temperature);
    }
}
