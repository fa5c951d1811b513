// The lane helpers behind every per-bin stage (vector_lanes.h), in four lanes
// and on the last bin; which arithmetic the build got.
#include <gtest/gtest.h>

#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>
#include <vector>

#include "vector_lanes.h"

using namespace kivbf::lanes;

namespace {

// An ARM build without the vector unit (armhf without -mfpu=neon) would fall
// back to SIMDe silently; refuse to build that at all.
#if (defined(__aarch64__) || defined(__arm__)) && !defined(__ARM_NEON)
#error "ARM builds must enable NEON (see cmake/toolchain-*.cmake)"
#endif
#if defined(__arm__) && !defined(__ARM_PCS_VFP)
#error "32-bit ARM builds must use the hard-float ABI"
#endif

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

std::vector<float> Random(int32_t count, float low, float high, unsigned seed) {
    std::mt19937 rng(seed);
    std::vector<float> v(count);
    for (float &x : v) x = std::uniform_real_distribution<float>(low, high)(rng);
    return v;
}

int64_t UlpDistance(float a, float b) {
    return std::llabs(static_cast<int64_t>(std::bit_cast<int32_t>(a)) - std::bit_cast<int32_t>(b));
}

bool SameBits(float a, float b) {
    return std::isnan(a) ? std::isnan(b) : std::bit_cast<uint32_t>(a) == std::bit_cast<uint32_t>(b);
}

}  // namespace

// Quotient and SquareRoot run on refined ARM estimates in lanes and on IEEE
// arithmetic in the last bin: both within a few ULP, special values exact.
TEST(Lanes, QuotientAndSquareRootAreWithinAFewUlpAndHandleSpecialValues) {
    std::mt19937 rng(6);
    std::uniform_real_distribution<float> exponent(-30.0f, 30.0f);
    const int32_t n = 1025;
    std::vector<float> a(n), b(n), q(n), r(n);
    for (int32_t i = 0; i < n; ++i)
        a[i] = std::exp2(exponent(rng)), b[i] = std::exp2(exponent(rng)) * (i % 5 == 0 ? -1.0f : 1.0f);
    const auto run = [&](int32_t count) {
        ForEachBin(count, [&](auto element, int32_t i) {
            using T = decltype(element);
            Store(q.data(), i, Quotient(Load<T>(a.data(), i), Load<T>(b.data(), i)));
            Store(r.data(), i, SquareRoot(Load<T>(a.data(), i)));
        });
    };
    run(n);
    for (int32_t i = 0; i < n; ++i) {
        EXPECT_LE(UlpDistance(q[i], a[i] / b[i]), 4) << i;
        EXPECT_LE(UlpDistance(r[i], std::sqrt(a[i])), 4) << i;
    }

    // Each special value once in a lane (index 0) and once in the last bin (8).
    const float denormal = FLT_MIN / 4.0f;
    const struct { float numerand, divisor, quotient, radicand, root; } specials[] = {
        {4.0f, 0.0f, kInf, 0.0f, 0.0f}, {-4.0f, 0.0f, -kInf, kInf, kInf}, {4.0f, -0.0f, -kInf, denormal, 0.0f},
        {4.0f, denormal, kInf, -1.0f, kNaN}, {4.0f, kInf, 0.0f, kNaN, kNaN}};
    for (const auto &c : specials) {
        for (int32_t at : {0, 8}) {
            std::fill(a.begin(), a.end(), 1.0f);
            std::fill(b.begin(), b.end(), 1.0f);
            a[at] = c.numerand, b[at] = c.divisor;
            run(9);
            EXPECT_EQ(q[at], c.quotient) << c.numerand << " / " << c.divisor << " @" << at;
            a[at] = c.radicand;
            run(9);
            EXPECT_TRUE(SameBits(r[at], c.root)) << c.radicand << " @" << at;
            for (int32_t i = 1; i < 4; ++i)  // ordinary lanes beside a special one: still a few ULP
                EXPECT_TRUE(UlpDistance(q[i], 1.0f) <= 4 && UlpDistance(r[i], 1.0f) <= 4)
                    << "1 / 1 = " << q[i] << ", sqrt 1 = " << r[i] << " in lane " << i << " beside " << c.divisor;
        }
    }
    // The canceller's bound for a zero tap: min(sqrt(4 / 0), 1) = 1 in both.
    EXPECT_EQ(Min(SquareRoot(Quotient(4.0f, 0.0f)), 1.0f), 1.0f);
    float bound[4];
    Store(bound, 0, Min(SquareRoot(Quotient(Float4(4.0f), Float4(0.0f))), Float4(1.0f)));
    for (float g : bound) EXPECT_EQ(g, 1.0f);
}

