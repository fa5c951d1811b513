// The element operations the enhanced mode's per-bin bodies are written in,
// for one float and for four lanes. Each body is a generic lambda over the
// element type: ForEachBin hands it four bins at a time and the last bin
// alone, so lanes and tail run one source. Every pair computes the same IEEE
// operation (division and square root are exact, not estimates).
#pragma once

#include <cmath>

#include "../LibGen_Tool/bf_internal_parameter.h"
#include "Beamformer_core_enhanced.h"
#include "math_functions.h"
#include "vector_lanes.h"

namespace kivbf::enhanced {

using math::element::Add;
using math::element::Div;
using math::element::Less;
using math::element::Mul;
using math::element::Select;
using math::element::Splat;
using math::element::Sub;

constexpr float kInverseLn10 = 0.434294482f;  // log10(x) = ln(x) / ln(10)

inline float Load(const float *p, float) { return *p; }
inline float32x4_t Load(const float *p, float32x4_t) { return vld1q_f32(p); }
inline void Store(float *p, float v) { *p = v; }
inline void Store(float *p, float32x4_t v) { vst1q_f32(p, v); }

// Interleaved complex bins: re, im of bin k at 2k, 2k + 1.
inline void LoadComplex(const float *p, float &re, float &im) {
    re = p[0];
    im = p[1];
}
inline void LoadComplex(const float *p, float32x4_t &re, float32x4_t &im) {
    const float32x4x2_t v = vld2q_f32(p);
    re = v.val[0];
    im = v.val[1];
}
inline void StoreComplex(float *p, float re, float im) {
    p[0] = re;
    p[1] = im;
}
inline void StoreComplex(float *p, float32x4_t re, float32x4_t im) {
    float32x4x2_t v;
    v.val[0] = re;
    v.val[1] = im;
    vst2q_f32(p, v);
}

template <typename T>
inline T Max(T a, T b) { return Select(Less(a, b), b, a); }
template <typename T>
inline T Min(T a, T b) { return Select(Less(b, a), b, a); }
template <typename T>
inline T Clamp(T x, float low, float high) { return Min(Max(x, Splat(low, x)), Splat(high, x)); }

inline float Sqrt(float a) { return std::sqrt(a); }
inline float32x4_t Sqrt(float32x4_t a) {
#if defined(__aarch64__)
    return vsqrtq_f32(a);
#else  // no four-lane square root before AArch64 (nor in SIMDe): lane by lane, as exact
    float x[4];
    vst1q_f32(x, a);
    for (float &v : x) v = std::sqrt(v);
    return vld1q_f32(x);
#endif
}

// A guarded array (bin k at k + kEnhancedGuard) gets copies of its edge
// values in its guards.
inline void ReplicateEdges(float *guarded) {
    for (int32_t g = 0; g < kEnhancedGuard; ++g) {
        guarded[g] = guarded[kEnhancedGuard];
        guarded[kEnhancedGuard + kBins + g] = guarded[kEnhancedGuard + kBins - 1];
    }
}

// Mean of bins k-3..k+3 of a guarded array; at points to bin k.
template <typename T>
T SevenBinMean(const float *at, T zero) {
    T sum = Load(at - 3, zero);
    for (int32_t j = -2; j <= 3; ++j) sum = Add(sum, Load(at + j, zero));
    return Mul(sum, Splat(1.0f / 7.0f, zero));
}

// Calls body(T{}, k) with T = float32x4_t for bins 0, 4, ..., 124 and with
// T = float for bin 128.
template <typename Body>
inline void ForEachBin(Body &&body) {
    lanes::ForEachLaneGroup(
        kBins, [&](int32_t k) { body(vdupq_n_f32(0.0f), k); }, [&](int32_t k) { body(0.0f, k); });
}

}  // namespace kivbf::enhanced
