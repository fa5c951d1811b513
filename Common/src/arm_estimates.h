// ARM's reciprocal and reciprocal-square-root estimates (FRECPE, FRSQRTE),
// bit for bit, for the lane helpers on every CPU.
//
// The NEON estimates are part of the library's arithmetic: Reciprocal and
// SquareRoot refine them with a fixed number of Newton-Raphson steps, so the
// refined result still carries the estimate's last bits. On ARM the
// instructions themselves run. x86 has only rcpps/rsqrtps, whose results are
// not ARM's and differ between CPU generations, so there the estimates are
// rebuilt from the float's bits as the Arm architecture defines them: an
// 8-bit table entry picked by the top fraction bits, and an exponent mirrored
// around the bias. These are AArch64's results with flush-to-zero off (the
// Linux default): a subnormal input is normalised, and inputs at or above
// 2^126 get subnormal reciprocals. ARMv7 NEON always flushes, so there such
// inputs give zero and NaNs give the default NaN; the library flushes
// subnormal divisors itself, which leaves |x| >= 2^126 as the one difference.
#pragma once

#if defined(__ARM_NEON)
#include <arm_neon.h>
#else
#include <simde/arm/neon.h>
#endif

#include <array>
#include <bit>
#include <cstdint>
#include <limits>

namespace kivbf::estimates {

inline constexpr uint32_t kSignBit = 0x80000000u;
inline constexpr uint32_t kQuietBit = 0x00400000u;
inline constexpr uint32_t kInfinityBits = 0x7F800000u;
inline constexpr uint32_t kDefaultNaNBits = 0x7FC00000u;
inline constexpr uint32_t kFractionMask = 0x007FFFFFu;

// Reciprocal of a in [256, 512) (a fixed-point value in [0.5, 1)), rounded to
// nearest in units of 1/256: a result in [256, 512) for [1, 2).
constexpr uint32_t RecipTableEntry(uint32_t a) {
    const uint32_t b = (1u << 19) / (2 * a + 1);
    return (b + 1) / 2;
}

// 1/sqrt(a) for a in [128, 512) (a fixed-point value in [0.25, 1)): the
// largest b with a' (b + 1)^2 < 2^28, rounded, for a' the input taken to
// 1/512 (a < 256) or to 1/256 with its last bit dropped (a >= 256).
constexpr uint32_t RecipSqrtTableEntry(uint32_t a) {
    const uint32_t scaled = a < 256 ? 2 * a + 1 : ((a >> 1) << 1) * 2 + 2;
    uint32_t b = 512;
    while (static_cast<uint64_t>(scaled) * (b + 1) * (b + 1) < (uint64_t{1} << 28)) ++b;
    return (b + 1) / 2;
}

// Only the low eight bits of each entry are stored: the ninth is always set.
inline constexpr std::array<uint8_t, 256> kRecipTable = [] {
    std::array<uint8_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) table[i] = static_cast<uint8_t>(RecipTableEntry(256 + i));
    return table;
}();

// Indexed by a - 128 for a in [128, 512).
inline constexpr std::array<uint8_t, 384> kRecipSqrtTable = [] {
    std::array<uint8_t, 384> table{};
    for (uint32_t i = 0; i < 384; ++i)
        table[i] = static_cast<uint8_t>(RecipSqrtTableEntry(128 + i));
    return table;
}();

// FRECPE on one float's bits. The scalar reference the lane version is
// tested against.
constexpr uint32_t RecipEstimateBits(uint32_t x) {
    const uint32_t sign = x & kSignBit;
    const int32_t exponent = static_cast<int32_t>((x >> 23) & 0xFF);
    uint32_t fraction = x & kFractionMask;
    if (exponent == 0xFF) return fraction != 0 ? x | kQuietBit : sign;  // NaN, +-inf
    // Zero and magnitudes below 2^-128 overflow to infinity.
    if (exponent == 0 && fraction < (1u << 21)) return sign | kInfinityBits;
    int32_t scaled_exponent = exponent;
    if (exponent == 0) {  // subnormal: normalise within the 23 fraction bits
        if ((fraction & (1u << 22)) != 0) {
            fraction = (fraction << 1) & kFractionMask;
        } else {
            fraction = (fraction << 2) & kFractionMask;
            scaled_exponent = -1;
        }
    }
    const uint32_t entry = kRecipTable[fraction >> 15];
    const int32_t result_exponent = 253 - scaled_exponent;
    if (result_exponent >= 1)
        return sign | static_cast<uint32_t>(result_exponent) << 23 | entry << 15;
    // Subnormal result: the leading one moves into the fraction.
    return sign | (0x100u | entry) << (14 + result_exponent);
}

