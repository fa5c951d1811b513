// The configuration record: check order, clamping, derived values.
#include <gtest/gtest.h>

#include <cmath>

#include "AudioBfProcess_internal.h"
#include "support.h"

using namespace kivbf_test;

TEST(Config, RefusalsComeInCheckOrderAndUnconfigure) {
    const std::string fail = kBfError + "[SetConfig] Fail! ";
    WorkingBuffer buffer;
    AudioBfHandle h = MakeConfiguredHandle(buffer);
    BfCoreState &s = *Bf_StateOf(h);
    s.debug_level = 0;  // null-pointer messages print anyway
    EXPECT_EQ(Captured([&] {
                  EXPECT_EQ(KivBf_SetConfig(nullptr, nullptr), KIVBF_ERR_HANDLE);
                  EXPECT_EQ(KivBf_SetConfig(h, nullptr), KIVBF_ERR_NULL_CONFIG);
              }),
              fail + "The handle is NULL!!\r\n" + fail + "The configuration parameter is NULL!!\r\n");
    s.debug_level = 1;
    const std::string noise = "The Noise_estimation setting is not allowed, only for 0 or 1!!\r\n";
    const std::string vad = "The vad_enable setting is not allowed, only for 0 or 1!!\r\n";
    const std::string gain = "The output_gain setting is not allowed, it should be set between [0.0,1.0]!!\r\n";
    const std::tuple<uint32_t, uint32_t, float, uint32_t, std::string> cases[] = {
        {2, 2, 0.0f, KIVBF_ERR_NOISE_ESTIMATION, noise}, {1, 2, 0.0f, KIVBF_ERR_VAD_ENABLE, vad},
        {0, 1, 0.0f, KIVBF_ERR_OUTPUT_GAIN, gain},       {0, 1, 1.0000001f, KIVBF_ERR_OUTPUT_GAIN, gain},
        {0, 1, NAN, KIVBF_ERR_OUTPUT_GAIN, gain},
    };
    for (const auto &[noise_estimation, vad_enable, output_gain, code, message] : cases) {
        AudioBfConfig config = CurrentConfig(h);
        config.Noise_estimation = noise_estimation;
        config.vad_enable = vad_enable;
        config.output_gain = output_gain;
        config.temperature = 30;
        EXPECT_EQ(Captured([&] { EXPECT_EQ(KivBf_SetConfig(h, &config), code); }), fail + message);
        // The old settings stay, but the handle is unconfigured until a success.
        EXPECT_EQ(CurrentConfig(h).temperature, 20u);
        EXPECT_EQ(KivBf_SetShape(h, 0), KIVBF_ERR_PREREQUISITE);
        config = CurrentConfig(h);
        ASSERT_EQ(KivBf_SetConfig(h, &config), KIVBF_OK);
    }
    AudioBfConfig config = CurrentConfig(h);
    config.vad_enable = 7;
    s.init_flag = 0;  // init comes before the fields
    EXPECT_EQ(Captured([&] { EXPECT_EQ(KivBf_SetConfig(h, &config), KIVBF_ERR_NOT_INITIALISED); }),
              fail + "Please call KivBf_Init first!\t\n");
    s.init_flag = 1;
    s.handle_marker[0] = 0;  // the handle check comes before the fields
    EXPECT_EQ(KivBf_SetConfig(h, &config), KIVBF_ERR_HANDLE);
}

TEST(Config, ClampsAreWrittenBackAndDerivedValuesFollow) {
    WorkingBuffer buffer;
    AudioBfInit init = DefaultInit();
    AudioBfHandle h = KivBf_Init(buffer.data(), &init);
    const AudioBfConfig fresh = CurrentConfig(h);
    EXPECT_EQ(std::make_tuple(fresh.temperature, fresh.noise_threshold_db, fresh.Noise_estimation,
                              fresh.output_gain, fresh.vad_enable, fresh.diagonal_loading),
              std::make_tuple(0u, -20, 0u, 0.7f, 0u, 10));
    const BfCoreState &s = *Bf_StateOf(h);
    // noise_threshold_db in and out, its Q15 level, diagonal_loading in and out, temperature
    // A negative temperature written into the unsigned field reads as huge.
    const std::tuple<int32_t, int32_t, int32_t, int32_t, int32_t, uint32_t> cases[] = {
        {-100, -80, 1, 0, 1, 0},     {5, 0, 32767, -5, 1, 20},                 {-76, -76, 4, 150, 100, 35},
        {-20, -20, 3276, 50, 50, 1}, {INT32_MIN, -80, 1, INT32_MAX, 100, 100}, {-1, -1, 29203, 99, 99, 0xFFFFFFFFu}};
    for (const auto &[db_in, db_out, q15, loading_in, loading_out, temperature] : cases) {
        AudioBfConfig config = CurrentConfig(h);
        config.noise_threshold_db = db_in;
        config.diagonal_loading = loading_in;
        config.temperature = temperature;
        ASSERT_EQ(KivBf_SetConfig(h, &config), KIVBF_OK);
        EXPECT_EQ(std::make_tuple(config.noise_threshold_db, config.diagonal_loading, CurrentConfig(h).diagonal_loading,
                                  s.noise_threshold_q15),
                  std::make_tuple(db_out, loading_out, loading_out, q15));
        EXPECT_EQ(s.speed_of_sound, static_cast<float>(331.0 + 0.6 * temperature)) << temperature;
        for (float bin : s.bin_loading) ASSERT_EQ(bin, static_cast<float>(static_cast<float>(loading_out) / 10000.0));
    }
}

// The dB-to-Q15 table: 32767 x 10^(dB / 20) cut toward zero, then steps of
// one LSB at the bottom.
TEST(Config, LevelTableHoldsTheQ15AmplitudeOfEachDecibel) {
    for (int32_t db = -75; db <= 0; ++db)
        EXPECT_EQ(Bf_VolTableLookup(db), static_cast<int32_t>(32767.0 * std::pow(10.0, db / 20.0))) << db;
    const int32_t bottom[] = {4, 3, 2, 1, 1};  // -76 .. -80
    for (int32_t i = 0; i < 5; ++i) EXPECT_EQ(Bf_VolTableLookup(-76 - i), bottom[i]);
}
