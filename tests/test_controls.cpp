#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "AudioBfProcess_internal.h"
#include "support.h"

using namespace kivbf_test;

namespace {

const std::string kErr = "[ALGO_MSG_ERR] ";

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

const int32_t kBands[6] = {10, 20, 40, 60, 90, 120};
const int32_t kFactors[7] = {1, 2, 3, 4, 5, 6, 7};

// Runs `call` and returns what it printed.
template <typename Call>
std::string Printed(uint32_t &status, Call call) {
    CaptureStart();
    status = call();
    return CaptureStop();
}

}  // namespace

TEST_F(Controls, NullHandleIsRefusedAndAlwaysReported) {
    const struct {
        uint32_t (*call)();
        std::string message;
    } cases[] = {
        {[] { return KivBf_SetMode(nullptr, 0, 0.0f); }, "[BF] [SetMode] Fail! The handle is NULL!!\r\n"},
        {[] { return KivBf_SetAdaptiveIntensity(nullptr, 1); },
         "[BF] [SetAdaptiveIntensity] Fail! The handle is NULL!!\r\n"},
        {[] { return KivBf_DynamicLoading(nullptr, kBands, kFactors, 0); },
         "[BF] [DynamicLoading] Fail!  The handle is NULL!!\r\n"},
        {[] { return KivBf_SetPfFlow(nullptr, 1); }, "[BF] [SetPfFlow] Fail! The handle is NULL!!\r\n"},
        {[] { return KivBf_SetCalibration(nullptr, 1); }, "[BF] [SetCalibration] Fail! The handle is NULL!!\r\n"},
    };
    for (const auto &c : cases) {
        uint32_t status = 0;
        EXPECT_EQ(Printed(status, c.call), kErr + c.message);
        EXPECT_EQ(status, KIVBF_ERR_HANDLE);
    }
    uint32_t status = 0;
    EXPECT_EQ(Printed(status, [&] { return KivBf_DynamicLoading(handle_, nullptr, kFactors, 0); }),
              kErr + "[BF] [DynamicLoading] Fail!  The band is NULL!!\r\n");
    EXPECT_EQ(status, KIVBF_ERR_NULL_POINTER);
    EXPECT_EQ(Printed(status, [&] { return KivBf_DynamicLoading(handle_, kBands, nullptr, 0); }),
              kErr + "[BF] [DynamicLoading] Fail!  The dl_intensity is NULL!!\r\n");
    EXPECT_EQ(status, KIVBF_ERR_NULL_POINTER);
}

TEST_F(Controls, PrerequisitesAreTestedInOrder) {
    BfCoreState &s = state();
    uint32_t status = 0;

    // Without a mode, the two calls that need one name SetMode.
    EXPECT_EQ(Printed(status, [&] { return KivBf_SetAdaptiveIntensity(handle_, 1); }),
              kErr + "[BF] [SetAdaptiveIntensity] Fail! Please call KivBf_SetMode first!\t\n");
    EXPECT_EQ(status, KIVBF_ERR_PREREQUISITE);
    EXPECT_EQ(Printed(status, [&] { return KivBf_SetPfFlow(handle_, 1); }),
              kErr + "[BF] [SetPfFlow] Fail! Please call KivBf_SetMode first!\t\n");
    EXPECT_EQ(status, KIVBF_ERR_PREREQUISITE);

    s.shape_flag = 2;
    EXPECT_EQ(Printed(status, [&] { return KivBf_DynamicLoading(handle_, kBands, kFactors, 0); }),
              kErr + "[BF] [DynamicLoading] Fail! Please call KivBf_SetShape first!\t\n");
    EXPECT_EQ(status, KIVBF_ERR_PREREQUISITE);

    s.config_flag = 0;  // a SetConfig that failed half way
    EXPECT_EQ(Printed(status, [&] { return KivBf_SetCalibration(handle_, 1); }),
              kErr + "[BF] [SetCalibration] Fail! Please call KivBf_SetConfig first!\t\n");
    EXPECT_EQ(status, KIVBF_ERR_PREREQUISITE);

    EXPECT_EQ(KivBf_Free(handle_), KIVBF_OK);
    EXPECT_EQ(Printed(status, [&] { return KivBf_SetMode(handle_, 1, 0.0f); }),
              kErr + "[BF] [SetMode] Fail! Please call KivBf_Init first!\t\n");
    EXPECT_EQ(status, KIVBF_ERR_NOT_INITIALISED);
}

TEST_F(Controls, DirtyHandleIsReportedWithTheCallsName) {
    state().handle_marker[0] = 'X';
    uint32_t status = 0;
    EXPECT_EQ(Printed(status, [&] { return KivBf_SetPfFlow(handle_, 1); }),
              kErr + "[BF] [SetPfFlow] Fail! Please call KivBf_SetMode first!\t\n");
    EXPECT_EQ(Printed(status, [&] { return KivBf_SetMode(handle_, 0, 0.0f); }),
              kErr + "[BF][SetMode] Fail! The handle pointer seems to be dirty!!\r\n");
    EXPECT_EQ(status, KIVBF_ERR_HANDLE);
    EXPECT_EQ(state().mode_flag, 0);
}

