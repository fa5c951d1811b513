// The library's own elementary functions: accuracy against x86-64's 80-bit
// long double over dense sweeps, four lanes equal to the scalar bit for bit,
// and the same bits on every architecture (hashes recorded on x86-64 that
// the aarch64 and armhf suites check too).
#include <gtest/gtest.h>

#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <type_traits>
#include <vector>

#include "math_functions.h"
#include "support.h"

namespace {

using namespace kivbf::math;
using kivbf_test::Fnv1a64;

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

// Every 293rd float pattern from lo to hi (both positive or both negative
// ranges are walked by magnitude), plus the ends.
std::vector<float> FloatSweep(float lo, float hi, uint32_t stride = 293) {
    std::vector<float> values;
    for (float x = lo; x < hi;) {
        values.push_back(x);
        const uint32_t bits = std::bit_cast<uint32_t>(x);
        const uint32_t next = x < 0.0f ? (bits >= stride + 0x80000000u ? bits - stride : 0u) : bits + stride;
        x = std::bit_cast<float>(next);
    }
    values.push_back(hi);
    return values;
}

std::vector<double> DoubleSweep(double lo, double hi, int count, unsigned seed) {
    std::mt19937_64 rng(seed);
    std::vector<double> values;
    for (int i = 0; i < count; ++i) values.push_back(std::uniform_real_distribution<double>(lo, hi)(rng));
    return values;
}

// |y - exact| in units of the last place of the exact value's format.
template <typename T>
long double UlpError(T y, long double exact) {
    const int digits = std::numeric_limits<T>::digits;
    const long double magnitude = std::fabs(exact) < std::numeric_limits<T>::min()
                                      ? static_cast<long double>(std::numeric_limits<T>::min())
                                      : std::fabs(exact);
    const long double ulp = std::ldexp(1.0L, std::ilogb(magnitude) - (digits - 1));
    return std::fabs(static_cast<long double>(y) - exact) / ulp;
}

// Over the sweep `x`: the worst error of `function` in ULP where the exact
// value is a normal T (on x86-64 only, where long double is precise enough),
// and the hash of the results' bits against the one recorded on x86-64.
template <typename T>
void ExpectAccurateAndRecorded([[maybe_unused]] const char *name, const std::vector<T> &x, T (*function)(T),
                               [[maybe_unused]] long double (*exact)(long double),
                               [[maybe_unused]] double bound_ulp, uint64_t recorded) {
    using Bits = std::conditional_t<sizeof(T) == 4, uint32_t, uint64_t>;
    [[maybe_unused]] long double worst = 0;
    uint64_t hash = kivbf_test::kFnv1aStart;
    for (T v : x) {
        const T y = function(v);
        hash = Fnv1a64(hash, std::bit_cast<Bits>(y), sizeof(T));
#if defined(__x86_64__)
        const long double e = exact(v);
        if (std::fabs(e) >= std::numeric_limits<T>::min() && std::fabs(e) <= std::numeric_limits<T>::max())
            worst = std::max(worst, UlpError(y, e));
#endif
    }
#if defined(__x86_64__)
    EXPECT_LE(worst, bound_ulp) << "over " << x.size() << " points";
    std::printf("%s: worst %.3Lf ULP over %zu points\n", name, worst, x.size());
#endif
    EXPECT_EQ(hash, recorded) << std::hex << "0x" << hash;
}

struct FloatCase {
    const char *name;
    float (*scalar)(float);
    float32x4_t (*lanes)(float32x4_t);
    long double (*exact)(long double);
    float lo, hi;
    double bound_ulp;
    uint64_t hash;  // of the sweep's results, recorded on x86-64
};

const FloatCase kFloatCases[] = {
    {"ExpF", ExpF<float>, ExpF<float32x4_t>, [](long double x) { return std::exp(x); },
     -87.33f, 88.72f, 1.0, 0xa5251e4264e8b781ull},
    {"LogF", LogF<float>, LogF<float32x4_t>, [](long double x) { return std::log(x); },
     FLT_MIN, FLT_MAX, 1.0, 0x73d5f870ce836bb2ull},
};

TEST(Math, FloatFunctionsAreAccurateAndLanesEqualScalar) {
    for (const FloatCase &c : kFloatCases) {
        SCOPED_TRACE(c.name);
        std::vector<float> x = FloatSweep(c.lo, c.hi);
        while (x.size() % 4 != 0) x.push_back(c.hi);
        int lane_mismatches = 0;
        for (size_t i = 0; i < x.size(); i += 4) {
            float lanes[4];
            vst1q_f32(lanes, c.lanes(vld1q_f32(&x[i])));
            for (size_t j = i; j < i + 4; ++j)
                if (std::bit_cast<uint32_t>(c.scalar(x[j])) != std::bit_cast<uint32_t>(lanes[j - i]) &&
                    ++lane_mismatches < 5)
                    ADD_FAILURE() << "lanes differ at " << x[j];
        }
        ExpectAccurateAndRecorded(c.name, x, c.scalar, c.exact, c.bound_ulp, c.hash);
    }
}

TEST(Math, FloatEdgeCases) {
    const struct { float x, exp, log; } kEdges[] = {
        {0.0f, 1.0f, -kInf},        {-0.0f, 1.0f, -kInf},     {1.0f, 2.71828183f, 0.0f},
        {-1.0f, 0.36787944f, kNaN}, {kInf, kInf, kInf},       {-kInf, 0.0f, kNaN},
        {100.0f, kInf, 4.60517019f}, {-100.0f, 0.0f, kNaN},   {1e-40f, 1.0f, -kInf},
        {kNaN, kNaN, kNaN},
    };
    for (const auto &e : kEdges) {
        SCOPED_TRACE(e.x);
        for (const auto &[got, want] : {std::pair{ExpF(e.x), e.exp}, std::pair{LogF(e.x), e.log}}) {
            if (std::isnan(want)) EXPECT_TRUE(std::isnan(got)) << got;
            else EXPECT_FLOAT_EQ(got, want);
        }
    }
    // No subnormal results, whatever the unit: below FLT_MIN is zero.
    EXPECT_EQ(ExpF(-87.34f), 0.0f);
    EXPECT_GE(ExpF(-87.33f), FLT_MIN);
}

struct DoubleCase {
    const char *name;
    double (*function)(double);
    long double (*exact)(long double);
    double lo, hi;
    double bound_ulp;
    uint64_t hash;
};

const DoubleCase kDoubleCases[] = {
    {"Exp", Exp, [](long double x) { return std::exp(x); }, -708.0, 709.0, 1.0, 0xb90630043fac9b5cull},
    {"Exp near 0", Exp, [](long double x) { return std::exp(x); }, -1.0, 1.0, 1.0, 0xc65e96986a123ef4ull},
    {"Sin", Sin, [](long double x) { return std::sin(x); }, -8.0, 8.0, 1.0, 0x7e85f58e651d0df7ull},
    {"Sin wide", Sin, [](long double x) { return std::sin(x); }, -1048576.0, 1048576.0, 1.0, 0xa7557a4876ca5443ull},
    {"Cos", Cos, [](long double x) { return std::cos(x); }, -8.0, 8.0, 1.0, 0xcc7dd4d853a80a0eull},
    {"Cos wide", Cos, [](long double x) { return std::cos(x); }, -1048576.0, 1048576.0, 1.0, 0x425033171e2534c6ull},
    {"Atan", Atan, [](long double x) { return std::atan(x); }, -4.0, 4.0, 2.0, 0xe25e38487f5ec493ull},
    {"Atan wide", Atan, [](long double x) { return std::atan(x); }, -1e6, 1e6, 2.0, 0xb87c01ba9e57bb4ull},
};

TEST(Math, DoubleFunctionsAreAccurate) {
    for (const DoubleCase &c : kDoubleCases) {
        SCOPED_TRACE(c.name);
        ExpectAccurateAndRecorded(c.name, DoubleSweep(c.lo, c.hi, 200000, 7), c.function, c.exact, c.bound_ulp,
                                  c.hash);
    }
}

TEST(Math, DoubleEdgeCasesStayFinite) {
    const double kDoubleInf = std::numeric_limits<double>::infinity();
    EXPECT_EQ(Exp(0.0), 1.0);
    EXPECT_EQ(Exp(710.0), kDoubleInf);
    EXPECT_EQ(Exp(-746.0), 0.0);
    EXPECT_GT(Exp(-740.0), 0.0);  // subnormal
    EXPECT_TRUE(std::isnan(Sin(kDoubleInf)) && std::isnan(Cos(-kDoubleInf)));
    EXPECT_EQ(Sin(0.0), 0.0);
    EXPECT_EQ(Cos(0.0), 1.0);
    EXPECT_DOUBLE_EQ(Atan(kDoubleInf), M_PI / 2);
    EXPECT_DOUBLE_EQ(Atan(-1.0), -M_PI / 4);
    // Arguments far beyond any phase the library forms: finite, in range.
    for (double x : {3e38, -1e300, 1.7e308, 123456789012.0}) {
        EXPECT_LE(std::fabs(Sin(x)), 1.0) << x;
        EXPECT_LE(std::fabs(Cos(x)), 1.0) << x;
    }
}

}  // namespace
