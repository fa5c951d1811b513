// 2 x 2 complex matrices, row-major, each element (re, im): 8 floats.
// Arithmetic is done on real 2 x 2 matrices (real and imaginary parts).
//
// The arithmetic itself is inline on the split form (Cmat2Parts), written once
// for either element type of vector_lanes.h (IEEE +, -, *, negation,
// ExactQuotient and ReplaceZero): float, or Float4, four matrices side by
// side. A stage that keeps its matrices in registers therefore performs
// exactly the operations of the functions on 8-float arrays below, which
// split, call it and reassemble.
#pragma once

#include <cstdint>

#include "vector_lanes.h"

inline constexpr int32_t kCmat2Floats = 8;

using kivbf::lanes::ExactQuotient;
using kivbf::lanes::ReplaceZero;

// Real 2 x 2 matrix, row-major.
template <typename T>
struct Rmat2 {
    T a00;
    T a01;
    T a10;
    T a11;
};

// A complex 2 x 2 matrix as its real part and its imaginary part.
template <typename T>
struct Cmat2Parts {
    Rmat2<T> re;
    Rmat2<T> im;
};

// Adjugate over determinant. A singular input returns the adjugate unscaled;
// the callers' matrices carry diagonal loading and never reach that branch.
template <typename T>
[[gnu::always_inline]] inline Rmat2<T> rmat2_inverse(const Rmat2<T> &a) {
    const T determinant = ReplaceZero(a.a00 * a.a11 - a.a01 * a.a10, 1.0f);
    const T reciprocal = ExactQuotient(T(1.0f), determinant);
    return {a.a11 * reciprocal, -a.a01 * reciprocal, -a.a10 * reciprocal, a.a00 * reciprocal};
}

template <typename T>
[[gnu::always_inline]] inline Rmat2<T> rmat2_product(const Rmat2<T> &a, const Rmat2<T> &b) {
    return {a.a00 * b.a00 + a.a01 * b.a10, a.a00 * b.a01 + a.a01 * b.a11,
            a.a10 * b.a00 + a.a11 * b.a10, a.a10 * b.a01 + a.a11 * b.a11};
}

template <typename T>
[[gnu::always_inline]] inline Rmat2<T> rmat2_sum(const Rmat2<T> &a, const Rmat2<T> &b) {
    return {a.a00 + b.a00, a.a01 + b.a01, a.a10 + b.a10, a.a11 + b.a11};
}

template <typename T>
[[gnu::always_inline]] inline Rmat2<T> rmat2_difference(const Rmat2<T> &a, const Rmat2<T> &b) {
    return {a.a00 - b.a00, a.a01 - b.a01, a.a10 - b.a10, a.a11 - b.a11};
}

// M^-1 = (A + B A^-1 B)^-1 - j A^-1 B (A + B A^-1 B)^-1 for M = A + jB.
template <typename T>
[[gnu::always_inline]] inline Cmat2Parts<T> cmat2_parts_inverse(const Cmat2Parts<T> &m) {
    const Rmat2<T> real_inverse = rmat2_inverse(m.re);
    const Rmat2<T> temp = rmat2_product(real_inverse, m.im);
    const Rmat2<T> temp_inverse = rmat2_inverse(rmat2_sum(m.re, rmat2_product(m.im, temp)));
    const Rmat2<T> temp4 = rmat2_product(temp, temp_inverse);
    return {temp_inverse, {-temp4.a00, -temp4.a01, -temp4.a10, -temp4.a11}};
}

template <typename T>
[[gnu::always_inline]] inline Cmat2Parts<T> cmat2_parts_product(const Cmat2Parts<T> &a, const Cmat2Parts<T> &b) {
    return {rmat2_difference(rmat2_product(a.re, b.re), rmat2_product(a.im, b.im)),
            rmat2_sum(rmat2_product(a.re, b.im), rmat2_product(a.im, b.re))};
}

// m / d element-wise; |d|^2 == 0 is replaced by 1e-6.
template <typename T>
[[gnu::always_inline]] inline Cmat2Parts<T> cmat2_parts_normalise(const Cmat2Parts<T> &m, T d_re, T d_im) {
    const T magnitude = ReplaceZero(d_re * d_re + d_im * d_im, 1e-6f);
    const auto real = [&](T a_re, T a_im) { return ExactQuotient(a_re * d_re + a_im * d_im, magnitude); };
    const auto imag = [&](T a_re, T a_im) { return ExactQuotient(d_re * a_im - d_im * a_re, magnitude); };
    return {{real(m.re.a00, m.im.a00), real(m.re.a01, m.im.a01), real(m.re.a10, m.im.a10),
             real(m.re.a11, m.im.a11)},
            {imag(m.re.a00, m.im.a00), imag(m.re.a01, m.im.a01), imag(m.re.a10, m.im.a10),
             imag(m.re.a11, m.im.a11)}};
}

void cmat2_split(const float *m, float *real_matrix, float *img_matrix);
// out = M^-1 by the real-part method; out may be m. Needs Re(M) invertible.
void cmat2_inverse(const float *m, float *out);
void cmat2_product(const float *a, const float *b, float *out);     // a x b
void cmat2_sum(const float *a, const float *b, float *out);         // a + b
void cmat2_difference(const float *a, const float *b, float *out);  // a - b
// Complex sum of the diagonal into trace[0] (re), trace[1] (im).
void cmat2_trace(const float *m, float *trace);
// out = m / d element-wise (d complex); |d|^2 == 0 is replaced by 1e-6.
void cmat2_normalise(const float *m, const float *d, float *out);
