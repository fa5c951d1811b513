#include "windowfilt.h"

#include "vector_lanes.h"
#include "window.h"

namespace {

constexpr int32_t kHalfFrame = 128;  // the filter always works on 256 samples
constexpr int32_t kLanes = kivbf::lanes::kLanes;

// table[i], table[i - 1], table[i - 2], table[i - 3]: the falling half of the
// window read backwards from the rising half.
float32x4_t LoadReversed(const float *table, int32_t i) {
    const float32x4_t v = vrev64q_f32(vld1q_f32(table + i - 3));  // t[i-2] t[i-3] t[i] t[i-1]
    return vextq_f32(v, v, 2);
}

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
    for (int32_t n = 0; n < kHalfFrame; n += kLanes) {
        vst1q_f32(frame + n, vmulq_f32(vld1q_f32(frame + n), vld1q_f32(table + n)));
        float *falling = frame + kHalfFrame + n;
        vst1q_f32(falling, vmulq_f32(vld1q_f32(falling), LoadReversed(table, kHalfFrame - n)));
    }
}
