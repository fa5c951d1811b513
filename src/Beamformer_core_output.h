// Conversion of one overlap-added value to a 16-bit output sample.
#pragma once

#include <cmath>
#include <cstdint>
#include <limits>

namespace kivbf {

// output_gain is normalised by this, in double, so that the default gain of
// 0.7 passes the signal at unity.
inline constexpr double kOutputNorm = 0.7;

// Quotient by kOutputNorm, truncated toward zero. A quotient outside the int32
// range (or NaN) has no defined conversion; it is treated as the saturating
// hardware conversion of the target would.
inline int32_t Bf_TruncatedQuotient(float gained) {
    double quotient = static_cast<double>(gained) / kOutputNorm;
    constexpr double kLow = static_cast<double>(std::numeric_limits<int32_t>::min());
    constexpr double kHigh = static_cast<double>(std::numeric_limits<int32_t>::max());
    if (!(quotient > kLow && quotient < kHigh)) {
        if (std::isnan(quotient)) quotient = 0.0;
        quotient = quotient < kLow ? kLow : (quotient > kHigh ? kHigh : quotient);
    }
    return static_cast<int32_t>(quotient);
}

// The gain is applied in single precision and the result divided by
// kOutputNorm in double, truncated toward zero; kSaturate chooses between
// keeping the low 16 bits (values beyond the 16-bit range wrap) and clamping
// to [-32768, 32767].
//
// A division costs as much as the rest of the sample, so the common case
// multiplies by the reciprocal instead: for every float whose quotient lies
// within +-2147483000, the double product truncates to the same integer as the
// double quotient (checked over all 2^32 floats; tests/test_output.cpp
// repeats the sweep). Below 2^30 the product is well inside that range.
template <bool kSaturate>
inline int16_t Bf_PcmSample(float accumulated, float output_gain) {
    constexpr double kReciprocal = 1.0 / kOutputNorm;
    constexpr double kProductBound = 1073741824.0;
    const float gained = accumulated * output_gain;
    const double product = static_cast<double>(gained) * kReciprocal;
    // One test (false for NaN) keeps the common case free of the others.
    const int32_t truncated = product > -kProductBound && product < kProductBound
                                  ? static_cast<int32_t>(product)
                                  : Bf_TruncatedQuotient(gained);
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
