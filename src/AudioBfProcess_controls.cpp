// Operating controls: mode, adaptive intensity, dynamic loading, post-filter
// flow and calibration.
#include <cmath>

#include "AudioBfProcess_internal.h"
#include "Beamformer_core_presets.h"
#include "debug_msglevel.h"

using namespace kivbf;

namespace {

constexpr uint32_t kMaxMode = KIVBF_MODE_POSTFILTER_NO_BAND;
constexpr int32_t kBandCount = 6;
constexpr int32_t kLoadingBands = kBandCount + 1;
constexpr int32_t kMinBand = 1;
constexpr int32_t kMaxBand = 128;
constexpr int32_t kMinLoadingFactor = 1;
constexpr int32_t kMaxLoadingFactor = 1000;
constexpr uint32_t kMaxPfFlow = 2;

// Loading of every bin from the band edges: band j spans bins
// [band[j-1], band[j]), band 0 everything below band[0].
void ApplyBandLoading(BfCoreState &s) {
    for (int32_t k = 0; k < kBins; ++k) {
        int32_t band = 0;
        while (band < kBandCount && s.band[band] <= k) ++band;
        s.bin_loading[k] = s.loading_base * static_cast<float>(s.dl_intensity[band]);
    }
}

// The fixed beam looks toward angle + 90; an angle that is not a number keeps
// the previous look direction instead of designing a beam of NaNs.
void TakeSteeringAngle(BfCoreState &s, float angle) {
    if (std::isfinite(angle)) s.steering_angle = angle + 90.0f;
}

}  // namespace

