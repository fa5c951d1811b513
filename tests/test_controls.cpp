#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <string>

#include "AudioBfProcess_internal.h"
#include "support.h"

using namespace kivbf_test;

namespace {

const int32_t kBands[6] = {10, 20, 40, 60, 90, 120};
const int32_t kFactors[7] = {1, 2, 3, 4, 5, 6, 7};

// Expects `call` to return `code` and to print exactly the error `text`.
void ExpectRefusal(const std::function<uint32_t()> &call, uint32_t code, const std::string &text) {
    CaptureStart();
    const uint32_t status = call();
    EXPECT_EQ(CaptureStop(), "[ALGO_MSG_ERR] " + text);
    EXPECT_EQ(status, code);
}

class Controls : public testing::Test {
protected:
    void SetUp() override {
        setenv("DML_PATH", "/nonexistent/audioAlgo.json", 1);  // default level 7
        handle_ = MakeConfiguredHandle(buffer_);
    }
    BfCoreState &state() { return *Bf_StateOf(handle_); }

    WorkingBuffer buffer_;
    AudioBfHandle handle_ = nullptr;
};

}  // namespace

TEST_F(Controls, NullPointersAreRefusedAndAlwaysReported) {
    const std::pair<std::function<uint32_t()>, const char *> null_handle[] = {
        {[] { return KivBf_SetMode(nullptr, 0, 0.0f); }, "[SetMode] Fail! "},
        {[] { return KivBf_SetAdaptiveIntensity(nullptr, 1); }, "[SetAdaptiveIntensity] Fail! "},
        {[] { return KivBf_DynamicLoading(nullptr, kBands, kFactors, 0); },
         "[DynamicLoading] Fail!  "},
        {[] { return KivBf_SetPfFlow(nullptr, 1); }, "[SetPfFlow] Fail! "},
        {[] { return KivBf_SetCalibration(nullptr, 1); }, "[SetCalibration] Fail! "},
    };
    for (const auto &[call, name] : null_handle)
        ExpectRefusal(call, KIVBF_ERR_HANDLE,
                      std::string("[BF] ") + name + "The handle is NULL!!\r\n");
    ExpectRefusal([&] { return KivBf_DynamicLoading(handle_, nullptr, kFactors, 0); },
                  KIVBF_ERR_NULL_POINTER, "[BF] [DynamicLoading] Fail!  The band is NULL!!\r\n");
    ExpectRefusal([&] { return KivBf_DynamicLoading(handle_, kBands, nullptr, 0); },
                  KIVBF_ERR_NULL_POINTER,
                  "[BF] [DynamicLoading] Fail!  The dl_intensity is NULL!!\r\n");
}

TEST_F(Controls, PrerequisitesThenHandleCheckInOrder) {
    BfCoreState &s = state();
    ExpectRefusal([&] { return KivBf_SetAdaptiveIntensity(handle_, 1); }, KIVBF_ERR_PREREQUISITE,
                  "[BF] [SetAdaptiveIntensity] Fail! Please call KivBf_SetMode first!\t\n");
    s.handle_marker[0] = 'X';  // the flags are tested before the marker
    ExpectRefusal([&] { return KivBf_SetPfFlow(handle_, 1); }, KIVBF_ERR_PREREQUISITE,
                  "[BF] [SetPfFlow] Fail! Please call KivBf_SetMode first!\t\n");
    ExpectRefusal([&] { return KivBf_SetMode(handle_, 0, 0.0f); }, KIVBF_ERR_HANDLE,
                  "[BF][SetMode] Fail! The handle pointer seems to be dirty!!\r\n");
    EXPECT_EQ(s.mode_flag, 0);

    s.shape_flag = 2;
    ExpectRefusal([&] { return KivBf_DynamicLoading(handle_, kBands, kFactors, 0); },
                  KIVBF_ERR_PREREQUISITE,
                  "[BF] [DynamicLoading] Fail! Please call KivBf_SetShape first!\t\n");
    s.config_flag = 0;  // a SetConfig that failed half way
    ExpectRefusal([&] { return KivBf_SetCalibration(handle_, 1); }, KIVBF_ERR_PREREQUISITE,
                  "[BF] [SetCalibration] Fail! Please call KivBf_SetConfig first!\t\n");
    EXPECT_EQ(KivBf_Free(handle_), KIVBF_OK);
    ExpectRefusal([&] { return KivBf_SetMode(handle_, 1, 0.0f); }, KIVBF_ERR_NOT_INITIALISED,
                  "[BF] [SetMode] Fail! Please call KivBf_Init first!\t\n");
}