TEST_F(Controls, SetModeRefusesUnknownModesAndKeepsARefusedModeFour) {
    BfCoreState &s = state();
    ASSERT_EQ(KivBf_SetMode(handle_, 1, 0.0f), KIVBF_OK);
    EXPECT_EQ(s.mode_flag, 1);

    uint32_t status = 0;
    EXPECT_EQ(Printed(status, [&] { return KivBf_SetMode(handle_, 5, 0.0f); }),
              kErr + "[BF] [SetMode] Fail! The mode can only be set as one of [0,1,2,3,4]!\t\n");
    EXPECT_EQ(status, KIVBF_ERR_MODE);
    EXPECT_EQ(s.mode, 1);
    EXPECT_EQ(s.mode_flag, 0);

    EXPECT_EQ(Printed(status, [&] { return KivBf_SetMode(handle_, 4, 0.0f); }),
              kErr + "[BF] [SetMode] Fail! The current does not support mode 4\t\n");
    EXPECT_EQ(status, KIVBF_ERR_MODE);
    EXPECT_EQ(s.mode, 4);
    EXPECT_EQ(s.mode_flag, 0);
    EXPECT_EQ(KivBf_SetAdaptiveIntensity(handle_, 2), KIVBF_ERR_PREREQUISITE);
}

TEST_F(Controls, SetModePreparesEachModeWithoutTouchingHistories) {
    BfCoreState &s = state();
    s.noise_counter = 2;
    s.cov_counter = 7;
    s.ola_buffer[3] = 0.25f;
    auto disturb = [&] {
        s.noise_covariance[5][2] = 0.3f;
        s.anc_filter[10] = 0.0f;
        s.band_weight_mid = 0.2f;
        s.unit_vector[4] = 0.0f;
    };

    disturb();
    ASSERT_EQ(KivBf_SetMode(handle_, 1, 30.0f), KIVBF_OK);
    EXPECT_EQ(s.steering_angle, 120.0f);
    EXPECT_NE(s.beam_weights[0][2 * 40], 0.5f);  // designed, no longer the average
    EXPECT_EQ(s.noise_covariance[5][2], 0.3f);
    EXPECT_EQ(s.anc_filter[10], 0.0f);

    ASSERT_EQ(KivBf_SetMode(handle_, 2, 30.0f), KIVBF_OK);
    EXPECT_EQ(s.anc_filter[10], 1.0f);

    disturb();
    const float designed = s.beam_weights[0][2 * 40];
    ASSERT_EQ(KivBf_SetMode(handle_, 0, 77.0f), KIVBF_OK);
    EXPECT_EQ(s.noise_covariance[5][2], 0.0f);
    EXPECT_EQ(s.noise_covariance[5][0], 1.0f);
    EXPECT_EQ(s.beam_weights[0][2 * 40], designed);  // modes 0 and 3 keep the last beam
    EXPECT_EQ(s.steering_angle, 120.0f);
    EXPECT_EQ(s.band_weight_mid, 0.2f);

    disturb();
    ASSERT_EQ(KivBf_SetMode(handle_, 3, 0.0f), KIVBF_OK);
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
    EXPECT_EQ(s.adaptive_intensity, 3);
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
    const struct {
        int32_t intensity;
        float scale, floor, limit;
    } presets[] = {{0, 0.4f, 0.70710677f, -5.0f},
                   {1, 0.6f, 0.31622699f, -6.0f},
                   {2, 0.8f, 0.1f, -8.0f},
                   {3, 1.0f, 0.0316227f, -9.0f},
                   {4, 1.2342f, 0.0316227f, -10.0f}};
    for (const auto &p : presets) {
        ASSERT_EQ(KivBf_SetAdaptiveIntensity(handle_, p.intensity), KIVBF_OK);
        EXPECT_EQ(s.intensity_scale, p.scale);
        EXPECT_EQ(s.intensity_floor, p.floor);
        EXPECT_EQ(s.intensity_limit, p.limit);
    }
    EXPECT_EQ(s.mode3_scale, 0.049787f);
    EXPECT_EQ(s.pf_mix, 0.001f);

    uint32_t status = 0;
    for (int32_t bad : {-1, 5}) {
        EXPECT_EQ(Printed(status, [&] { return KivBf_SetAdaptiveIntensity(handle_, bad); }),
                  kErr + " [BF] [SetAdaptiveIntensity] Fail! The mode can only be set as one of [0,1,2,3,4]\t\n");
        EXPECT_EQ(status, KIVBF_ERR_ADAPTIVE_INTENSITY);
    }
    EXPECT_EQ(s.adaptive_intensity, 4);

    s.mode = 4;  // only reachable through a refused SetMode; the intensity is stored first
    EXPECT_EQ(Printed(status, [&] { return KivBf_SetAdaptiveIntensity(handle_, 2); }),
              kErr + "[BF] [SetAdaptiveIntensity] Fail! The current does not support mode 4\t\n");
    EXPECT_EQ(status, KIVBF_ERR_ADAPTIVE_INTENSITY);
    EXPECT_EQ(s.adaptive_intensity, 2);
    EXPECT_EQ(s.intensity_scale, 1.2342f);
}