extern "C" {

uint32_t KivBf_SetMode(AudioBfHandle handle, uint32_t mode, float angle) {
    if (Bf_IsNull(handle, "[%s] %s[BF] [SetMode] Fail! The handle is NULL!!\r\n"))
        return KIVBF_ERR_HANDLE;
    BfCoreState &s = *Bf_StateOf(handle);
    s.mode_flag = 0;
    const uint32_t status = Bf_CheckReady(s, BF_NEED_INIT | BF_NEED_CONFIG | BF_NEED_SHAPE, "SetMode");
    if (status != KIVBF_OK) return status;

    const int32_t level = s.debug_level;
    if (mode > kMaxMode) {
        DML_PRINT(
            level, DML_ERR,
            "[%s] %s[BF] [SetMode] Fail! The mode can only be set as one of [%d,%d,%d,%d,%d]!\t\n",
            0, 1, 2, 3, 4);
        return KIVBF_ERR_MODE;
    }
    s.mode = static_cast<int32_t>(mode);

    switch (mode) {
        case KIVBF_MODE_ADAPTIVE:
            Bf_ResetCovariance(s);
            break;
        case KIVBF_MODE_FIXED:
            TakeSteeringAngle(s, angle);
            Bf_DesignFixedBeam(s);
            break;
        case KIVBF_MODE_FIXED_CANCELLER:
            TakeSteeringAngle(s, angle);
            Bf_DesignFixedBeam(s);
            Bf_ResetCanceller(s);
            break;
        case KIVBF_MODE_POSTFILTER:
            Bf_ResetCovariance(s);
            Bf_SetUnityGains(s);
            break;
        case KIVBF_MODE_POSTFILTER_NO_BAND:
            // Refused, but the mode stays stored and KivBf_Run (which does
            // not look at mode_flag) runs it.
            DML_PRINT(level, DML_ERR,
                      "[%s] %s[BF] [SetMode] Fail! The current does not support mode 4\t\n");
            return KIVBF_ERR_MODE;
        default:
            DML_PRINT(level, DML_ERR, "[%s] %s[BF] [SetMode] Fail! Please check the mode!\t\n");
            return KIVBF_ERR_MODE;
    }
    s.enhanced.enabled = 0;  // a mode set by SetMode ends the enhanced mode
    s.mode_flag = 1;
    return KIVBF_OK;
}

uint32_t KivBf_SetAdaptiveIntensity(AudioBfHandle handle, int32_t intensity) {
    if (uint32_t status = Bf_OpenCall(
            handle, "[%s] %s[BF] [SetAdaptiveIntensity] Fail! The handle is NULL!!\r\n",
            BF_NEED_INIT | BF_NEED_CONFIG | BF_NEED_SHAPE | BF_NEED_MODE, "SetAdaptiveIntensity");
        status != KIVBF_OK)
        return status;
    BfCoreState &s = *Bf_StateOf(handle);

    const int32_t level = s.debug_level;
    if (intensity < 0 || intensity > kMaxIntensity) {
        DML_PRINT(level, DML_ERR,
                  "[%s] %s [BF] [SetAdaptiveIntensity] Fail! The mode can only be set as one of "
                  "[0,1,2,3,4]\t\n");
        return KIVBF_ERR_ADAPTIVE_INTENSITY;
    }
    s.adaptive_intensity = intensity;
    const IntensityPreset &preset = kIntensityPresets[intensity];

    if (s.mode == static_cast<int32_t>(KIVBF_MODE_ADAPTIVE)) {
        s.intensity_scale = preset.scale;
        s.intensity_floor = preset.floor;
    }
    if (s.mode == static_cast<int32_t>(KIVBF_MODE_POSTFILTER)) {
        s.mode3_scale = kMode3Scale;
        s.pf_mix = kPfMix;
        s.intensity_scale = preset.scale;
        s.intensity_floor = preset.floor;
        s.direction_slope = preset.limit;
    }
    if (s.mode == static_cast<int32_t>(KIVBF_MODE_POSTFILTER_NO_BAND)) {
        DML_PRINT(
            level, DML_ERR,
            "[%s] %s[BF] [SetAdaptiveIntensity] Fail! The current does not support mode 4\t\n");
        return KIVBF_ERR_ADAPTIVE_INTENSITY;
    }
    return KIVBF_OK;
}

uint32_t KivBf_DynamicLoading(AudioBfHandle handle, const int32_t *band,
                              const int32_t *dl_intensity, uint32_t is_dynamic) {
    if (Bf_IsNull(handle, "[%s] %s[BF] [DynamicLoading] Fail!  The handle is NULL!!\r\n"))
        return KIVBF_ERR_HANDLE;
    if (Bf_IsNull(band, "[%s] %s[BF] [DynamicLoading] Fail!  The band is NULL!!\r\n"))
        return KIVBF_ERR_NULL_POINTER;
    if (Bf_IsNull(dl_intensity, "[%s] %s[BF] [DynamicLoading] Fail!  The dl_intensity is NULL!!\r\n"))
        return KIVBF_ERR_NULL_POINTER;
    BfCoreState &s = *Bf_StateOf(handle);
    const uint32_t status =
        Bf_CheckReady(s, BF_NEED_INIT | BF_NEED_CONFIG | BF_NEED_SHAPE, "DynamicLoading");
    if (status != KIVBF_OK) return status;

    const int32_t level = s.debug_level;
    // Stored before the test: an invalid value stays.
    s.is_dynamic = is_dynamic;
    if (is_dynamic != 0 && is_dynamic != 1) {
        DML_PRINT(
            level, DML_ERR,
            "[%s] %s [BF] [DynamicLoading] Fail! is_dynamic value must be set either %d or %d \r\n",
            0, 1);
        return KIVBF_ERR_DYNAMIC_LOADING;
    }

    int32_t previous = -1;
    for (int32_t i = 0; i < kBandCount; ++i) {
        if (band[i] > kMaxBand || band[i] < kMinBand) {
            DML_PRINT(
                level, DML_ERR,
                "[%s] %s [BF] [DynamicLoading] Fail! Band value must be set between %d and %d \r\n",
                kMinBand, kMaxBand);
            return KIVBF_ERR_DYNAMIC_LOADING;
        }
        if (band[i] <= previous) {
            DML_PRINT(
                level, DML_ERR,
                "[%s] %s [BF] [DynamicLoading] Fail! Band value number must be Ascending\r\n");
            return KIVBF_ERR_DYNAMIC_LOADING;
        }
        previous = band[i];
    }
    for (int32_t i = 0; i < kLoadingBands; ++i) {
        if (dl_intensity[i] > kMaxLoadingFactor || dl_intensity[i] < kMinLoadingFactor) {
            DML_PRINT(level, DML_ERR,
                      "[%s] %s [BF] [DynamicLoading] Fail! Intensity value must be set between %d "
                      "and %d \r\n",
                      kMinLoadingFactor, kMaxLoadingFactor);
            return KIVBF_ERR_DYNAMIC_LOADING;
        }
    }

    for (int32_t i = 0; i < kBandCount; ++i) s.band[i] = band[i];
    for (int32_t i = 0; i < kLoadingBands; ++i) s.dl_intensity[i] = dl_intensity[i];
    ApplyBandLoading(s);
    return KIVBF_OK;
}

uint32_t KivBf_SetPfFlow(AudioBfHandle handle, uint32_t flow) {
    if (uint32_t status = Bf_OpenCall(
            handle, "[%s] %s[BF] [SetPfFlow] Fail! The handle is NULL!!\r\n",
            BF_NEED_INIT | BF_NEED_CONFIG | BF_NEED_SHAPE | BF_NEED_MODE, "SetPfFlow");
        status != KIVBF_OK)
        return status;
    BfCoreState &s = *Bf_StateOf(handle);

    if (flow > kMaxPfFlow) {
        DML_PRINT(
            s.debug_level, DML_ERR,
            "[%s] %s[BF] [SetPfFlow] Fail! The flow can only be set as one of [%d,%d,%d]!\t\n", 0,
            1, 2);
        return KIVBF_ERR_PF_FLOW;
    }
    s.pf_flow = static_cast<int32_t>(flow);
    return KIVBF_OK;
}

uint32_t KivBf_SetCalibration(AudioBfHandle handle, uint32_t calibration_flag) {
    if (uint32_t status = Bf_OpenCall(
            handle, "[%s] %s[BF] [SetCalibration] Fail! The handle is NULL!!\r\n",
            BF_NEED_INIT | BF_NEED_CONFIG | BF_NEED_SHAPE, "SetCalibration");
        status != KIVBF_OK)
        return status;
    BfCoreState &s = *Bf_StateOf(handle);

    if (calibration_flag != 0 && calibration_flag != 1) {
        DML_PRINT(s.debug_level, DML_ERR,
                  "[%s] %s[BF] [SetCalibration] Fail! The calibration_flag can only be set as one "
                  "of [%d,%d]!\t\n",
                  0, 1);
        return KIVBF_ERR_CALIBRATION;
    }
    s.calibration_flag = calibration_flag;
    return KIVBF_OK;
}

}  // extern "C"