TEST_F(Controls, SetModeRefusesUnknownModesAndKeepsARefusedModeFour) {
    BfCoreState &s = state();
    ASSERT_EQ(KivBf_SetMode(handle_, 1, 0.0f), KIVBF_OK);
    EXPECT_EQ(s.mode_flag, 1);
    ExpectRefusal([&] { return KivBf_SetMode(handle_, 5, 0.0f); }, KIVBF_ERR_MODE,
                  "[BF] [SetMode] Fail! The mode can only be set as one of [0,1,2,3,4]!\t\n");
    EXPECT_EQ(s.mode, 1);
    EXPECT_EQ(s.mode_flag, 0);

    ExpectRefusal([&] { return KivBf_SetMode(handle_, 4, 0.0f); }, KIVBF_ERR_MODE,
                  "[BF] [SetMode] Fail! The current does not support mode 4\t\n");
    EXPECT_EQ(s.mode, 4);
    EXPECT_EQ(s.mode_flag, 0);
    EXPECT_EQ(KivBf_SetAdaptiveIntensity(handle_, 2), KIVBF_ERR_PREREQUISITE);
}

TEST_F(Controls, SetModePreparesEachModeWithoutTouchingHistories) {
    BfCoreState &s = state();
    s.noise_counter = 2;
    s.cov_counter = 7;
    s.ola_buffer[3] = 0.25f;
    const auto set_mode = [&](uint32_t mode, float angle) {
        s.noise_covariance[5][2] = 0.3f;
        s.anc_filter[10] = 0.0f;
        s.band_weight_mid = 0.2f;
        s.unit_vector[4] = 0.0f;
        ASSERT_EQ(KivBf_SetMode(handle_, mode, angle), KIVBF_OK);
    };

    set_mode(2, 30.0f);
    EXPECT_EQ(s.steering_angle, 120.0f);
    EXPECT_NE(s.beam_weights[0][2 * 40], 0.5f);  // designed, no longer the average
    EXPECT_EQ(s.noise_covariance[5][2], 0.3f);
    EXPECT_EQ(s.anc_filter[10], 1.0f);
    set_mode(1, 30.0f);
    EXPECT_EQ(s.anc_filter[10], 0.0f);
    EXPECT_EQ(s.noise_covariance[5][2], 0.3f);

    const float designed = s.beam_weights[0][2 * 40];
    set_mode(0, 77.0f);
    EXPECT_EQ(s.noise_covariance[5][2], 0.0f);
    EXPECT_EQ(s.noise_covariance[5][0], 1.0f);
    EXPECT_EQ(s.beam_weights[0][2 * 40], designed);  // modes 0 and 3 keep the last beam
    EXPECT_EQ(s.steering_angle, 120.0f);
    EXPECT_EQ(s.band_weight_mid, 0.2f);

    set_mode(3, 0.0f);
    EXPECT_EQ(s.noise_covariance[5][2], 0.0f);
    EXPECT_EQ(s.band_weight_mid, 1.0f);
    EXPECT_EQ(s.unit_vector[4], 1.0f);
    EXPECT_EQ(s.anc_filter[10], 0.0f);
    EXPECT_EQ(s.noise_counter, 2);
    EXPECT_EQ(s.cov_counter, 7);
    EXPECT_EQ(s.ola_buffer[3], 0.25f);
}

TEST_F(Controls, AdaptiveIntensityPresetsDependOnTheMode) {
    BfCoreState &s = state();
    ASSERT_EQ(KivBf_SetMode(handle_, 0, 0.0f), KIVBF_OK);
    ASSERT_EQ(KivBf_SetAdaptiveIntensity(handle_, 3), KIVBF_OK);
    EXPECT_EQ(s.intensity_scale, 1.0f);
    EXPECT_EQ(s.intensity_floor, 0.0316227f);
    EXPECT_EQ(s.intensity_limit, -6.0f);  // written in mode 3 only

    ASSERT_EQ(KivBf_SetMode(handle_, 1, 0.0f), KIVBF_OK);
    ASSERT_EQ(KivBf_SetAdaptiveIntensity(handle_, 0), KIVBF_OK);
    EXPECT_EQ(s.adaptive_intensity, 0);
    EXPECT_EQ(s.intensity_scale, 1.0f);

    ASSERT_EQ(KivBf_SetMode(handle_, 3, 0.0f), KIVBF_OK);
    s.mode3_scale = 0.0f;
    s.pf_mix = 0.5f;
    const float presets[5][3] = {{0.4f, 0.70710677f, -5.0f}, {0.6f, 0.31622699f, -6.0f},
                                 {0.8f, 0.1f, -8.0f},        {1.0f, 0.0316227f, -9.0f},
                                 {1.2342f, 0.0316227f, -10.0f}};
    for (int32_t intensity = 0; intensity < 5; ++intensity) {
        ASSERT_EQ(KivBf_SetAdaptiveIntensity(handle_, intensity), KIVBF_OK);
        EXPECT_EQ(s.intensity_scale, presets[intensity][0]);
        EXPECT_EQ(s.intensity_floor, presets[intensity][1]);
        EXPECT_EQ(s.intensity_limit, presets[intensity][2]);
    }
    EXPECT_EQ(s.mode3_scale, 0.049787f);
    EXPECT_EQ(s.pf_mix, 0.001f);

    for (int32_t bad : {-1, 5})
        ExpectRefusal([&] { return KivBf_SetAdaptiveIntensity(handle_, bad); },
                      KIVBF_ERR_ADAPTIVE_INTENSITY,
                      " [BF] [SetAdaptiveIntensity] Fail! The mode can only be set as one of "
                      "[0,1,2,3,4]\t\n");
    EXPECT_EQ(s.adaptive_intensity, 4);

    s.mode = 4;  // stored before the refusal
    ExpectRefusal([&] { return KivBf_SetAdaptiveIntensity(handle_, 2); },
                  KIVBF_ERR_ADAPTIVE_INTENSITY,
                  "[BF] [SetAdaptiveIntensity] Fail! The current does not support mode 4\t\n");
    EXPECT_EQ(s.adaptive_intensity, 2);
    EXPECT_EQ(s.intensity_scale, 1.2342f);
}

