#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "vector_kernels.h"

namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kSentinel = -12345.0f;
// Counts around the four-lane boundary, and the core's 129 bins.
constexpr int32_t kCounts[] = {0, 1, 2, 3, 4, 5, 7, 8, 9, 129};

std::vector<float> Random(int32_t count, float low, float high, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> dist(low, high);
    std::vector<float> v(count);
    for (float &x : v) x = dist(rng);
    return v;
}

int64_t UlpDistance(float a, float b) {
    int32_t ia, ib;
    std::memcpy(&ia, &a, sizeof ia);
    std::memcpy(&ib, &b, sizeof ib);
    return std::llabs(static_cast<int64_t>(ia) - ib);
}

// Runs `kernel` on an output seeded with `seed` (padded by one sentinel) and
// checks the written values exactly and that nothing past them changed.
void ExpectWrites(const std::function<void(float *)> &kernel, std::vector<float> seed,
                  const std::vector<float> &expected, const std::string &what) {
    seed.resize(expected.size() + 1, kSentinel);
    kernel(seed.data());
    for (size_t i = 0; i < expected.size(); ++i)
        EXPECT_EQ(seed[i], expected[i]) << what << " @" << i;
    EXPECT_EQ(seed.back(), kSentinel) << what << " wrote past its end";
}

TEST(VectorKernels, ComplexKernelsMatchPerBinArithmeticAtEveryTailLength) {
    for (int32_t bins : kCounts) {
        const int32_t n = 2 * bins;
        const auto a = Random(n, -3.0f, 3.0f, 1), b = Random(n, -3.0f, 3.0f, 2);
        const auto g = Random(bins, 0.5f, 4.0f, 3);
        std::vector<float> power(bins), re(bins), im(bins), cre(bins), cim(bins), zero(bins, 0.0f);
        std::vector<float> sum(n), scaled(n), mixed(n), by_gain(n);
        for (int32_t k = 0; k < bins; ++k) {
            const float ar = a[2 * k], ai = a[2 * k + 1], br = b[2 * k], bi = b[2 * k + 1];
            power[k] = ar * ar + ai * ai;
            re[k] = ar * br - ai * bi, im[k] = ar * bi + ai * br;
            cre[k] = ar * br + ai * bi, cim[k] = ar * bi - ai * br;
        }
        for (int32_t i = 0; i < n; ++i) {
            sum[i] = a[i] + b[i];
            scaled[i] = a[i] * 0.25f;
            mixed[i] = 0.9f * a[i] + (1.0f - 0.9f) * b[i];
            by_gain[i] = a[i] * g[i / 2];
        }
        const std::string at = " bins=" + std::to_string(bins);
        const float *pa = a.data(), *pb = b.data();
        ExpectWrites([&](float *o) { cplx_power(pa, o, n); }, {}, power, "power" + at);
        ExpectWrites([&](float *o) { cplx_mul_real(pa, pb, o, n, 1); }, {}, re, "a*b re" + at);
        ExpectWrites([&](float *o) { cplx_mul_imag(pa, pb, o, n, 1); }, {}, im, "a*b im" + at);
        ExpectWrites([&](float *o) { cplx_mul_real(pa, pb, o, n, 0); }, {}, cre, "a'b re" + at);
        ExpectWrites([&](float *o) { cplx_mul_imag(pa, pb, o, n, 0); }, {}, cim, "a'b im" + at);
        ExpectWrites([&](float *o) { cplx_mul_real(pa, pa, o, n, 0); }, {}, power, "a'a re" + at);
        ExpectWrites([&](float *o) { cplx_mul_imag(pa, pa, o, n, 0); }, {}, zero, "a'a im" + at);
        ExpectWrites([&](float *o) { cplx_add(o, pb, o, n); }, a, sum, "add in place" + at);
        ExpectWrites([&](float *o) { cplx_scale(o, 0.25f, o, n); }, a, scaled, "scale" + at);
        ExpectWrites([&](float *o) { cplx_mix(o, pb, 0.9f, o, n); }, a, mixed, "mix" + at);
        ExpectWrites([&](float *o) { cplx_scale_by_real(o, g.data(), o, n); }, a, by_gain,
                     "gain" + at);

        std::vector<float> in_place = a;
        cplx_power(in_place.data(), in_place.data(), n);
        EXPECT_EQ(std::vector<float>(in_place.begin(), in_place.begin() + bins), power) << at;

        std::vector<float> split(n + 2, kSentinel), joined(n + 1, kSentinel);
        cplx_deinterleave(pa, split.data(), split.data() + bins + 1, n);
        cplx_interleave(split.data(), split.data() + bins + 1, joined.data(), bins);
        EXPECT_EQ(split[bins], kSentinel) << at;
        EXPECT_EQ(std::vector<float>(joined.begin(), joined.begin() + n), a) << at;
        EXPECT_EQ(joined.back(), kSentinel) << at;

        std::vector<float> quotient = a;
        cplx_divide_by_real(quotient.data(), g.data(), quotient.data(), n);
        for (int32_t i = 0; i < n; ++i)
            EXPECT_LE(UlpDistance(quotient[i], a[i] / g[i / 2]), 4) << at;
    }
}

