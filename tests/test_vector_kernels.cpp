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
// Element counts around the four-lane boundary, and the core's 129 bins.
constexpr int32_t kCounts[] = {0, 1, 2, 3, 4, 5, 7, 8, 9, 129};

std::vector<float> Random(size_t count, float low, float high, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> dist(low, high);
    std::vector<float> v(count);
    for (float &x : v) x = dist(rng);
    return v;
}

// Distance in representable floats between two finite values of one sign.
int64_t UlpDistance(float a, float b) {
    int32_t ia, ib;
    std::memcpy(&ia, &a, sizeof ia);
    std::memcpy(&ib, &b, sizeof ib);
    return std::llabs(static_cast<int64_t>(ia) - ib);
}

// Runs `kernel` into an output one element longer than `written` and checks
// every written value against `expected` and that nothing past it changed.
void ExpectWrites(const std::function<void(float *)> &kernel, const std::vector<float> &expected,
                  const std::string &what) {
    std::vector<float> out(expected.size() + 1, kSentinel);
    kernel(out.data());
    for (size_t i = 0; i < expected.size(); ++i)
        EXPECT_EQ(out[i], expected[i]) << what << " index " << i << " of " << expected.size();
    EXPECT_EQ(out.back(), kSentinel) << what << " wrote past its end";
}

TEST(VectorKernels, ComplexProductsMatchScalarArithmeticAtEveryTailLength) {
    for (int32_t bins : kCounts) {
        const auto a = Random(2 * bins, -3.0f, 3.0f, 1);
        const auto b = Random(2 * bins, -3.0f, 3.0f, 2);
        std::vector<float> power(bins), re(bins), im(bins), cre(bins), cim(bins);
        for (int32_t k = 0; k < bins; ++k) {
            const float ar = a[2 * k], ai = a[2 * k + 1], br = b[2 * k], bi = b[2 * k + 1];
            power[k] = ar * ar + ai * ai;
            re[k] = ar * br - ai * bi;
            im[k] = ar * bi + ai * br;
            cre[k] = ar * br + ai * bi;
            cim[k] = ar * bi - ai * br;
        }
        const int32_t n = 2 * bins;
        const std::string at = " bins=" + std::to_string(bins);
        ExpectWrites([&](float *o) { cplx_power(a.data(), o, n); }, power, "power" + at);
        ExpectWrites([&](float *o) { cplx_mul_real(a.data(), b.data(), o, n, 1); }, re, "re" + at);
        ExpectWrites([&](float *o) { cplx_mul_imag(a.data(), b.data(), o, n, 1); }, im, "im" + at);
        ExpectWrites([&](float *o) { cplx_mul_real(a.data(), b.data(), o, n, 0); }, cre, "cre" + at);
        ExpectWrites([&](float *o) { cplx_mul_imag(a.data(), b.data(), o, n, 0); }, cim, "cim" + at);

        // conj(a) a is |a|^2 with no imaginary part.
        ExpectWrites([&](float *o) { cplx_mul_real(a.data(), a.data(), o, n, 0); }, power, "|a|2" + at);
        ExpectWrites([&](float *o) { cplx_mul_imag(a.data(), a.data(), o, n, 0); },
                     std::vector<float>(bins, 0.0f), "Im|a|2" + at);

        std::vector<float> in_place = a;  // out over its own input
        cplx_power(in_place.data(), in_place.data(), n);
        for (int32_t k = 0; k < bins; ++k) EXPECT_EQ(in_place[k], power[k]) << at;
    }
}

