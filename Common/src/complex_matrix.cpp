// 2 x 2 complex matrices through real 2 x 2 arithmetic.
//
// A complex matrix M = A + jB is split into its real part A and imaginary part
// B; every result is assembled from products, sums and inverses of real 2 x 2
// matrices (complex_matrix.h).
#include "complex_matrix.h"

namespace {

Cmat2Parts<float> Split(const float *m) {
    return {{m[0], m[2], m[4], m[6]}, {m[1], m[3], m[5], m[7]}};
}

void Assemble(const Cmat2Parts<float> &m, float *out) {
    const float values[kCmat2Floats] = {m.re.a00, m.im.a00, m.re.a01, m.im.a01,
                                        m.re.a10, m.im.a10, m.re.a11, m.im.a11};
    for (int32_t i = 0; i < kCmat2Floats; ++i) out[i] = values[i];
}

}  // namespace

void cmat2_split(const float *m, float *real_matrix, float *img_matrix) {
    for (int i = 0; i < 4; ++i) {
        real_matrix[i] = m[2 * i];
        img_matrix[i] = m[2 * i + 1];
    }
}

void cmat2_inverse(const float *m, float *out) { Assemble(cmat2_parts_inverse(Split(m)), out); }

void cmat2_product(const float *a, const float *b, float *out) {
    Assemble(cmat2_parts_product(Split(a), Split(b)), out);
}

// Sums and differences are element-wise, so they need no split into parts.
void cmat2_sum(const float *a, const float *b, float *out) {
    for (int32_t i = 0; i < kCmat2Floats; ++i) out[i] = a[i] + b[i];
}

void cmat2_difference(const float *a, const float *b, float *out) {
    for (int32_t i = 0; i < kCmat2Floats; ++i) out[i] = a[i] - b[i];
}

void cmat2_trace(const float *m, float *trace) {
    const float re = m[0] + m[6];
    const float im = m[1] + m[7];
    trace[0] = re;
    trace[1] = im;
}

void cmat2_normalise(const float *m, const float *d, float *out) {
    Assemble(cmat2_parts_normalise(Split(m), d[0], d[1]), out);
}