TEST(VectorKernels, RealKernelsMatchScalarArithmeticInPlace) {
    using Kernel = std::function<void(float *, const float *, int32_t)>;  // out aliases a
    using Scalar = std::function<float(float, float)>;
    const std::pair<Kernel, Scalar> cases[] = {
        {[](float *o, const float *b, int32_t n) { vec_add(o, b, o, n); },
         [](float x, float y) { return x + y; }},
        {[](float *o, const float *b, int32_t n) { vec_mul(o, b, o, n); },
         [](float x, float y) { return x * y; }},
        {[](float *o, const float *b, int32_t n) { vec_mix(o, b, 0.3f, o, n); },
         [](float x, float y) { return 0.3f * x + (1.0f - 0.3f) * y; }},
        {[](float *o, const float *b, int32_t n) { vec_mix_alt(o, b, 0.3f, o, n); },
         [](float x, float y) { return 0.3f * x + (1.0f - 0.3f) * y; }},
        {[](float *o, const float *, int32_t n) { vec_floor(o, 0.5f, o, n); },
         [](float x, float) { return std::max(x, 0.5f); }},
        {[](float *o, const float *, int32_t n) { vec_ceil(o, 0.5f, o, n); },
         [](float x, float) { return std::min(x, 0.5f); }},
        {[](float *o, const float *, int32_t n) { vec_scale(o, -1.5f, n); },
         [](float x, float) { return x * -1.5f; }},
        {[](float *o, const float *, int32_t n) { vec_fill(o, 2.5f, n); },
         [](float, float) { return 2.5f; }},
        {[](float *o, const float *, int32_t n) { vec_exp(o, o, n); },
         [](float x, float) { return std::exp(x); }},
    };
    for (size_t c = 0; c < std::size(cases); ++c) {
        for (int32_t n : kCounts) {
            const auto a = Random(n, -2.0f, 2.0f, 4), b = Random(n, -2.0f, 2.0f, 5);
            std::vector<float> expected(n);
            for (int32_t i = 0; i < n; ++i) expected[i] = cases[c].second(a[i], b[i]);
            ExpectWrites([&](float *o) { cases[c].first(o, b.data(), n); }, a, expected,
                         "case " + std::to_string(c) + " n=" + std::to_string(n));
        }
    }
}