TEST(VectorKernels, ElementwiseKernelsMatchScalarArithmeticInPlaceAndOut) {
    using Kernel = std::function<void(const float *, const float *, float *, int32_t)>;
    using Scalar = std::function<float(float, float)>;
    const float alpha = 0.3f;
    const struct {
        const char *name;
        Kernel kernel;
        Scalar scalar;
    } cases[] = {
        {"add", [](auto a, auto b, auto o, int32_t n) { vec_add(a, b, o, n); },
         [](float x, float y) { return x + y; }},
        {"mul", [](auto a, auto b, auto o, int32_t n) { vec_mul(a, b, o, n); },
         [](float x, float y) { return x * y; }},
        {"mix", [&](auto a, auto b, auto o, int32_t n) { vec_mix(a, b, alpha, o, n); },
         [&](float x, float y) { return alpha * x + (1.0f - alpha) * y; }},
        {"mix_alt", [&](auto a, auto b, auto o, int32_t n) { vec_mix_alt(a, b, alpha, o, n); },
         [&](float x, float y) { return alpha * x + (1.0f - alpha) * y; }},
        {"floor", [](auto a, auto, auto o, int32_t n) { vec_floor(a, 0.5f, o, n); },
         [](float x, float) { return std::max(x, 0.5f); }},
        {"ceil", [](auto a, auto, auto o, int32_t n) { vec_ceil(a, 0.5f, o, n); },
         [](float x, float) { return std::min(x, 0.5f); }},
        {"fill", [](auto, auto, auto o, int32_t n) { vec_fill(o, 2.5f, n); },
         [](float, float) { return 2.5f; }},
        {"scale", [](auto, auto, auto o, int32_t n) { vec_scale(o, -1.5f, n); },
         [](float x, float) { return x * -1.5f; }},
        {"exp", [](auto a, auto, auto o, int32_t n) { vec_exp(a, o, n); },
         [](float x, float) { return std::exp(x); }},
    };
    for (const auto &c : cases) {
        for (int32_t n : kCounts) {
            const auto a = Random(n, -2.0f, 2.0f, 3);
            const auto b = Random(n, -2.0f, 2.0f, 4);
            std::vector<float> expected(n);
            for (int32_t i = 0; i < n; ++i) expected[i] = c.scalar(a[i], b[i]);
            const std::string what = std::string(c.name) + " n=" + std::to_string(n);
            // vec_scale works in place; seed its output with the input.
            ExpectWrites(
                [&](float *o) {
                    std::copy(a.begin(), a.end(), o);
                    c.kernel(a.data(), b.data(), o, n);
                },
                expected, what);
            std::vector<float> in_place = a;
            c.kernel(in_place.data(), b.data(), in_place.data(), n);
            EXPECT_EQ(in_place, expected) << what << " in place";
        }
    }
}

TEST(VectorKernels, ComplexElementwiseKernelsMatchPerBinArithmetic) {
    const float alpha = 0.9f;
    for (int32_t bins : kCounts) {
        const int32_t n = 2 * bins;
        const auto a = Random(n, -2.0f, 2.0f, 5);
        const auto b = Random(n, -2.0f, 2.0f, 6);
        const auto g = Random(bins, 0.5f, 4.0f, 7);
        std::vector<float> sum(n), scaled(n), mixed(n), by_gain(n), by_divisor(n), re(bins), im(bins);
        for (int32_t i = 0; i < n; ++i) {
            sum[i] = a[i] + b[i];
            scaled[i] = a[i] * 0.25f;
            mixed[i] = alpha * a[i] + (1.0f - alpha) * b[i];
            by_gain[i] = a[i] * g[i / 2];
            by_divisor[i] = a[i] / g[i / 2];
        }
        for (int32_t k = 0; k < bins; ++k) re[k] = a[2 * k], im[k] = a[2 * k + 1];
        const std::string at = " bins=" + std::to_string(bins);
        ExpectWrites([&](float *o) { cplx_add(a.data(), b.data(), o, n); }, sum, "add" + at);
        ExpectWrites([&](float *o) { cplx_scale(a.data(), 0.25f, o, n); }, scaled, "scale" + at);
        ExpectWrites([&](float *o) { cplx_mix(a.data(), b.data(), alpha, o, n); }, mixed, "mix" + at);
        ExpectWrites([&](float *o) { cplx_scale_by_real(a.data(), g.data(), o, n); }, by_gain,
                     "scale_by_real" + at);
        ExpectWrites([&](float *o) { cplx_interleave(re.data(), im.data(), o, bins); }, a,
                     "interleave" + at);
        std::vector<float> split_re(bins + 1, kSentinel), split_im(bins + 1, kSentinel);
        cplx_deinterleave(a.data(), split_re.data(), split_im.data(), n);
        re.push_back(kSentinel), im.push_back(kSentinel);
        EXPECT_EQ(split_re, re) << at;
        EXPECT_EQ(split_im, im) << at;

        std::vector<float> quotient = a;  // in place, within a few ULP of exact division
        cplx_divide_by_real(quotient.data(), g.data(), quotient.data(), n);
        for (int32_t i = 0; i < n; ++i) EXPECT_LE(UlpDistance(quotient[i], by_divisor[i]), 4) << at;
    }
}