TEST_F(Controls, DynamicLoadingSpreadsTheFactorsOverTheBands) {
    BfCoreState &s = state();
    ASSERT_EQ(KivBf_DynamicLoading(handle_, kBands, kFactors, 1), KIVBF_OK);
    const int32_t first_bin[8] = {0, 10, 20, 40, 60, 90, 120, 129};
    for (int32_t band = 0; band < 7; ++band)
        for (int32_t k = first_bin[band]; k < first_bin[band + 1]; ++k)
            EXPECT_FLOAT_EQ(s.bin_loading[k], 0.001f * (band + 1)) << k;
}

TEST_F(Controls, DynamicLoadingRefusesBadValuesAndCopiesNothing) {
    BfCoreState &s = state();
    const std::string prefix = " [BF] [DynamicLoading] Fail! ";
    const char *const range = "Band value must be set between 1 and 128 \r\n";
    const char *const factor = "Intensity value must be set between 1 and 1000 \r\n";
    int32_t bands[6];
    int32_t factors[7];
    const int32_t first_band = s.band[0];
    const auto refuse = [&](int32_t *value, int32_t bad, const char *message) {
        std::copy(kBands, kBands + 6, bands);
        std::copy(kFactors, kFactors + 7, factors);
        *value = bad;
        ExpectRefusal([&] { return KivBf_DynamicLoading(handle_, bands, factors, 0); },
                      KIVBF_ERR_DYNAMIC_LOADING, prefix + message);
        EXPECT_EQ(s.band[0], first_band);
        EXPECT_FLOAT_EQ(s.bin_loading[100], 0.001f);
    };
    refuse(&bands[1], 10, "Band value number must be Ascending\r\n");
    refuse(&bands[0], 0, range);
    refuse(&bands[5], 129, range);
    refuse(&factors[3], 0, factor);
    refuse(&factors[6], 1001, factor);
    ExpectRefusal([&] { return KivBf_DynamicLoading(handle_, kBands, kFactors, 5); },
                  KIVBF_ERR_DYNAMIC_LOADING,
                  prefix + "is_dynamic value must be set either 0 or 1 \r\n");
    EXPECT_EQ(s.is_dynamic, 5u);
    EXPECT_FLOAT_EQ(s.bin_loading[100], 0.001f);
}

TEST_F(Controls, PfFlowAndCalibrationAcceptOnlyTheirValues) {
    BfCoreState &s = state();
    ASSERT_EQ(KivBf_SetCalibration(handle_, 1), KIVBF_OK);  // needs no mode
    ExpectRefusal(
        [&] { return KivBf_SetCalibration(handle_, 2); }, KIVBF_ERR_CALIBRATION,
        "[BF] [SetCalibration] Fail! The calibration_flag can only be set as one of [0,1]!\t\n");
    EXPECT_EQ(s.calibration_flag, 1u);

    ASSERT_EQ(KivBf_SetMode(handle_, 3, 0.0f), KIVBF_OK);
    ASSERT_EQ(KivBf_SetPfFlow(handle_, 2), KIVBF_OK);
    ExpectRefusal([&] { return KivBf_SetPfFlow(handle_, 3); }, KIVBF_ERR_PF_FLOW,
                  "[BF] [SetPfFlow] Fail! The flow can only be set as one of [0,1,2]!\t\n");
    EXPECT_EQ(s.pf_flow, 2);
}
