// Short-time analysis and synthesis: sine-windowed 256-point frames, hop 128.
#include <cstring>

#include "Beamformer_core.h"
#include "vector_lanes.h"
#include "windowfilt.h"

namespace {
constexpr size_t kSpectrumBytes = sizeof(float) * kivbf::kSpectrumFloats;
}  // namespace

// Each microphone's windowed frame goes straight into its spectrum array,
// which the in-place transform leaves holding the spectrum.
void Bf_Analysis(BfCoreState &s) {
    for (int32_t ch = 0; ch < kivbf::kMics; ++ch) {
        float *frame = s.mic_spectrum[ch];
        WindowFilter_ApplyTo(s.input_window[ch], frame, WINDOW_ANALYSIS, 1.0f);
        frame[kivbf::kFftSize] = 0.0f;  // the two floats past the frame
        frame[kivbf::kFftSize + 1] = 0.0f;
        FFT_Rdft(&s.fft_record, kivbf::kFftSize, FFT_FORWARD, frame, s.fft_work_ip, s.fft_work_w);
    }
}

// The synthesis window and the return to the 16-bit scale in one pass.
void Bf_Synthesis(BfCoreState &s, const float *spectrum, float *destination) {
    std::memcpy(s.fft_buffer, spectrum, kSpectrumBytes);
    FFT_Rdft(&s.fft_record, kivbf::kFftSize, FFT_INVERSE, s.fft_buffer, s.fft_work_ip,
             s.fft_work_w);
    WindowFilter_ApplyTo(s.fft_buffer, destination, WINDOW_SYNTHESIS, kivbf::kPcmScale);
}
