// Twiddle factors of the 256-point real FFT, evaluated by the compiler.
//
// The roots of unity come from constexpr double arithmetic (octant reduction
// and a Taylor series), which the compiler carries out in IEEE double
// whatever the target, and are then rounded to float once. No libm call is
// involved, so every build holds the same table bits.
#pragma once

#include <array>
#include <cstdint>

namespace kivbf::fft {

struct UnitRoot {
    double cos;
    double sin;
};

inline constexpr double kTwoPi = 6.28318530717958647692528676655900577;

// Series for |x| <= pi/4; twelve terms leave less than 1e-25.
constexpr double TaylorSin(double x) {
    double term = x, sum = x;
    for (int i = 1; i < 12; ++i) {
        term = term * (-x * x) / static_cast<double>((2 * i) * (2 * i + 1));
        sum += term;
    }
    return sum;
}

constexpr double TaylorCos(double x) {
    double term = 1.0, sum = 1.0;
    for (int i = 1; i < 12; ++i) {
        term = term * (-x * x) / static_cast<double>((2 * i - 1) * (2 * i));
        sum += term;
    }
    return sum;
}

// cos and sin of 2 pi k / n, for n a multiple of 8: the angle is reduced to
// its quadrant and, past the octant, to its complement, so the series only
// sees arguments up to pi/4 and the results keep the symmetries exactly.
constexpr UnitRoot RootOfUnity(int64_t k, int64_t n) {
    k %= n;
    if (k < 0) k += n;
    const int64_t quarter = n / 4;
    const int64_t quadrant = k / quarter;
    const int64_t within = k % quarter;
    UnitRoot root{};
    if (2 * within <= quarter) {
        const double x = kTwoPi * static_cast<double>(within) / static_cast<double>(n);
        root = {TaylorCos(x), TaylorSin(x)};
    } else {
        const double x = kTwoPi * static_cast<double>(quarter - within) / static_cast<double>(n);
        root = {TaylorSin(x), TaylorCos(x)};
    }
    for (int64_t q = 0; q < quadrant; ++q) root = {-root.sin, root.cos};  // one quarter turn
    return root;
}

// Twiddles of one radix-4 pass over `points` points: w^(r p) for r = 1..3 and
// p < points / 4, w = exp(-2 pi i / points), split into real and imaginary
// rows so that four consecutive p load as one vector.
template <int32_t kQuarter>
struct Radix4Twiddles {
    std::array<std::array<float, kQuarter>, 3> re;
    std::array<std::array<float, kQuarter>, 3> im;
};

template <int32_t kPoints>
constexpr Radix4Twiddles<kPoints / 4> MakeRadix4Twiddles() {
    Radix4Twiddles<kPoints / 4> table{};
    for (int32_t r = 1; r <= 3; ++r) {
        for (int32_t p = 0; p < kPoints / 4; ++p) {
            const UnitRoot w = RootOfUnity(r * p, kPoints);
            table.re[r - 1][p] = static_cast<float>(w.cos);
            table.im[r - 1][p] = static_cast<float>(-w.sin);
        }
    }
    return table;
}

// The same twiddles with each value repeated in four lanes, for passes
// whose lanes all belong to one butterfly: lanes[p][2 (r - 1) + part],
// part 0 the real and 1 the imaginary part of w^(r p).
template <int32_t kQuarter>
struct Radix4LaneTwiddles {
    std::array<std::array<std::array<float, 4>, 6>, kQuarter> lanes;
};

template <int32_t kPoints>
constexpr Radix4LaneTwiddles<kPoints / 4> MakeRadix4LaneTwiddles() {
    const Radix4Twiddles<kPoints / 4> table = MakeRadix4Twiddles<kPoints>();
    Radix4LaneTwiddles<kPoints / 4> repeated{};
    for (int32_t p = 0; p < kPoints / 4; ++p) {
        for (int32_t r = 0; r < 3; ++r) {
            for (int32_t lane = 0; lane < 4; ++lane) {
                repeated.lanes[p][2 * r][lane] = table.re[r][p];
                repeated.lanes[p][2 * r + 1][lane] = table.im[r][p];
            }
        }
    }
    return repeated;
}

// Factors of the split between the 128-point complex spectrum Z of the
// samples taken in pairs and the 256-point real spectrum X, for k < 128 and
// W = exp(-2 pi i k / 256):
//   forward  X[k] = A / 2 + T B,          A, B = Z[k] +- conj Z[128 - k], T = -i W / 2
//   inverse  Z[k] / 128 = A / 256 + U B,  A, B = X[k] +- conj X[128 - k], U = i conj(W) / 256
// Both are W's float rounding scaled by powers of two, which is exact.
struct SplitTwiddles {
    std::array<float, 128> re;
    std::array<float, 128> im;
};

constexpr SplitTwiddles MakeForwardSplitTwiddles() {
    SplitTwiddles table{};
    for (int32_t k = 0; k < 128; ++k) {
        const UnitRoot w = RootOfUnity(k, 256);
        table.re[k] = -0.5f * static_cast<float>(w.sin);
        table.im[k] = -0.5f * static_cast<float>(w.cos);
    }
    return table;
}

constexpr SplitTwiddles MakeInverseSplitTwiddles() {
    SplitTwiddles table{};
    for (int32_t k = 0; k < 128; ++k) {
        const UnitRoot w = RootOfUnity(k, 256);
        table.re[k] = -static_cast<float>(w.sin) / 256.0f;
        table.im[k] = static_cast<float>(w.cos) / 256.0f;
    }
    return table;
}

inline constexpr auto kPass128Twiddles = MakeRadix4Twiddles<128>();
inline constexpr auto kPass32LaneTwiddles = MakeRadix4LaneTwiddles<32>();
inline constexpr auto kPass8LaneTwiddles = MakeRadix4LaneTwiddles<8>();
inline constexpr SplitTwiddles kForwardSplitTwiddles = MakeForwardSplitTwiddles();
inline constexpr SplitTwiddles kInverseSplitTwiddles = MakeInverseSplitTwiddles();

}  // namespace kivbf::fft