TEST(VectorKernels, DivideAndSqrtStayWithinAFewUlpOverAWideRange) {
    std::mt19937 rng(8);
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
}

TEST(VectorKernels, DivideAndSqrtSpecialValuesInLanesAndTail) {
    // Nine elements: two full lane groups and one tail element; each special
    // value is placed once in a lane and once in the tail.
    const float denormal = FLT_MIN / 4.0f;
    const struct {
        float a, b, quotient;
    } div[] = {{4.0f, 0.0f, kInf}, {-4.0f, 0.0f, -kInf}, {4.0f, -0.0f, -kInf},
               {4.0f, denormal, kInf}, {4.0f, kInf, 0.0f}, {-4.0f, kInf, -0.0f}};
    for (const auto &c : div) {
        for (int32_t position : {0, 8}) {
            std::vector<float> a(9, 1.0f), b(9, 1.0f), out(9);
            a[position] = c.a, b[position] = c.b;
            vec_divide(a.data(), b.data(), out.data(), 9);
            EXPECT_EQ(out[position], c.quotient) << c.a << "/" << c.b << " at " << position;
        }
    }
    const struct {
        float a, root;
    } roots[] = {{0.0f, 0.0f}, {kInf, kInf}, {denormal, 0.0f}, {16.0f, 4.0f}};
    for (const auto &c : roots) {
        for (int32_t position : {0, 8}) {
            std::vector<float> a(9, 1.0f), out(9);
            a[position] = c.a;
            vec_sqrt(a.data(), out.data(), 9);
            EXPECT_EQ(out[position], c.root) << "sqrt " << c.a << " at " << position;
        }
    }
    for (float invalid : {-1.0f, -kInf, std::numeric_limits<float>::quiet_NaN()}) {
        std::vector<float> a(5, invalid), out(5);
        vec_sqrt(a.data(), out.data(), 5);
        for (float x : out) EXPECT_TRUE(std::isnan(x)) << "sqrt " << invalid;
    }

    // The canceller's bound: 4 / 0 -> inf -> sqrt -> inf -> min(., 1) = 1.
    std::vector<float> four(5, 4.0f), zero(5, 0.0f), bound(5);
    vec_divide(four.data(), zero.data(), bound.data(), 5);
    vec_sqrt(bound.data(), bound.data(), 5);
    vec_ceil(bound.data(), 1.0f, bound.data(), 5);
    EXPECT_EQ(bound, std::vector<float>(5, 1.0f));
}

TEST(VectorKernels, DotAndConvolutionUseOneSummationOrder) {
    for (int32_t n : kCounts) {
        const auto a = Random(n, -1.0f, 1.0f, 9);
        const auto b = Random(n, -1.0f, 1.0f, 10);
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
    const auto x = Random(n + 2 * (m - 1), 0.0f, 1.0f, 11);
    const auto h = Random(m, 0.0f, 0.1f, 12);
    std::vector<float> expected(n + m - 1);
    for (int32_t j = 0; j < n + m - 1; ++j)
        expected[j] = vec_dot(x.data() + j, h.data(), m);
    ExpectWrites([&](float *o) { vec_convolve(x.data(), h.data(), o, n, m); }, expected, "convolve");
    for (int32_t j = 0; j < n + m - 1; ++j) {
        double sum = 0.0;
        for (int32_t t = 0; t < m; ++t) sum += static_cast<double>(x[j + t]) * h[t];
        EXPECT_NEAR(expected[j], sum, 1e-6) << j;
    }
}

TEST(VectorKernels, NonPositiveLengthsWriteNothing) {
    std::vector<float> a(8, 1.0f), out(8, kSentinel);
    for (int32_t n : {0, -1, -8}) {
        vec_add(a.data(), a.data(), out.data(), n);
        cplx_power(a.data(), out.data(), n);
        vec_sqrt(a.data(), out.data(), n);
        vec_fill(out.data(), 0.0f, n);
        EXPECT_EQ(vec_dot(a.data(), a.data(), n), 0.0f);
    }
    vec_convolve(a.data(), a.data(), out.data(), 0, 1);  // n + m - 1 = 0
    EXPECT_EQ(out, std::vector<float>(8, kSentinel));
}

TEST(VectorKernels, ReportsTheCompiledBackend) {
#if defined(__ARM_NEON)
    EXPECT_STREQ(vec_kernels_backend(), "neon");
#else
    EXPECT_STREQ(vec_kernels_backend(), "simde");
#endif
}

}  // namespace