TEST(VectorKernels, DivideAndSqrtAreWithinAFewUlpAndHandleSpecialValues) {
    std::mt19937 rng(6);
    std::uniform_real_distribution<float> exponent(-30.0f, 30.0f);
    std::vector<float> a(1025), b(1025), q(1025), r(1025);
    for (size_t i = 0; i < a.size(); ++i) {
        a[i] = std::exp2(exponent(rng)) * (i % 3 == 0 ? -1.0f : 1.0f);
        b[i] = std::exp2(exponent(rng)) * (i % 5 == 0 ? -1.0f : 1.0f);
    }
    vec_divide(a.data(), b.data(), q.data(), 1025);
    for (size_t i = 0; i < a.size(); ++i) EXPECT_LE(UlpDistance(q[i], a[i] / b[i]), 4) << i;
    for (float &x : a) x = std::fabs(x);
    vec_sqrt(a.data(), r.data(), 1025);
    for (size_t i = 0; i < a.size(); ++i) EXPECT_LE(UlpDistance(r[i], std::sqrt(a[i])), 4) << i;

    // Each special value once in a lane (index 0) and once in the tail (index 8).
    const float denormal = FLT_MIN / 4.0f, nan = std::numeric_limits<float>::quiet_NaN();
    const float numerand[] = {4.0f, -4.0f, 4.0f, 4.0f, 4.0f};
    const float divisor[] = {0.0f, 0.0f, -0.0f, denormal, kInf};
    const float quotient[] = {kInf, -kInf, -kInf, kInf, 0.0f};
    const float radicand[] = {0.0f, kInf, denormal, -1.0f, nan};
    const float root[] = {0.0f, kInf, 0.0f, nan, nan};
    for (int32_t c = 0; c < 5; ++c) {
        for (int32_t at : {0, 8}) {
            std::vector<float> x(9, 1.0f), y(9, 1.0f), out(9);
            x[at] = numerand[c], y[at] = divisor[c];
            vec_divide(x.data(), y.data(), out.data(), 9);
            EXPECT_EQ(out[at], quotient[c]) << numerand[c] << " / " << divisor[c] << " @" << at;
            x[at] = radicand[c];
            vec_sqrt(x.data(), out.data(), 9);
            if (std::isnan(root[c]))
                EXPECT_TRUE(std::isnan(out[at])) << "sqrt " << radicand[c] << " @" << at;
            else
                EXPECT_EQ(out[at], root[c]) << "sqrt " << radicand[c] << " @" << at;
        }
    }

    // The canceller's bound: 4 / 0 = inf, sqrt(inf) = inf, min(inf, 1) = 1.
    std::vector<float> four(5, 4.0f), zero(5, 0.0f), bound(5);
    vec_divide(four.data(), zero.data(), bound.data(), 5);
    vec_sqrt(bound.data(), bound.data(), 5);
    vec_ceil(bound.data(), 1.0f, bound.data(), 5);
    EXPECT_EQ(bound, std::vector<float>(5, 1.0f));
}

TEST(VectorKernels, DotAndConvolutionSumInOneFixedOrder) {
    for (int32_t n : kCounts) {
        const auto a = Random(n, -1.0f, 1.0f, 7), b = Random(n, -1.0f, 1.0f, 8);
        float lane[4] = {0.0f, 0.0f, 0.0f, 0.0f};
        int32_t i = 0;
        for (; i + 4 <= n; i += 4)
            for (int32_t l = 0; l < 4; ++l) lane[l] += a[i + l] * b[i + l];
        float expected = (lane[0] + lane[2]) + (lane[1] + lane[3]);
        for (; i < n; ++i) expected += a[i] * b[i];
        EXPECT_EQ(vec_dot(a.data(), b.data(), n), expected) << "n=" << n;
    }

    // The post-filter's smoothing: 129 values padded by 21 on each side, 22 taps.
    const int32_t n = 129, m = 22;
    const auto x = Random(n + 2 * (m - 1), 0.0f, 1.0f, 9), h = Random(m, 0.0f, 0.1f, 10);
    std::vector<float> expected(n + m - 1);
    for (int32_t j = 0; j < n + m - 1; ++j) {
        expected[j] = vec_dot(x.data() + j, h.data(), m);
        double sum = 0.0;
        for (int32_t t = 0; t < m; ++t) sum += static_cast<double>(x[j + t]) * h[t];
        EXPECT_NEAR(expected[j], sum, 1e-6) << j;
    }
    ExpectWrites([&](float *o) { vec_convolve(x.data(), h.data(), o, n, m); }, {}, expected,
                 "conv");
}

}  // namespace
