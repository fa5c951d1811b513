// Vector kernels over float arrays: all per-bin arithmetic of the core.
//
// Complex arrays are interleaved (re, im, re, im, ...). Unless said otherwise
// a complex kernel's length n counts floats (258 for 129 bins), a real
// kernel's counts elements. Output may alias an input: each element is read
// before its output is written. Each kernel runs a four-lane NEON loop (SIMDe
// on x86) and a scalar tail; a non-positive length writes nothing. The entry
// points return 0, which callers do not test.
#pragma once

#include <cstdint>

// out[k] = re^2 + im^2 of bin k; n floats of a, n/2 values out.
int32_t cplx_power(const float *a, float *out, int32_t n);
// plain != 0: Re(a*b); plain == 0: Re(conj(a)*b). n floats in, n/2 out.
int32_t cplx_mul_real(const float *a, const float *b, float *out, int32_t n, int32_t plain);
// plain != 0: Im(a*b); plain == 0: Im(conj(a)*b). n floats in, n/2 out.
int32_t cplx_mul_imag(const float *a, const float *b, float *out, int32_t n, int32_t plain);
// out (n + m - 1 values) = full convolution: out[j] = sum_t x[j + t] h[t].
int32_t vec_convolve(const float *x, const float *h, float *out, int32_t n, int32_t m);
int32_t vec_floor(const float *a, float c, float *out, int32_t n);  // max(a, c)
int32_t vec_ceil(const float *a, float c, float *out, int32_t n);   // min(a, c)
// out_re[k] = a_re[k] g[k], out_im[k] = a_im[k] g[k]; n floats of a.
int32_t cplx_scale_by_real(const float *a, const float *g, float *out, int32_t n);
int32_t vec_divide(const float *a, const float *b, float *out, int32_t n);  // a / b
int32_t vec_add(const float *a, const float *b, float *out, int32_t n);
// out = alpha a + (1 - alpha) b
int32_t vec_mix(const float *a, const float *b, float alpha, float *out, int32_t n);
int32_t vec_mix_alt(const float *a, const float *b, float alpha, float *out, int32_t n);
int32_t cplx_add(const float *a, const float *b, float *out, int32_t n);
int32_t cplx_scale(const float *a, float c, float *out, int32_t n);
int32_t cplx_mix(const float *a, const float *b, float alpha, float *out, int32_t n);
// out_re[k] = a_re[k] / s[k], out_im[k] = a_im[k] / s[k]; n floats of a.
int32_t cplx_divide_by_real(const float *a, const float *s, float *out, int32_t n);
// out[2k] = re[k], out[2k+1] = im[k]; n bins.
int32_t cplx_interleave(const float *re, const float *im, float *out, int32_t n);
// re[k] = a[2k], im[k] = a[2k+1]; n floats of a.
int32_t cplx_deinterleave(const float *a, float *re, float *im, int32_t n);
int32_t vec_sqrt(const float *a, float *out, int32_t n);
int32_t vec_mul(const float *a, const float *b, float *out, int32_t n);
int32_t vec_fill(float *a, float c, int32_t n);
int32_t vec_scale(float *a, float c, int32_t n);  // in place
float vec_dot(const float *a, const float *b, int32_t n);
// out = exp(a) element-wise (used by the noise estimator and direction weights).
int32_t vec_exp(const float *a, float *out, int32_t n);
// "neon" when the kernels were built on the target's NEON unit, "simde" when
// the same intrinsics were emulated (x86 builds).
const char *vec_kernels_backend();
