#include <gtest/gtest.h>

#include <complex>

#include "complex_matrix.h"

namespace {

using cf = std::complex<float>;

struct Matrix {
    float v[kCmat2Floats];
    cf at(int r, int c) const { return {v[4 * r + 2 * c], v[4 * r + 2 * c + 1]}; }
};

Matrix Make(cf a00, cf a01, cf a10, cf a11) {
    return {{a00.real(), a00.imag(), a01.real(), a01.imag(), a10.real(), a10.imag(), a11.real(),
             a11.imag()}};
}

void ExpectNear(const Matrix &actual, const Matrix &expected, float tolerance) {
    for (int i = 0; i < kCmat2Floats; ++i) EXPECT_NEAR(actual.v[i], expected.v[i], tolerance) << i;
}

}  // namespace

TEST(ComplexMatrix, InverseAndProductMatchComplexArithmeticWhenAliased) {
    const Matrix a = Make({1.0f, 0.5f}, {0.25f, -1.0f}, {-0.5f, 0.3f}, {2.0f, 1.0f});
    const Matrix b = Make({-0.5f, 1.0f}, {2.0f, -2.0f}, {1.5f, 0.25f}, {0.0f, 3.0f});
    const cf det = a.at(0, 0) * a.at(1, 1) - a.at(0, 1) * a.at(1, 0);
    Matrix out = a;
    cmat2_inverse(out.v, out.v);
    ExpectNear(out, Make(a.at(1, 1) / det, -a.at(0, 1) / det, -a.at(1, 0) / det, a.at(0, 0) / det),
               1e-5f);
    cmat2_inverse(Make(4.0f, 7.0f, 2.0f, 6.0f).v, out.v);  // real: imaginary parts stay 0
    ExpectNear(out, Make(0.6f, -0.7f, -0.2f, 0.4f), 1e-6f);

    const auto product = [&](int r, int c) {
        return a.at(r, 0) * b.at(0, c) + a.at(r, 1) * b.at(1, c);
    };
    out = a;
    cmat2_product(out.v, b.v, out.v);
    ExpectNear(out, Make(product(0, 0), product(0, 1), product(1, 0), product(1, 1)), 1e-6f);
}

TEST(ComplexMatrix, NormaliseByTraceWithZeroGuard) {
    const Matrix m = Make({3.0f, 1.0f}, {5.0f, 5.0f}, {7.0f, 7.0f}, {1.0f, -3.0f});
    float trace[2];
    cmat2_trace(m.v, trace);
    EXPECT_EQ(cf(trace[0], trace[1]), cf(4.0f, -2.0f));
    Matrix out{};
    cmat2_normalise(m.v, trace, out.v);
    for (int r = 0; r < 2; ++r)
        for (int c = 0; c < 2; ++c)
            EXPECT_NEAR(std::abs(out.at(r, c) - m.at(r, c) / cf(4.0f, -2.0f)), 0.0f, 1e-6f);

    // |d|^2 = 0 is taken as 1e-6: an all-zero matrix stays zero instead of NaN.
    const float zero[2] = {0.0f, 0.0f};
    cmat2_normalise(Make(0.0f, 0.0f, 0.0f, 0.0f).v, zero, out.v);
    for (float value : out.v) EXPECT_EQ(value, 0.0f);
}