// FRSQRTE on one float's bits.
constexpr uint32_t RecipSqrtEstimateBits(uint32_t x) {
    const int32_t exponent = static_cast<int32_t>((x >> 23) & 0xFF);
    uint32_t fraction = x & kFractionMask;
    if (exponent == 0xFF && fraction != 0) return x | kQuietBit;  // NaN
    if ((x & ~kSignBit) == 0) return x | kInfinityBits;           // +-0 gives +-inf
    if ((x & kSignBit) != 0) return kDefaultNaNBits;
    if (exponent == 0xFF) return 0;  // +inf
    int32_t scaled_exponent = exponent;
    if (exponent == 0) {
        const int32_t leading_zeros = std::countl_zero(fraction) - 9;
        fraction = (fraction << (leading_zeros + 1)) & kFractionMask;
        scaled_exponent = -leading_zeros;
    }
    // An even exponent takes the fraction as [0.5, 1), an odd one as [0.25, 0.5).
    const uint32_t scaled = (scaled_exponent & 1) == 0 ? 256 + (fraction >> 15)
                                                        : 128 + (fraction >> 16);
    const auto result_exponent = static_cast<uint32_t>((380 - scaled_exponent) / 2);
    return result_exponent << 23 | static_cast<uint32_t>(kRecipSqrtTable[scaled - 128]) << 15;
}

// IEEE division in four lanes, the same bits as four scalar divisions: AArch64
// has a vector division; ARMv7 NEON has none, so there each lane divides
// alone; SIMDe keeps float32x4_t as __m128 on x86 but offers no vdivq_f32, so
// SSE divides the lanes.
inline float32x4_t Divide(float32x4_t a, float32x4_t b) {
#if defined(__aarch64__)
    return vdivq_f32(a, b);
#elif !defined(__ARM_NEON) && defined(SIMDE_X86_SSE_NATIVE)
    return _mm_div_ps(a, b);
#else
    float x[4];
    float y[4];
    vst1q_f32(x, a);
    vst1q_f32(y, b);
    for (int32_t i = 0; i < 4; ++i) x[i] = x[i] / y[i];
    return vld1q_f32(x);
#endif
}

// IEEE square root in four lanes (ARMv7 NEON has none: lane by lane there).
inline float32x4_t SquareRootExact(float32x4_t a) {
#if defined(__aarch64__)
    return vsqrtq_f32(a);
#elif !defined(__ARM_NEON) && defined(SIMDE_X86_SSE_NATIVE)
    return _mm_sqrt_ps(a);
#else
    float x[4];
    vst1q_f32(x, a);
    for (float &v : x) v = __builtin_sqrtf(v);
    return vld1q_f32(x);
#endif
}

// True if every lane of the mask is set.
inline bool AllLanes(uint32x4_t mask) {
#if defined(__aarch64__)
    return vminvq_u32(mask) != 0;
#elif !defined(__ARM_NEON) && defined(SIMDE_X86_SSE2_NATIVE)
    return _mm_movemask_ps(_mm_castsi128_ps(simde_uint32x4_to_m128i(mask))) == 0xF;
#else
    const uint32x2_t halves = vand_u32(vget_low_u32(mask), vget_high_u32(mask));
    return (vget_lane_u32(halves, 0) & vget_lane_u32(halves, 1)) != 0;
#endif
}

