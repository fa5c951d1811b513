// Window filter: multiplies a 256-sample frame by the full sine window.
#pragma once

#include <cstdint>

inline constexpr int32_t WINDOW_ANALYSIS = 0;   // FftInWindow
inline constexpr int32_t WINDOW_SYNTHESIS = 1;  // FftOutWindow

// frame[m] *= W[m] for m = 0..255, W[m] = sin(pi m / 256), built from the
// selected half table: table[m] for m <= 128, table[256 - m] above. Any
// selector other than WINDOW_ANALYSIS or WINDOW_SYNTHESIS leaves the frame
// as it is.
void WindowFilter_Apply(float *frame, int32_t selector);
// out[m] = scale * (in[m] W[m]): the products of WindowFilter_Apply and a
// scaling (1.0f keeps finite products as they are) in one pass; out may be
// in. Any other selector writes nothing.
void WindowFilter_ApplyTo(const float *in, float *out, int32_t selector, float scale);
