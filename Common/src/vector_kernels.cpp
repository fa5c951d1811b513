// Placeholder: filled in by the kernels' owner.
#include "vector_kernels.h"

int32_t cplx_power(const float *, float *, int32_t) { return 0; }
int32_t cplx_mul_real(const float *, const float *, float *, int32_t, int32_t) { return 0; }
int32_t cplx_mul_imag(const float *, const float *, float *, int32_t, int32_t) { return 0; }
int32_t vec_convolve(const float *, const float *, float *, int32_t, int32_t) { return 0; }
int32_t vec_floor(const float *, float, float *, int32_t) { return 0; }
int32_t vec_ceil(const float *, float, float *, int32_t) { return 0; }
int32_t cplx_scale_by_real(const float *, const float *, float *, int32_t) { return 0; }
int32_t vec_divide(const float *, const float *, float *, int32_t) { return 0; }
int32_t vec_add(const float *, const float *, float *, int32_t) { return 0; }
int32_t vec_mix(const float *, const float *, float, float *, int32_t) { return 0; }
int32_t vec_mix_alt(const float *, const float *, float, float *, int32_t) { return 0; }
int32_t cplx_add(const float *, const float *, float *, int32_t) { return 0; }
int32_t cplx_scale(const float *, float, float *, int32_t) { return 0; }
int32_t cplx_mix(const float *, const float *, float, float *, int32_t) { return 0; }
int32_t cplx_divide_by_real(const float *, const float *, float *, int32_t) { return 0; }
int32_t cplx_interleave(const float *, const float *, float *, int32_t) { return 0; }
int32_t cplx_deinterleave(const float *, float *, float *, int32_t) { return 0; }
int32_t vec_sqrt(const float *, float *, int32_t) { return 0; }
int32_t vec_mul(const float *, const float *, float *, int32_t) { return 0; }
int32_t vec_fill(float *a, float c, int32_t n) { for (int32_t i = 0; i < n; ++i) a[i] = c; return 0; }
int32_t vec_scale(float *, float, int32_t) { return 0; }
float vec_dot(const float *, const float *, int32_t) { return 0.0f; }
int32_t vec_exp(const float *, float *, int32_t) { return 0; }