// Four-lane FRECPE for every input, from operations on the bits and one
// exact division for the table entry.
inline float32x4_t EmulatedRecipEstimateAnyInput(float32x4_t x) {
    const uint32x4_t bits = vreinterpretq_u32_f32(x);
    const uint32x4_t sign = vandq_u32(bits, vdupq_n_u32(kSignBit));
    const uint32x4_t exponent = vandq_u32(vshrq_n_u32(bits, 23), vdupq_n_u32(0xFF));
    const uint32x4_t fraction = vandq_u32(bits, vdupq_n_u32(kFractionMask));
    const uint32x4_t subnormal = vceqq_u32(exponent, vdupq_n_u32(0));
    const uint32x4_t top_set = vtstq_u32(fraction, vdupq_n_u32(1u << 22));
    // A subnormal is normalised by one place (top fraction bit set) or two,
    // the latter lowering its exponent to -1.
    const uint32x4_t shift_two = vandq_u32(subnormal, vmvnq_u32(top_set));
    const uint32x4_t shifted = vbslq_u32(shift_two, vshlq_n_u32(fraction, 2), vshlq_n_u32(fraction, 1));
    const uint32x4_t normalised = vandq_u32(vbslq_u32(subnormal, shifted, fraction),
                                            vdupq_n_u32(kFractionMask));
    const int32x4_t scaled_exponent =
        vsubq_s32(vreinterpretq_s32_u32(exponent), vreinterpretq_s32_u32(vandq_u32(shift_two, vdupq_n_u32(1))));

    // The table entry is ((2^19 / (2a + 1)) + 1) / 2 for a = 256 + the top
    // eight fraction bits; one float division finds the integer quotient
    // exactly (it is never within 1/1023 of a whole number, far more than the
    // division's rounding error), so no lane has to visit the table.
    const int32x4_t a = vreinterpretq_s32_u32(vaddq_u32(vshrq_n_u32(normalised, 15), vdupq_n_u32(256)));
    const float32x4_t divisor = vcvtq_f32_s32(vaddq_s32(vshlq_n_s32(a, 1), vdupq_n_s32(1)));
    const int32x4_t quotient = vcvtq_s32_f32(Divide(vdupq_n_f32(524288.0f), divisor));
    const uint32x4_t entry = vandq_u32(
        vreinterpretq_u32_s32(vshrq_n_s32(vaddq_s32(quotient, vdupq_n_s32(1)), 1)), vdupq_n_u32(0xFF));

    const int32x4_t result_exponent = vsubq_s32(vdupq_n_s32(253), scaled_exponent);
    const uint32x4_t normal_result = vorrq_u32(
        vshlq_n_u32(vreinterpretq_u32_s32(result_exponent), 23), vshlq_n_u32(entry, 15));
    // result_exponent 0 or -1: the leading one and the entry shifted by 14 or 13.
    const uint32x4_t leading_one = vorrq_u32(entry, vdupq_n_u32(0x100));
    const uint32x4_t subnormal_result =
        vbslq_u32(vceqq_s32(result_exponent, vdupq_n_s32(0)), vshlq_n_u32(leading_one, 14),
                  vshlq_n_u32(leading_one, 13));
    uint32x4_t result = vbslq_u32(vcgtq_s32(result_exponent, vdupq_n_s32(0)), normal_result,
                                  subnormal_result);

    const uint32x4_t all_ones_exponent = vceqq_u32(exponent, vdupq_n_u32(0xFF));
    const uint32x4_t nan = vandq_u32(all_ones_exponent, vtstq_u32(fraction, fraction));
    const uint32x4_t overflow = vandq_u32(subnormal, vcltq_u32(fraction, vdupq_n_u32(1u << 21)));
    result = vbslq_u32(all_ones_exponent, vdupq_n_u32(0), result);
    result = vbslq_u32(overflow, vdupq_n_u32(kInfinityBits), result);
    result = vorrq_u32(result, sign);
    result = vbslq_u32(nan, vorrq_u32(bits, vdupq_n_u32(kQuietBit)), result);
    return vreinterpretq_f32_u32(result);
}

