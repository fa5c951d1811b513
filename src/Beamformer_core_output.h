// Conversion of one overlap-added value to a 16-bit output sample.
#pragma once

#include <cmath>
#include <cstdint>
#include <limits>

namespace kivbf {

// The gain is applied in single precision and normalised by 0.7 in double, so
// that an output_gain of 0.7 passes the signal at unity. The quotient is
// truncated toward zero; kSaturate chooses between keeping the low 16 bits
// (values beyond the 16-bit range wrap) and clamping to [-32768, 32767].
template <bool kSaturate>
inline int16_t Bf_PcmSample(float accumulated, float output_gain) {
    const float gained = accumulated * output_gain;
    double quotient = static_cast<double>(gained) / 0.7;
    // A quotient outside the int32 range (or NaN) has no defined conversion;
    // treat it as the saturating hardware conversion of the target would.
    // One test (false for NaN) keeps the common case free of the others.
    constexpr double kLow = static_cast<double>(std::numeric_limits<int32_t>::min());
    constexpr double kHigh = static_cast<double>(std::numeric_limits<int32_t>::max());
    if (!(quotient > kLow && quotient < kHigh)) {
        if (std::isnan(quotient)) quotient = 0.0;
        quotient = quotient < kLow ? kLow : (quotient > kHigh ? kHigh : quotient);
    }
    const int32_t truncated = static_cast<int32_t>(quotient);
    if constexpr (kSaturate) {
        if (truncated > 32767) return 32767;
        if (truncated < -32768) return -32768;
    }
    return static_cast<int16_t>(truncated);  // modular: the low 16 bits
}

#if defined(KIVBF_SATURATE_OUTPUT)
inline constexpr bool kSaturateOutput = true;
#else
inline constexpr bool kSaturateOutput = false;
#endif

}  // namespace kivbf
