// Adaptive-intensity presets: KivBf_SetAdaptiveIntensity selects a row, and a
// fresh core starts from kDefaultIntensity with the mode-3 constants set.
#pragma once

#include <cstdint>

namespace kivbf {

struct IntensityPreset {
    float scale;  // intensity_scale: multiplies the noise estimate
    float floor;  // intensity_floor: -3, -10, -20, -30, -30 dB as amplitudes
    float limit;  // direction_slope: mode 3 only
};

// Intensities 3 and 4 share their floor and differ in scale and limit.
constexpr IntensityPreset kIntensityPresets[] = {
    {0.4f, 0.70710677f, -5.0f}, {0.6f, 0.31622699f, -6.0f},    {0.8f, 0.1f, -8.0f},
    {1.0f, 0.0316227f, -9.0f},  {1.2342f, 0.0316227f, -10.0f},
};
constexpr int32_t kMaxIntensity = 4;
constexpr int32_t kDefaultIntensity = 1;
// 10^(-10/20) written to six places rounds to the same float as the table's.
static_assert(kIntensityPresets[kDefaultIntensity].floor == 0.316227f);

constexpr float kMode3Scale = 0.049787f;  // e^-3
constexpr float kPfMix = 0.001f;

}  // namespace kivbf