// Four-lane FRSQRTE for every input likewise, the entry from one exact
// square root and division.
inline float32x4_t EmulatedRecipSqrtEstimateAnyInput(float32x4_t x) {
    const uint32x4_t bits = vreinterpretq_u32_f32(x);
    const uint32x4_t exponent = vandq_u32(vshrq_n_u32(bits, 23), vdupq_n_u32(0xFF));
    const uint32x4_t fraction = vandq_u32(bits, vdupq_n_u32(kFractionMask));
    const uint32x4_t subnormal = vceqq_u32(exponent, vdupq_n_u32(0));
    // A subnormal's leading one moves out of the fraction and its exponent
    // becomes minus the count of zeros above that one. The fraction as a
    // whole number converts to a float exactly, and that float holds both:
    // its fraction field is the normalised fraction, its exponent 149 above
    // the normalised exponent.
    const uint32x4_t as_float = vreinterpretq_u32_f32(vcvtq_f32_s32(vreinterpretq_s32_u32(fraction)));
    const uint32x4_t normalised =
        vbslq_u32(subnormal, vandq_u32(as_float, vdupq_n_u32(kFractionMask)), fraction);
    const int32x4_t scaled_exponent = vbslq_s32(
        subnormal, vsubq_s32(vreinterpretq_s32_u32(vshrq_n_u32(as_float, 23)), vdupq_n_s32(149)),
        vreinterpretq_s32_u32(exponent));

    const uint32x4_t odd = vtstq_u32(vreinterpretq_u32_s32(scaled_exponent), vdupq_n_u32(1));
    const uint32x4_t table_index = vbslq_u32(odd, vshrq_n_u32(normalised, 16),
                                             vaddq_u32(vshrq_n_u32(normalised, 15), vdupq_n_u32(128)));
    // The entry is ceil(2^14 / sqrt(a')) / 2 for the scaled input a' (see
    // RecipSqrtTableEntry). a' takes 384 values, none a power of two; float
    // square root, division and rounding up give every one of them exactly
    // (the estimate test sweeps them all).
    const int32x4_t a = vaddq_s32(vreinterpretq_s32_u32(table_index), vdupq_n_s32(128));
    const int32x4_t below_half = vaddq_s32(vshlq_n_s32(a, 1), vdupq_n_s32(1));
    const int32x4_t above_half = vaddq_s32(vshlq_n_s32(vshrq_n_s32(a, 1), 2), vdupq_n_s32(2));
    const int32x4_t scaled_input = vbslq_s32(vcltq_s32(a, vdupq_n_s32(256)), below_half, above_half);
    const float32x4_t bound = Divide(vdupq_n_f32(16384.0f), SquareRootExact(vcvtq_f32_s32(scaled_input)));
    const int32x4_t truncated = vcvtq_s32_f32(bound);
    const int32x4_t rounded_up = vsubq_s32(
        truncated, vreinterpretq_s32_u32(vcltq_f32(vcvtq_f32_s32(truncated), bound)));
    const uint32x4_t entry = vandq_u32(vreinterpretq_u32_s32(vshrq_n_s32(rounded_up, 1)), vdupq_n_u32(0xFF));
    // (380 - e) / 2 rounds down; 380 - e is positive for every exponent here.
    const uint32x4_t result_exponent = vreinterpretq_u32_s32(
        vshrq_n_s32(vsubq_s32(vdupq_n_s32(380), scaled_exponent), 1));
    uint32x4_t result = vorrq_u32(vshlq_n_u32(result_exponent, 23), vshlq_n_u32(entry, 15));

    const uint32x4_t magnitude = vandq_u32(bits, vdupq_n_u32(~kSignBit));
    const uint32x4_t zero = vceqq_u32(magnitude, vdupq_n_u32(0));
    const uint32x4_t negative = vtstq_u32(bits, vdupq_n_u32(kSignBit));
    const uint32x4_t all_ones_exponent = vceqq_u32(exponent, vdupq_n_u32(0xFF));
    const uint32x4_t nan = vandq_u32(all_ones_exponent, vtstq_u32(fraction, fraction));
    result = vbslq_u32(all_ones_exponent, vdupq_n_u32(0), result);  // +inf gives +0
    result = vbslq_u32(negative, vdupq_n_u32(kDefaultNaNBits), result);
    result = vbslq_u32(zero, vorrq_u32(bits, vdupq_n_u32(kInfinityBits)), result);
    result = vbslq_u32(nan, vorrq_u32(bits, vdupq_n_u32(kQuietBit)), result);
    return vreinterpretq_f32_u32(result);
}

