#include <gtest/gtest.h>

#include <complex>

#include "complex_matrix.h"

namespace {

using cf = std::complex<float>;

struct Matrix {
    float v[kCmat2Floats];
    cf at(int row, int column) const { return {v[2 * (2 * row + column)], v[2 * (2 * row + column) + 1]}; }
};

Matrix Make(cf a00, cf a01, cf a10, cf a11) {
    return Matrix{{a00.real(), a00.imag(), a01.real(), a01.imag(), a10.real(), a10.imag(), a11.real(),
                   a11.imag()}};
}

void ExpectNear(const Matrix &actual, const Matrix &expected, float tolerance) {
    for (int i = 0; i < kCmat2Floats; ++i) EXPECT_NEAR(actual.v[i], expected.v[i], tolerance) << "float " << i;
}

const Matrix kIdentity = Make(1.0f, 0.0f, 0.0f, 1.0f);

// A Hermitian matrix with a positive-definite real part, as the loaded
// covariances of the beamformer are.
const Matrix kHermitian = Make({2.0f, 0.0f}, {0.4f, -0.7f}, {0.4f, 0.7f}, {1.5f, 0.0f});

}  // namespace

TEST(ComplexMatrix, InverseOfIdentityAndOfRealMatrices) {
    Matrix out{};
    cmat2_inverse(kIdentity.v, out.v);
    ExpectNear(out, kIdentity, 0.0f);

    // B = 0: the real inverse [[4, 7], [2, 6]]^-1 = [[0.6, -0.7], [-0.2, 0.4]].
    const Matrix real = Make(4.0f, 7.0f, 2.0f, 6.0f);
    cmat2_inverse(real.v, out.v);
    ExpectNear(out, Make(0.6f, -0.7f, -0.2f, 0.4f), 1e-6f);
}

TEST(ComplexMatrix, HermitianTimesItsInverseIsIdentityAlsoInPlace) {
    Matrix inverse = kHermitian;
    cmat2_inverse(inverse.v, inverse.v);  // output aliases the input

    Matrix product{};
    cmat2_product(kHermitian.v, inverse.v, product.v);
    ExpectNear(product, kIdentity, 1e-6f);
    cmat2_product(inverse.v, kHermitian.v, product.v);
    ExpectNear(product, kIdentity, 1e-6f);
    // The inverse of a Hermitian matrix is Hermitian.
    EXPECT_NEAR(std::abs(inverse.at(0, 1) - std::conj(inverse.at(1, 0))), 0.0f, 1e-6f);
}

TEST(ComplexMatrix, InverseOfGeneralComplexMatrix) {
    const Matrix m = Make({1.0f, 0.5f}, {0.25f, -1.0f}, {-0.5f, 0.3f}, {2.0f, 1.0f});
    Matrix inverse{};
    cmat2_inverse(m.v, inverse.v);
    const cf det = m.at(0, 0) * m.at(1, 1) - m.at(0, 1) * m.at(1, 0);
    const Matrix expected = Make(m.at(1, 1) / det, -m.at(0, 1) / det, -m.at(1, 0) / det, m.at(0, 0) / det);
    ExpectNear(inverse, expected, 1e-5f);
}

TEST(ComplexMatrix, ProductSumDifferenceMatchComplexArithmetic) {
    const Matrix a = Make({1.0f, 2.0f}, {-3.0f, 0.5f}, {0.0f, -1.0f}, {2.5f, 1.5f});
    const Matrix b = Make({-0.5f, 1.0f}, {2.0f, -2.0f}, {1.5f, 0.25f}, {0.0f, 3.0f});
    Matrix expected{};
    for (int r = 0; r < 2; ++r)
        for (int c = 0; c < 2; ++c) {
            const cf value = a.at(r, 0) * b.at(0, c) + a.at(r, 1) * b.at(1, c);
            expected.v[2 * (2 * r + c)] = value.real();
            expected.v[2 * (2 * r + c) + 1] = value.imag();
        }
    Matrix out = a;
    cmat2_product(out.v, b.v, out.v);  // output aliases the left operand
    ExpectNear(out, expected, 1e-6f);

    Matrix sum{};
    Matrix difference{};
    cmat2_sum(a.v, b.v, sum.v);
    cmat2_difference(a.v, b.v, difference.v);
    for (int i = 0; i < kCmat2Floats; ++i) {
        EXPECT_EQ(sum.v[i], a.v[i] + b.v[i]);
        EXPECT_EQ(difference.v[i], a.v[i] - b.v[i]);
    }

    float real_part[4];
    float img_part[4];
    cmat2_split(a.v, real_part, img_part);
    EXPECT_EQ(real_part[1], -3.0f);
    EXPECT_EQ(img_part[3], 1.5f);
}

TEST(ComplexMatrix, TraceAndNormaliseWithZeroGuard) {
    const Matrix m = Make({3.0f, 1.0f}, {5.0f, 5.0f}, {7.0f, 7.0f}, {1.0f, -3.0f});
    float trace[2];
    cmat2_trace(m.v, trace);
    EXPECT_EQ(trace[0], 4.0f);
    EXPECT_EQ(trace[1], -2.0f);

    Matrix out{};
    cmat2_normalise(m.v, trace, out.v);
    for (int r = 0; r < 2; ++r)
        for (int c = 0; c < 2; ++c) {
            const cf expected = m.at(r, c) / cf(trace[0], trace[1]);
            EXPECT_NEAR(std::abs(out.at(r, c) - expected), 0.0f, 1e-6f);
        }

    // A zero divisor is taken as |d|^2 = 1e-6: zero stays zero, no NaN.
    const float zero[2] = {0.0f, 0.0f};
    cmat2_normalise(Make(0.0f, 0.0f, 0.0f, 0.0f).v, zero, out.v);
    for (float value : out.v) EXPECT_EQ(value, 0.0f);
}
