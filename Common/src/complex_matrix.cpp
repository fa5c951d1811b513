// 2 x 2 complex matrices through real 2 x 2 arithmetic.
//
// A complex matrix M = A + jB is split into its real part A and imaginary part
// B; every result is assembled from products, sums and inverses of real 2 x 2
// matrices. The real matrices are row-major: a00 a01 a10 a11.
#include "complex_matrix.h"

namespace {

using RealMatrix = float[4];

// Adjugate over determinant. A singular input returns the adjugate unscaled;
// the callers' matrices carry diagonal loading and never reach that branch.
void rmat2_inverse(const float *a, float *out) {
    float determinant = a[0] * a[3] - a[1] * a[2];
    if (determinant == 0.0f) determinant = 1.0f;
    const float reciprocal = 1.0f / determinant;
    const float a00 = a[0];
    const float a01 = a[1];
    const float a10 = a[2];
    const float a11 = a[3];
    out[0] = a11 * reciprocal;
    out[1] = -a01 * reciprocal;
    out[2] = -a10 * reciprocal;
    out[3] = a00 * reciprocal;
}

void rmat2_product(const float *a, const float *b, float *out) {
    const float c00 = a[0] * b[0] + a[1] * b[2];
    const float c01 = a[0] * b[1] + a[1] * b[3];
    const float c10 = a[2] * b[0] + a[3] * b[2];
    const float c11 = a[2] * b[1] + a[3] * b[3];
    out[0] = c00;
    out[1] = c01;
    out[2] = c10;
    out[3] = c11;
}

void rmat2_sum(const float *a, const float *b, float *out) {
    for (int i = 0; i < 4; ++i) out[i] = a[i] + b[i];
}

void rmat2_difference(const float *a, const float *b, float *out) {
    for (int i = 0; i < 4; ++i) out[i] = a[i] - b[i];
}

void cmat2_assemble(const float *real_matrix, const float *img_matrix, float *out) {
    for (int i = 0; i < 4; ++i) {
        out[2 * i] = real_matrix[i];
        out[2 * i + 1] = img_matrix[i];
    }
}

}  // namespace

void cmat2_split(const float *m, float *real_matrix, float *img_matrix) {
    for (int i = 0; i < 4; ++i) {
        real_matrix[i] = m[2 * i];
        img_matrix[i] = m[2 * i + 1];
    }
}

// M^-1 = (A + B A^-1 B)^-1 - j A^-1 B (A + B A^-1 B)^-1.
void cmat2_inverse(const float *m, float *out) {
    RealMatrix real_matrix;
    RealMatrix img_matrix;
    RealMatrix real_inverse;
    RealMatrix temp;
    RealMatrix temp2;
    RealMatrix temp3;
    RealMatrix temp4;
    RealMatrix temp_inverse;

    cmat2_split(m, real_matrix, img_matrix);
    rmat2_inverse(real_matrix, real_inverse);
    rmat2_product(real_inverse, img_matrix, temp);
    rmat2_product(img_matrix, temp, temp2);
    rmat2_sum(real_matrix, temp2, temp3);
    rmat2_inverse(temp3, temp_inverse);
    rmat2_product(temp, temp_inverse, temp4);

    for (int i = 0; i < 4; ++i) {
        out[2 * i] = temp_inverse[i];
        out[2 * i + 1] = -temp4[i];
    }
}

void cmat2_product(const float *a, const float *b, float *out) {
    RealMatrix real_matrixA;
    RealMatrix img_matrixA;
    RealMatrix real_matrixB;
    RealMatrix img_matrixB;
    cmat2_split(a, real_matrixA, img_matrixA);
    cmat2_split(b, real_matrixB, img_matrixB);

    RealMatrix temp;
    RealMatrix temp2;
    RealMatrix real_part;
    RealMatrix img_part;
    rmat2_product(real_matrixA, real_matrixB, temp);
    rmat2_product(img_matrixA, img_matrixB, temp2);
    rmat2_difference(temp, temp2, real_part);
    rmat2_product(real_matrixA, img_matrixB, temp);
    rmat2_product(img_matrixA, real_matrixB, temp2);
    rmat2_sum(temp, temp2, img_part);
    cmat2_assemble(real_part, img_part, out);
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
    const float d_re = d[0];
    const float d_im = d[1];
    float magnitude = d_re * d_re + d_im * d_im;
    if (magnitude == 0.0f) magnitude = 1e-6f;
    for (int i = 0; i < 4; ++i) {
        const float a_re = m[2 * i];
        const float a_im = m[2 * i + 1];
        out[2 * i] = (a_re * d_re + a_im * d_im) / magnitude;
        out[2 * i + 1] = (d_re * a_im - d_im * a_re) / magnitude;
    }
}