// The inputs whose estimates the short forms below give: for the
// reciprocal, normal with a normal result (2^-126 <= |x| < 2^126); for the
// root, positive, normal and finite. The library meets little else, and a
// caller that has checked all four lanes can also skip its own handling of
// zeros, infinities and subnormals.
inline bool UsualForRecipEstimate(float32x4_t x) {
    const float32x4_t magnitude = vabsq_f32(x);
    return AllLanes(vandq_u32(vcgeq_f32(magnitude, vdupq_n_f32(0x1p-126f)),
                              vcltq_f32(magnitude, vdupq_n_f32(0x1p126f))));
}

inline bool UsualForRecipSqrtEstimate(float32x4_t x) {
    return AllLanes(vandq_u32(vcgeq_f32(x, vdupq_n_f32(0x1p-126f)),
                              vcleq_f32(x, vdupq_n_f32(std::numeric_limits<float>::max()))));
}

// FRECPE of usual inputs. The entry for the 8-bit fraction prefix a is
// round(2^18 / (2a + 1)) (RecipTableEntry, never within 1/2046 of a tie),
// and 2a + 1 over 512 is the prefix's midpoint: the estimate is the IEEE
// reciprocal of x with its fraction cut to the prefix and half a unit of the
// prefix added, rounded to eight fraction bits. The division's error is far
// below the distance to a tie, and the rounding never carries out of the
// fraction (the entries stay below 512).
inline float32x4_t UsualRecipEstimate(float32x4_t x) {
    const uint32x4_t midpoint = vorrq_u32(vandq_u32(vreinterpretq_u32_f32(x), vdupq_n_u32(0xFFFF8000u)),
                                          vdupq_n_u32(0x4000u));
    const uint32x4_t reciprocal =
        vreinterpretq_u32_f32(Divide(vdupq_n_f32(1.0f), vreinterpretq_f32_u32(midpoint)));
    return vreinterpretq_f32_u32(
        vandq_u32(vaddq_u32(reciprocal, vdupq_n_u32(0x4000u)), vdupq_n_u32(0xFFFF8000u)));
}

// FRSQRTE of usual inputs. The entry is round(2^13 / sqrt(a'))
// (RecipSqrtTableEntry rounds 2^14 / sqrt(a') up and halves, which is the
// same), and a' over 1024 is the midpoint of the input's fraction cut to
// seven bits, scaled to [0.25, 1) by an even power of two: the estimate is
// the IEEE reciprocal of the IEEE root of that midpoint, rounded to eight
// fraction bits. The estimate test sweeps every prefix and exponent.
inline float32x4_t UsualRecipSqrtEstimate(float32x4_t x) {
    const uint32x4_t midpoint = vorrq_u32(vandq_u32(vreinterpretq_u32_f32(x), vdupq_n_u32(0xFFFF0000u)),
                                          vdupq_n_u32(0x8000u));
    const float32x4_t root = SquareRootExact(vreinterpretq_f32_u32(midpoint));
    const uint32x4_t inverse = vreinterpretq_u32_f32(Divide(vdupq_n_f32(1.0f), root));
    return vreinterpretq_f32_u32(
        vandq_u32(vaddq_u32(inverse, vdupq_n_u32(0x4000u)), vdupq_n_u32(0xFFFF8000u)));
}

// The emulations: the short forms where all four lanes allow, the full ones
// otherwise.
inline float32x4_t EmulatedRecipEstimate(float32x4_t x) {
    if (UsualForRecipEstimate(x)) [[likely]]
        return UsualRecipEstimate(x);
    return EmulatedRecipEstimateAnyInput(x);
}

inline float32x4_t EmulatedRecipSqrtEstimate(float32x4_t x) {
    if (UsualForRecipSqrtEstimate(x)) [[likely]]
        return UsualRecipSqrtEstimate(x);
    return EmulatedRecipSqrtEstimateAnyInput(x);
}

// The estimates the lane helpers refine: the instruction on ARM, its
// emulation elsewhere.
inline float32x4_t RecipEstimate(float32x4_t x) {
#if defined(__ARM_NEON)
    return vrecpeq_f32(x);
#else
    return EmulatedRecipEstimate(x);
#endif
}

inline float32x4_t RecipSqrtEstimate(float32x4_t x) {
#if defined(__ARM_NEON)
    return vrsqrteq_f32(x);
#else
    return EmulatedRecipSqrtEstimate(x);
#endif
}

}  // namespace kivbf::estimates
