// Vector kernels over float arrays, for the whole-array steps of the core
// (the per-bin stages fuse their arithmetic through vector_lanes.h).
//
// Each kernel runs a four-lane NEON loop (SIMDe on x86) and a scalar tail; a
// non-positive length writes nothing. Output may alias an input: each element
// is read before its output is written. The entry points that return int32_t
// return 0, which callers do not test.
#pragma once

#include <cstdint>

// out = alpha a + (1 - alpha) b
int32_t vec_mix(const float *a, const float *b, float alpha, float *out, int32_t n);
int32_t vec_fill(float *a, float c, int32_t n);
int32_t vec_scale(float *a, float c, int32_t n);  // in place
// Four lane sums over the groups of four, combined as (l0 + l2) + (l1 + l3),
// then the remaining products added in order.
float vec_dot(const float *a, const float *b, int32_t n);
