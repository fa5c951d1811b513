#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "AudioBfProcess_internal.h"
#include "support.h"

using namespace kivbf_test;

namespace {

const int32_t kBands[6] = {10, 20, 40, 60, 90, 120};
const int32_t kFactors[7] = {1, 2, 3, 4, 5, 6, 7};

struct Controls : testing::Test {
    BfCoreState &state() { return *Bf_StateOf(handle_); }
    WorkingBuffer buffer_;
    AudioBfHandle handle_ = MakeConfiguredHandle(buffer_);
};

struct Refusal {
    std::function<uint32_t(AudioBfHandle)> call;
    uint32_t code;
    std::string text;  // after "[ALGO_MSG_ERR] "
};

// Runs each call on `handle` and checks its status and exact message.
void ExpectRefusals(AudioBfHandle handle, const std::vector<Refusal> &refusals) {
    for (const Refusal &r : refusals) {
        uint32_t status = 0;
        EXPECT_EQ(Captured([&] { status = r.call(handle); }), "[ALGO_MSG_ERR] " + r.text);
        EXPECT_EQ(status, r.code) << r.text;
    }
}

int32_t *With(int32_t *copy, const int32_t *from, int32_t n, int32_t i, int32_t value) {
    std::copy(from, from + n, copy);
    copy[i] = value;
    return copy;
}

}  // namespace

TEST_F(Controls, RefusalsReturnTheirCodeAndPrintTheirMessage) {
    const std::string dl = " [BF] [DynamicLoading] Fail! ";
    const std::string range = dl + "Band value must be set between 1 and 128 \r\n";
    const std::string factor = dl + "Intensity value must be set between 1 and 1000 \r\n";
    int32_t b[6], f[7];
    ExpectRefusals(nullptr, {
        {[](auto h) { return KivBf_SetMode(h, 0, 0.0f); }, KIVBF_ERR_HANDLE,
         "[BF] [SetMode] Fail! The handle is NULL!!\r\n"},
        {[](auto h) { return KivBf_SetAdaptiveIntensity(h, 1); }, KIVBF_ERR_HANDLE,
         "[BF] [SetAdaptiveIntensity] Fail! The handle is NULL!!\r\n"},
        {[](auto h) { return KivBf_DynamicLoading(h, kBands, kFactors, 0); }, KIVBF_ERR_HANDLE,
         "[BF] [DynamicLoading] Fail!  The handle is NULL!!\r\n"},
        {[](auto h) { return KivBf_SetPfFlow(h, 1); }, KIVBF_ERR_HANDLE,
         "[BF] [SetPfFlow] Fail! The handle is NULL!!\r\n"},
        {[](auto h) { return KivBf_SetCalibration(h, 1); }, KIVBF_ERR_HANDLE,
         "[BF] [SetCalibration] Fail! The handle is NULL!!\r\n"},
    });
    ExpectRefusals(handle_, {
        {[](auto h) { return KivBf_SetAdaptiveIntensity(h, 1); }, KIVBF_ERR_PREREQUISITE,
         "[BF] [SetAdaptiveIntensity] Fail! Please call KivBf_SetMode first!\t\n"},
        {[](auto h) { return KivBf_SetPfFlow(h, 1); }, KIVBF_ERR_PREREQUISITE,
         "[BF] [SetPfFlow] Fail! Please call KivBf_SetMode first!\t\n"},
        {[](auto h) { return KivBf_DynamicLoading(h, nullptr, kFactors, 0); },
         KIVBF_ERR_NULL_POINTER, "[BF] [DynamicLoading] Fail!  The band is NULL!!\r\n"},
        {[](auto h) { return KivBf_DynamicLoading(h, kBands, nullptr, 0); },
         KIVBF_ERR_NULL_POINTER, "[BF] [DynamicLoading] Fail!  The dl_intensity is NULL!!\r\n"},
        {[&](auto h) { return KivBf_DynamicLoading(h, With(b, kBands, 6, 1, 10), kFactors, 0); },
         KIVBF_ERR_DYNAMIC_LOADING, dl + "Band value number must be Ascending\r\n"},
        {[&](auto h) { return KivBf_DynamicLoading(h, With(b, kBands, 6, 0, 0), kFactors, 0); },
         KIVBF_ERR_DYNAMIC_LOADING, range},
        {[&](auto h) { return KivBf_DynamicLoading(h, With(b, kBands, 6, 5, 129), kFactors, 0); },
         KIVBF_ERR_DYNAMIC_LOADING, range},
        {[&](auto h) { return KivBf_DynamicLoading(h, kBands, With(f, kFactors, 7, 3, 0), 0); },
         KIVBF_ERR_DYNAMIC_LOADING, factor},
        {[&](auto h) { return KivBf_DynamicLoading(h, kBands, With(f, kFactors, 7, 6, 1001), 0); },
         KIVBF_ERR_DYNAMIC_LOADING, factor},
        {[](auto h) { return KivBf_SetCalibration(h, 2); }, KIVBF_ERR_CALIBRATION,
         "[BF] [SetCalibration] Fail! The calibration_flag can only be set as one of [0,1]!\t\n"},
        {[](auto h) { return KivBf_SetMode(h, 5, 0.0f); }, KIVBF_ERR_MODE,
         "[BF] [SetMode] Fail! The mode can only be set as one of [0,1,2,3,4]!\t\n"},
        {[](auto h) { return KivBf_SetMode(h, 3, 0.0f) | KivBf_SetPfFlow(h, 3); },
         KIVBF_ERR_PF_FLOW,
         "[BF] [SetPfFlow] Fail! The flow can only be set as one of [0,1,2]!\t\n"},
        {[](auto h) { return KivBf_SetAdaptiveIntensity(h, 5); }, KIVBF_ERR_ADAPTIVE_INTENSITY,
         " [BF] [SetAdaptiveIntensity] Fail! The mode can only be set as one of [0,1,2,3,4]\t\n"},
    });
    EXPECT_FLOAT_EQ(state().bin_loading[100], 0.001f);  // refused loadings copy nothing
    const char marker = state().handle_marker[0];
    state().handle_marker[0] = 'X';
    ExpectRefusals(handle_, {{[](auto h) { return KivBf_SetMode(h, 0, 0.0f); }, KIVBF_ERR_HANDLE,
                              "[BF][SetMode] Fail! The handle pointer seems to be dirty!!\r\n"}});
    state().handle_marker[0] = marker;
    state().config_flag = 0;  // a SetConfig that failed half way
    ExpectRefusals(handle_, {
        {[](auto h) { return KivBf_SetCalibration(h, 1); }, KIVBF_ERR_PREREQUISITE,
         "[BF] [SetCalibration] Fail! Please call KivBf_SetConfig first!\t\n"}});
    EXPECT_EQ(KivBf_Free(handle_), KIVBF_OK);
    ExpectRefusals(handle_, {{[](auto h) { return KivBf_SetMode(h, 1, 0.0f); },
                              KIVBF_ERR_NOT_INITIALISED,
                              "[BF] [SetMode] Fail! Please call KivBf_Init first!\t\n"}});
}

