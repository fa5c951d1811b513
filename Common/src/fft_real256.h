// The 256-point real FFT and its inverse, through the 128-point complex DFT
// of the samples taken in pairs (fft_complex128.h) and a split step between
// its spectrum and the real one. Written in four-lane NEON operations (SIMDe
// on x86) without fused multiply-adds or estimates, with compile-time
// tables: every target gives the same bits.
//
// Spectrum layout as in fft.h: bins 0..128 as (re, im) pairs, 258 floats.
#pragma once

#include <cstdint>

namespace kivbf::fft {

inline constexpr int32_t kRealPoints = 256;
// The half-length spectrum Z[0..127] with Z[0] repeated at 128, real parts
// then imaginary parts.
inline constexpr int32_t kHalfSpectrumFloats = 2 * 129;
// Two work arrays of 128 complex values, each real parts then imaginary parts.
inline constexpr int32_t kWorkFloats = 4 * 128;

// Unscaled forward transform in place: 256 samples in data[0..255], 258
// spectrum floats out, with Im[0] = Im[128] = 0.
void RealForward256(float *data, float *half_spectrum, float *work);
// Inverse scaled by 1/256 in place: 258 spectrum floats in, Im[0] and
// Im[128] ignored; 256 samples out, data[256] = data[257] = 0.
void RealInverse256(float *data, float *work);

}  // namespace kivbf::fft
