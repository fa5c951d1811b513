// Fixed-point helpers of the detector. The detector's arithmetic is defined on
// two's-complement words that wrap: 16-bit results are narrowed by
// truncation, and the few 32-bit products and shifts that can leave the range
// are done in unsigned arithmetic so that they wrap the same way.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

namespace kivbf::vad {

constexpr int16_t Wrap16(int32_t v) { return static_cast<int16_t>(v); }

constexpr int32_t WrapAdd32(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}
constexpr int32_t WrapSub32(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}
constexpr int32_t WrapMul32(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}
constexpr int32_t WrapShiftLeft32(int32_t v, int shift) {
    return static_cast<int32_t>(static_cast<uint32_t>(v) << shift);
}

// Left shifts that keep a non-zero value from overflowing (redundant sign bits).
constexpr int16_t NormSigned32(int32_t v) {
    if (v == 0) return 0;
    const uint32_t magnitude_bits = static_cast<uint32_t>(v < 0 ? ~v : v);
    return static_cast<int16_t>(std::countl_zero(magnitude_bits) - 1);
}
constexpr int16_t NormUnsigned32(uint32_t v) {
    return v == 0 ? 0 : static_cast<int16_t>(std::countl_zero(v));
}

// Quotient truncated toward zero; a zero divisor gives the largest value.
constexpr int32_t DivW32ByW16(int32_t num, int16_t den) {
    if (den == 0) return INT32_MAX;
    if (den == -1) return WrapSub32(0, num);
    return num / den;
}

// Right shift for each square of a band so that the sum of `length` squares of
// its peak magnitude fits 31 bits. A sample of -32768 does not count towards
// the peak (its magnitude wraps to itself), so the peak starts at -1.
inline int EnergyScalingShift(int16_t peak, size_t length) {
    const int16_t headroom = NormSigned32(peak * peak);
    const int length_bits = std::bit_width(static_cast<uint32_t>(length));
    return (peak == 0 || headroom > length_bits) ? 0 : length_bits - headroom;
}

// Sum of the squares of x, each shifted right by `shift`; the sum wraps like a
// 32-bit register.
inline uint32_t ShiftedEnergy(const int16_t *x, size_t length, int shift) {
    uint32_t energy = 0;
    for (size_t i = 0; i < length; ++i) energy += static_cast<uint32_t>((x[i] * x[i]) >> shift);
    return energy;
}

}  // namespace kivbf::vad
