#include "windowfilt.h"

#include "window.h"

namespace {
constexpr int32_t kHalfFrame = 128;  // the filter always works on 256 samples
}  // namespace

void WindowFilter_Apply(float *frame, int32_t selector) {
    const float *table = nullptr;
    if (selector == WINDOW_ANALYSIS) {
        table = FftInWindow;
    } else if (selector == WINDOW_SYNTHESIS) {
        table = FftOutWindow;
    } else {
        return;
    }
    for (int32_t n = 0; n < kHalfFrame; ++n) {
        frame[n] *= table[n];
        frame[kHalfFrame + n] *= table[kHalfFrame - n];
    }
}
