#include <gtest/gtest.h>

#include <complex>

#include "complex_matrix.h"

namespace {

using cf = std::complex<float>;

TEST(ComplexMatrix, InverseInPlaceAndNormaliseWithZeroGuard) {
    const cf a[4] = {{1.0f, 0.5f}, {0.25f, -1.0f}, {-0.5f, 0.3f}, {2.0f, 1.0f}};
    float m[kCmat2Floats];
    for (int i = 0; i < 4; ++i) {
        m[2 * i] = a[i].real();
        m[2 * i + 1] = a[i].imag();
    }
    cmat2_inverse(m, m);
    const cf det = a[0] * a[3] - a[1] * a[2];
    const cf expected[4] = {a[3] / det, -a[1] / det, -a[2] / det, a[0] / det};
    for (int i = 0; i < 4; ++i)
        EXPECT_NEAR(std::abs(cf(m[2 * i], m[2 * i + 1]) - expected[i]), 0.0f, 1e-5f) << i;

    // |trace|^2 = 0 is taken as 1e-6: an all-zero matrix stays zero instead of NaN.
    const float zero[kCmat2Floats] = {};
    cmat2_normalise(zero, zero, m);
    for (float value : m) EXPECT_EQ(value, 0.0f);
}

}  // namespace
