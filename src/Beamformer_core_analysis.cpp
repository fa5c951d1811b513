// Short-time analysis and synthesis: sine-windowed 256-point frames, hop 128.
#include <cstring>

#include "Beamformer_core.h"
#include "vector_lanes.h"
#include "windowfilt.h"

namespace {
constexpr float kPcmScale = 32768.0f;  // internal full scale 1.0 back to 16-bit PCM
constexpr size_t kSpectrumBytes = sizeof(float) * kivbf::kSpectrumFloats;
}  // namespace

// Each microphone's frame is windowed and transformed in its own spectrum
// array, which the in-place transform leaves holding the spectrum.
void Bf_Analysis(BfCoreState &s) {
    for (int32_t ch = 0; ch < kivbf::kMics; ++ch) {
        float *frame = s.mic_spectrum[ch];
        std::memcpy(frame, s.input_window[ch], sizeof s.input_window[ch]);
        frame[kivbf::kFftSize] = 0.0f;  // the two floats past the frame
        frame[kivbf::kFftSize + 1] = 0.0f;
        WindowFilter_Apply(frame, WINDOW_ANALYSIS);
        FFT_Rdft(&s.fft_record, kivbf::kFftSize, FFT_FORWARD, frame, s.fft_work_ip, s.fft_work_w);
    }
}

void Bf_Synthesis(BfCoreState &s, const float *spectrum, float *destination) {
    std::memcpy(s.fft_buffer, spectrum, kSpectrumBytes);
    FFT_Rdft(&s.fft_record, kivbf::kFftSize, FFT_INVERSE, s.fft_buffer, s.fft_work_ip,
             s.fft_work_w);
    WindowFilter_Apply(s.fft_buffer, WINDOW_SYNTHESIS);
    for (int32_t n = 0; n < kivbf::kFftSize; n += kivbf::lanes::kLanes)
        vst1q_f32(destination + n, vmulq_n_f32(vld1q_f32(s.fft_buffer + n), kPcmScale));
}