TEST_F(Controls, DynamicLoadingSpreadsTheFactorsOverTheBands) {
    BfCoreState &s = state();
    ASSERT_EQ(KivBf_DynamicLoading(handle_, kBands, kFactors, 1), KIVBF_OK);
    const struct {
        int32_t first, last;
        float loading;
    } spans[] = {{0, 9, 0.001f},   {10, 19, 0.002f}, {20, 39, 0.003f}, {40, 59, 0.004f},
                 {60, 89, 0.005f}, {90, 119, 0.006f}, {120, 128, 0.007f}};
    for (const auto &span : spans)
        for (int32_t k = span.first; k <= span.last; ++k) EXPECT_FLOAT_EQ(s.bin_loading[k], span.loading) << k;
    EXPECT_EQ(s.band[5], 120);
    EXPECT_EQ(s.dl_intensity[6], 7);
    EXPECT_EQ(s.is_dynamic, 1u);
}

TEST_F(Controls, DynamicLoadingRefusesBadValuesAndCopiesNothing) {
    BfCoreState &s = state();
    const std::string prefix = kErr + " [BF] [DynamicLoading] Fail! ";
    const struct {
        int32_t bands[6];
        int32_t factors[7];
        std::string message;
    } cases[] = {
        {{10, 10, 40, 60, 90, 120}, {1, 1, 1, 1, 1, 1, 1}, "Band value number must be Ascending\r\n"},
        {{0, 20, 40, 60, 90, 120}, {1, 1, 1, 1, 1, 1, 1}, "Band value must be set between 1 and 128 \r\n"},
        {{10, 20, 40, 60, 90, 129}, {1, 1, 1, 1, 1, 1, 1}, "Band value must be set between 1 and 128 \r\n"},
        {{10, 20, 40, 60, 90, 120}, {1, 1, 1, 0, 1, 1, 1}, "Intensity value must be set between 1 and 1000 \r\n"},
        {{10, 20, 40, 60, 90, 120}, {1, 1, 1, 1, 1, 1, 1001},
         "Intensity value must be set between 1 and 1000 \r\n"},
    };
    const int32_t default_first_band = s.band[0];
    for (const auto &c : cases) {
        uint32_t status = 0;
        EXPECT_EQ(Printed(status, [&] { return KivBf_DynamicLoading(handle_, c.bands, c.factors, 0); }),
                  prefix + c.message);
        EXPECT_EQ(status, KIVBF_ERR_DYNAMIC_LOADING);
        EXPECT_EQ(s.band[0], default_first_band);
        EXPECT_FLOAT_EQ(s.bin_loading[100], 0.001f);
    }

    uint32_t status = 0;
    EXPECT_EQ(Printed(status, [&] { return KivBf_DynamicLoading(handle_, kBands, kFactors, 5); }),
              prefix + "is_dynamic value must be set either 0 or 1 \r\n");
    EXPECT_EQ(status, KIVBF_ERR_DYNAMIC_LOADING);
    EXPECT_EQ(s.is_dynamic, 5u);
    EXPECT_FLOAT_EQ(s.bin_loading[100], 0.001f);
}

TEST_F(Controls, PfFlowAndCalibrationAcceptOnlyTheirValues) {
    BfCoreState &s = state();
    uint32_t status = 0;
    ASSERT_EQ(KivBf_SetCalibration(handle_, 1), KIVBF_OK);  // needs no mode
    EXPECT_EQ(s.calibration_flag, 1u);
    EXPECT_EQ(Printed(status, [&] { return KivBf_SetCalibration(handle_, 2); }),
              kErr + "[BF] [SetCalibration] Fail! The calibration_flag can only be set as one of [0,1]!\t\n");
    EXPECT_EQ(status, KIVBF_ERR_CALIBRATION);
    EXPECT_EQ(s.calibration_flag, 1u);

    ASSERT_EQ(KivBf_SetMode(handle_, 3, 0.0f), KIVBF_OK);
    ASSERT_EQ(KivBf_SetPfFlow(handle_, 2), KIVBF_OK);
    EXPECT_EQ(s.pf_flow, 2);
    EXPECT_EQ(Printed(status, [&] { return KivBf_SetPfFlow(handle_, 3); }),
              kErr + "[BF] [SetPfFlow] Fail! The flow can only be set as one of [0,1,2]!\t\n");
    EXPECT_EQ(status, KIVBF_ERR_PF_FLOW);
    EXPECT_EQ(s.pf_flow, 2);
}