// Some refusals still store the value they refuse.
TEST_F(Controls, RefusedValuesThatAreKept) {
    BfCoreState &s = state();
    ASSERT_EQ(KivBf_SetMode(handle_, 3, 0.0f), KIVBF_OK);
    ASSERT_EQ(KivBf_SetAdaptiveIntensity(handle_, 4), KIVBF_OK);
    s.mode = 4;
    ExpectRefusals(handle_, {
        {[](auto h) { return KivBf_SetAdaptiveIntensity(h, 2); }, KIVBF_ERR_ADAPTIVE_INTENSITY,
         "[BF] [SetAdaptiveIntensity] Fail! The current does not support mode 4\t\n"},
        {[](auto h) { return KivBf_DynamicLoading(h, kBands, kFactors, 5); },
         KIVBF_ERR_DYNAMIC_LOADING,
         " [BF] [DynamicLoading] Fail! is_dynamic value must be set either 0 or 1 \r\n"},
        {[](auto h) { return KivBf_SetMode(h, 4, 0.0f); }, KIVBF_ERR_MODE,
         "[BF] [SetMode] Fail! The current does not support mode 4\t\n"},
    });
    EXPECT_EQ(s.adaptive_intensity, 2);
    EXPECT_EQ(s.intensity_scale, 1.2342f);  // the presets of 4 stay
    EXPECT_EQ(s.is_dynamic, 5u);
    EXPECT_EQ(s.mode, 4);
    EXPECT_EQ(s.mode_flag, 0);
    EXPECT_EQ(KivBf_SetAdaptiveIntensity(handle_, 2), KIVBF_ERR_PREREQUISITE);
}

TEST_F(Controls, DynamicLoadingSpreadsTheFactorsOverTheBands) {
    ASSERT_EQ(KivBf_DynamicLoading(handle_, kBands, kFactors, 1), KIVBF_OK);
    const int32_t first_bin[8] = {0, 10, 20, 40, 60, 90, 120, 129};
    for (int32_t band = 0; band < 7; ++band)
        for (int32_t k = first_bin[band]; k < first_bin[band + 1]; ++k)
            EXPECT_FLOAT_EQ(state().bin_loading[k], 0.001f * (band + 1)) << k;
}
