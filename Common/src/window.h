// Sine window tables shared by analysis and synthesis.
//
// Each table holds the rising half, endpoints included, of a length-N sine
// window (the square root of a periodic Hann window): sin(pi n / N) for
// n = 0..N/2. Analysis and synthesis use the same 256-point table, so the
// product of the two windows is sin^2 and frames 128 samples apart add up
// to exactly 1. The other lengths are kept for other frame sizes.
#pragma once

extern const float FloatingFftInWindow64[33];
extern const float FloatingFftInWindow128[65];
extern const float FloatingFftInWindow256[129];
extern const float FloatingFftInWindow512[257];

inline constexpr const float *FftInWindow = FloatingFftInWindow256;   // analysis
inline constexpr const float *FftOutWindow = FloatingFftInWindow256;  // synthesis
