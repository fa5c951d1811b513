// Input level and output stage: the two ends of the per-block pipeline.
#include "Beamformer_core_output.h"

#include <cmath>

#include "Beamformer_core.h"
#include "vector_kernels.h"
#include "vector_lanes.h"

using namespace kivbf;

void Bf_InputLevel(BfCoreState &s) {
    const float *x = s.input_window[0];
    const float energy = vec_dot(x, x, kFftSize);
    const float mean_square = energy / static_cast<float>(kFftSize);
    s.input_rms = static_cast<float>(std::sqrt(static_cast<double>(mean_square)));
}

void Bf_OutputStage(BfCoreState &s, int16_t *output) {
    constexpr int32_t kHop = static_cast<int32_t>(kPointNumber);
    float *accumulator = s.ola_buffer;
    for (int32_t i = 0; i < kFftSize; i += lanes::kLanes) {
        const float32x4_t sum = vaddq_f32(vld1q_f32(accumulator + i), vld1q_f32(s.synth_frame + i));
        vst1q_f32(accumulator + i, sum);
    }
    for (int32_t i = 0; i < kHop; ++i)
        output[i] = Bf_PcmSample<kSaturateOutput>(accumulator[i], s.output_gain);
    const float32x4_t zero = vdupq_n_f32(0.0f);
    for (int32_t i = 0; i < kHop; i += lanes::kLanes) {
        vst1q_f32(accumulator + i, vld1q_f32(accumulator + kHop + i));
        vst1q_f32(accumulator + kHop + i, zero);
    }
}
