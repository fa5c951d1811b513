// The run-time configuration record: KivBf_SetConfig and KivBf_GetConfig.
#include <algorithm>

#include "AudioBfProcess_internal.h"
#include "debug_msglevel.h"
#include "vector_kernels.h"

using namespace kivbf;

namespace {

constexpr int32_t kThresholdMinDb = -80;
constexpr int32_t kThresholdMaxDb = 0;
constexpr int32_t kLoadingMin = 1;
constexpr int32_t kLoadingMax = 100;

uint32_t ValidateSwitchesAndGain(const AudioBfConfig &config, int32_t level) {
    if (config.Noise_estimation != 0 && config.Noise_estimation != 1) {
        DML_PRINT(level, DML_ERR,
                  "[%s] %s[BF] [SetConfig] Fail! The Noise_estimation setting is not allowed, "
                  "only for 0 or 1!!\r\n");
        return KIVBF_ERR_NOISE_ESTIMATION;
    }
    if (config.vad_enable != 0 && config.vad_enable != 1) {
        DML_PRINT(level, DML_ERR,
                  "[%s] %s[BF] [SetConfig] Fail! The vad_enable setting is not allowed, only for "
                  "0 or 1!!\r\n");
        return KIVBF_ERR_VAD_ENABLE;
    }
    // The message names [0.0,1.0], but a gain of 0 would silence the output:
    // the accepted range is (0, 1].
    if (!(config.output_gain > 0.0f) || config.output_gain > 1.0f) {
        DML_PRINT(level, DML_ERR,
                  "[%s] %s[BF] [SetConfig] Fail! The output_gain setting is not allowed, it "
                  "should be set between [0.0,1.0]!!\r\n");
        return KIVBF_ERR_OUTPUT_GAIN;
    }
    return KIVBF_OK;
}

// Out-of-range threshold and loading are not errors: they are clamped in the
// caller's record, so the caller sees what was applied.
void ClampInPlace(AudioBfConfig &config) {
    config.noise_threshold_db =
        std::clamp(config.noise_threshold_db, kThresholdMinDb, kThresholdMaxDb);
    config.diagonal_loading = std::clamp(config.diagonal_loading, kLoadingMin, kLoadingMax);
}

void StoreConfig(BfCoreState &s, const AudioBfConfig &config) {
    s.noise_threshold_db = config.noise_threshold_db;
    s.noise_threshold_q15 = Bf_VolTableLookup(s.noise_threshold_db);
    s.temperature = config.temperature;
    s.speed_of_sound = static_cast<float>(331.0 + 0.6 * static_cast<double>(s.temperature));
    s.Noise_estimation = config.Noise_estimation;
    s.output_gain = config.output_gain;
    s.vad_enable = config.vad_enable;
    s.diagonal_loading = config.diagonal_loading;
    s.loading_base = static_cast<float>(static_cast<float>(s.diagonal_loading) / 10000.0);
    vec_fill(s.bin_loading, s.loading_base, kBins);
}

}  // namespace

extern "C" {

uint32_t KivBf_SetConfig(AudioBfHandle handle, AudioBfConfig *config) {
    if (Bf_IsNull(handle, "[%s] %s[BF] [SetConfig] Fail! The handle is NULL!!\r\n"))
        return KIVBF_ERR_HANDLE;
    if (Bf_IsNull(config, "[%s] %s[BF] [SetConfig] Fail! The configuration parameter is NULL!!\r\n"))
        return KIVBF_ERR_NULL_CONFIG;
    BfCoreState &s = *Bf_StateOf(handle);
    // Cleared before anything is checked: a failed call leaves the handle
    // unconfigured, so the later steps refuse to run on half-applied settings.
    s.config_flag = 0;
    if (uint32_t status = Bf_CheckReady(s, BF_NEED_INIT, "SetConfig"); status != KIVBF_OK)
        return status;
    if (uint32_t status = ValidateSwitchesAndGain(*config, s.debug_level); status != KIVBF_OK)
        return status;

    ClampInPlace(*config);
    StoreConfig(s, *config);
    s.config_flag = 1;
    return KIVBF_OK;
}

uint32_t KivBf_GetConfig(AudioBfHandle handle, AudioBfConfig *config) {
    if (Bf_IsNull(handle, "[%s] %s[BF] [GetConfig] Fail! The handle is NULL!!\r\n"))
        return KIVBF_ERR_HANDLE;
    if (Bf_IsNull(config, "[%s] %s[BF] [GetConfig] Fail! The configuration parameter is NULL!!\r\n"))
        return KIVBF_ERR_NULL_CONFIG;
    const BfCoreState &s = *Bf_StateOf(handle);
    if (uint32_t status = Bf_CheckReady(s, BF_NEED_INIT, "GetConfig"); status != KIVBF_OK)
        return status;

    config->temperature = s.temperature;
    config->noise_threshold_db = s.noise_threshold_db;
    config->Noise_estimation = s.Noise_estimation;
    config->output_gain = s.output_gain;
    config->vad_enable = s.vad_enable;
    config->diagonal_loading = s.diagonal_loading;
    return KIVBF_OK;
}

}  // extern "C"
