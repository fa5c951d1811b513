// 2 x 2 complex matrices, row-major, each element (re, im): 8 floats.
// Arithmetic is done on real 2 x 2 matrices (real and imaginary parts).
#pragma once

#include <cstdint>

inline constexpr int32_t kCmat2Floats = 8;

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
