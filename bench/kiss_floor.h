// The FFT floor: what one block of 256-point real transforms costs with
// KissFFT called directly (two forward, one inverse, out of place, no
// scaling or copies), the fixed yardstick every figure is divided by. The
// library no longer uses KissFFT; keeping the floor on it keeps ratios
// comparable across changes to the library's own FFT.
#pragma once

#include <kissfft/kiss_fftr.h>

#include <cstring>

#include "Beamformer_core.h"

namespace kivbf_bench {

class KissFloor {
public:
    // The inputs are the state's two analysis windows and its beam spectrum.
    explicit KissFloor(const BfCoreState &s)
        : forward_(kiss_fftr_alloc(kivbf::kFftSize, 0, nullptr, nullptr)),
          inverse_(kiss_fftr_alloc(kivbf::kFftSize, 1, nullptr, nullptr)) {
        std::memcpy(window_[0], s.input_window[0], sizeof window_[0]);
        std::memcpy(window_[1], s.input_window[1], sizeof window_[1]);
        std::memcpy(beam_, s.beam_output, sizeof beam_);
    }
    ~KissFloor() {
        kiss_fftr_free(forward_);
        kiss_fftr_free(inverse_);
    }
    KissFloor(const KissFloor &) = delete;
    KissFloor &operator=(const KissFloor &) = delete;

    void Block() {
        kiss_fftr(forward_, window_[0], spectrum_[0]);
        kiss_fftr(forward_, window_[1], spectrum_[1]);
        kiss_fftri(inverse_, beam_, frame_);
    }

private:
    kiss_fftr_cfg forward_;
    kiss_fftr_cfg inverse_;
    float window_[2][kivbf::kFftSize];
    kiss_fft_cpx spectrum_[2][kivbf::kFftSize / 2 + 1];
    kiss_fft_cpx beam_[kivbf::kFftSize / 2 + 1];
    float frame_[kivbf::kFftSize];
};

}  // namespace kivbf_bench