// Stages whose quotients are IEEE divisions divide four lanes at once; every
// lane must be the scalar quotient bit for bit, specials and subnormals too.
TEST(Lanes, ExactQuotientIsTheScalarDivisionInEveryLane) {
    const float specials[] = {0.0f, -0.0f, kInf, -kInf, kNaN, FLT_MIN, FLT_MIN / 8.0f, -FLT_MAX, 1.0f, 3.0f};
    std::vector<float> a = Random(400, -1e3f, 1e3f, 7), b = Random(400, -2.0f, 2.0f, 8);
    for (float x : specials)
        for (float y : specials) a.push_back(x), b.push_back(y);
    for (size_t i = 0; i + 4 <= a.size(); i += 4) {
        float out[4];
        Store(out, 0, ExactQuotient(Load<Float4>(a.data(), i), Load<Float4>(b.data(), i)));
        for (size_t j = 0; j < 4; ++j)
            EXPECT_TRUE(SameBits(out[j], a[i + j] / b[i + j])) << a[i + j] << " / " << b[i + j];
    }
}

// AtLeast is Max against a floor (one SSE instruction on x86), and the flush
// keeps only the sign of a denormal: bit for bit the scalar forms, specials too.
TEST(Lanes, FloorAndFlushMatchTheScalarForms) {
    const float values[] = {0.0f, -0.0f, kInf, -kInf, kNaN, -kNaN, FLT_MIN, FLT_MIN / 8.0f,
                            -FLT_MIN / 8.0f, 1e-6f, -1.0f, 3.0f};
    for (const float floor : {1e-6f, -2.0f, kNaN})  // AtLeast takes nonzero floors
        for (const float x : values) {
            float out[4];
            Store(out, 0, AtLeast(Float4(x), floor));
            // ARMv7 NEON flushes a denormal operand of any max (the stages
            // floor values that are never denormal).
            if (std::fpclassify(x) != FP_SUBNORMAL) {
                EXPECT_TRUE(SameBits(out[0], Max(x, floor))) << x << " floor " << floor;
            }
            vst1q_f32(out, FlushDenormal(vdupq_n_f32(x)));
            EXPECT_TRUE(SameBits(out[0], FlushDenormal(x))) << x;
        }
}

// x = 1 + 2^-23, y = 2^-12: x*x = 1 + 2^-22 + 2^-46 rounds to 1 + 2^-22, and
// adding y*y = 2^-24 lands exactly half way between two floats, which rounds
// to even (1 + 2^-22). A fused x*x + y*y keeps the 2^-46 and rounds up to
// 1 + 3 * 2^-23. Both element orders show fusing of either product, in lanes,
// in the last bin and in code compiled with the project's flags elsewhere.
TEST(Lanes, EveryProductIsRoundedBeforeAdding) {
    const float x = 1.0f + 0x1p-23f, y = 0x1p-12f, unfused = 1.0f + 0x1p-22f;
    float spectrum[2 * 9], power[9];
    for (int k = 0; k < 9; ++k) {
        spectrum[2 * k] = (k % 2 == 0) ? x : y;
        spectrum[2 * k + 1] = (k % 2 == 0) ? y : x;
    }
    ForEachBin(9, [&](auto element, int32_t k) {
        Store(power, k, Power(LoadComplex<decltype(element)>(spectrum, k)));
    });
    for (int k = 0; k < 9; ++k) EXPECT_EQ(power[k], unfused) << "bin " << k;
    volatile float vx = x, vy = y;  // keeps the compiler from folding the constants
    const float a = vx, b = vy;
    EXPECT_EQ(a * a + b * b, unfused);
    EXPECT_EQ(b * b + a * a, unfused);
}
