// Input level and output stage: the two ends of the per-block pipeline.
#include "Beamformer_core_output.h"

#include <cmath>

#include "Beamformer_core.h"
#include "vector_kernels.h"

using namespace kivbf;

void Bf_InputLevel(BfCoreState &s) {
    const float *x = s.input_window[0];
    const float energy = vec_dot(x, x, kFftSize);
    const float mean_square = energy / static_cast<float>(kFftSize);
    s.input_rms = static_cast<float>(std::sqrt(static_cast<double>(mean_square)));
}

void Bf_OutputStage(BfCoreState &s, int16_t *output) {
    constexpr int32_t kHop = static_cast<int32_t>(kPointNumber);
    for (int32_t i = 0; i < kFftSize; ++i) s.ola_buffer[i] += s.synth_frame[i];
    for (int32_t i = 0; i < kHop; ++i)
        output[i] = Bf_PcmSample<kSaturateOutput>(s.ola_buffer[i], s.output_gain);
    for (int32_t i = 0; i < kHop; ++i) {
        s.ola_buffer[i] = s.ola_buffer[kHop + i];
        s.ola_buffer[kHop + i] = 0.0f;
    }
}
