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

// Sum of squares of x, each square shifted right by `right_shifts` so that
// the sum of `length` squares of the largest magnitude fits 31 bits. A sample
// of -32768 does not count towards the largest magnitude (its magnitude wraps
// to itself), and the sum wraps like a 32-bit register.
inline int32_t ScaledEnergy(const int16_t *x, size_t length, int &right_shifts) {
    int16_t peak = -1;
    for (size_t i = 0; i < length; ++i) {
        const int16_t magnitude = Wrap16(x[i] > 0 ? x[i] : -x[i]);
        if (magnitude > peak) peak = magnitude;
    }
    const int16_t headroom = NormSigned32(peak * peak);
    const int length_bits = std::bit_width(static_cast<uint32_t>(length));
    right_shifts = (peak == 0 || headroom > length_bits) ? 0 : length_bits - headroom;

    int32_t energy = 0;
    for (size_t i = 0; i < length; ++i) energy = WrapAdd32(energy, (x[i] * x[i]) >> right_shifts);
    return energy;
}

}  // namespace kivbf::vad
