#include "windowfilt.h"

#include "vector_lanes.h"
#include "window.h"

namespace {

constexpr int32_t kFrame = 256;
constexpr int32_t kHalfFrame = kFrame / 2;

struct FullWindow {
    alignas(16) float w[kFrame];
};

// The whole window from its rising half, mirrored at compile time.
constexpr FullWindow Mirror(const float *half) {
    FullWindow full{};
    for (int32_t n = 0; n < kHalfFrame; ++n) {
        full.w[n] = half[n];
        full.w[kHalfFrame + n] = half[kHalfFrame - n];
    }
    return full;
}

constexpr FullWindow kAnalysisWindow = Mirror(FftInWindow);
constexpr FullWindow kSynthesisWindow = Mirror(FftOutWindow);

const float *WindowOf(int32_t selector) {
    if (selector == WINDOW_ANALYSIS) return kAnalysisWindow.w;
    if (selector == WINDOW_SYNTHESIS) return kSynthesisWindow.w;
    return nullptr;
}

}  // namespace

// A product by 1.0f changes no product of the window, NaN included.
void WindowFilter_Apply(float *frame, int32_t selector) {
    WindowFilter_ApplyTo(frame, frame, selector, 1.0f);
}

void WindowFilter_ApplyTo(const float *in, float *out, int32_t selector, float scale) {
    const float *window = WindowOf(selector);
    if (window == nullptr) return;
    for (int32_t n = 0; n < kFrame; n += kivbf::lanes::kLanes) {
        const float32x4_t windowed = vmulq_f32(vld1q_f32(in + n), vld1q_f32(window + n));
        vst1q_f32(out + n, vmulq_n_f32(windowed, scale));
    }
}
