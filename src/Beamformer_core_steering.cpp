// Microphone-1 equalisation and the block's target steering.
#include <cmath>
#include <cstring>

#include "Beamformer_core.h"
#include "vector_kernels.h"

using namespace kivbf;

namespace {
constexpr float kPowerScale = 256.0f;  // power estimates use the spectrum times 256
constexpr float kCalibrationFloor = 1e-6f;

// Modes 3 and 4 carry the post-filter, which needs the relative steering.
bool HasPostFilter(const BfCoreState &s) { return s.mode == 3 || s.mode == 4; }
}  // namespace

void Bf_Calibrate(BfCoreState &s) {
    for (int32_t i = 0; i < kSpectrumFloats; ++i) s.raw_mic1_spectrum[i] = s.mic_spectrum[1][i];
    if (s.calibration_flag != 1) return;

    vec_fill(s.calibration_floor, kCalibrationFloor, kBins);
    for (int32_t i = 0; i < kSpectrumFloats; ++i) s.fft_buffer[i] = s.mic_spectrum[0][i];
    vec_scale(s.fft_buffer, kPowerScale, kSpectrumFloats);
    cplx_power(s.fft_buffer, s.calibration_power, kSpectrumFloats);

    for (int32_t m = 1; m < kMics; ++m) {
        float *spectrum = s.mic_spectrum[m];
        for (int32_t i = 0; i < kSpectrumFloats; ++i) s.fft_buffer[i] = spectrum[i];
        vec_scale(s.fft_buffer, kPowerScale, kSpectrumFloats);
        cplx_power(s.fft_buffer, s.calibration_gain, kSpectrumFloats);
        // The floor is added after the scaling by 256^2, where it takes effect.
        vec_add(s.calibration_gain, s.calibration_floor, s.calibration_gain, kBins);
        vec_divide(s.calibration_power, s.calibration_gain, s.calibration_gain, kBins);
        vec_sqrt(s.calibration_gain, s.calibration_gain, kBins);
        cplx_scale_by_real(spectrum, s.calibration_gain, spectrum, kSpectrumFloats);
    }
}

void Bf_TargetSteering(BfCoreState &s) {
    const float direction = static_cast<float>(s.target_angle * kPi / 180.0);
    const double speed = s.speed_of_sound;
    for (int32_t m = 0; m < kMics; ++m) {
        const double projection = s.mic_position[m][0] * std::cos(static_cast<double>(direction)) +
                                  s.mic_position[m][1] * std::sin(static_cast<double>(direction));
        s.steer_delay[m] = static_cast<float>(kTwoPi * projection / speed);
    }
    if (!HasPostFilter(s)) return;
    // The table depends on the delays alone (the bin frequencies are fixed at
    // Init), so while direction, geometry and temperature hold it is still the
    // one the last block built. The delays are compared bit for bit: +0 and -0
    // give tables that differ in the sign of a zero.
    if (s.target_steering_built == 1 &&
        std::memcmp(s.target_steering_delay, s.steer_delay, sizeof s.steer_delay) == 0)
        return;

    for (int32_t k = 0; k < kBins; ++k) {
        const float frequency = s.bin_frequency[k];
        const double lag = frequency * (s.steer_delay[1] - s.steer_delay[0]);
        const double lead = frequency * (s.steer_delay[0] - s.steer_delay[1]);
        s.target_steering[2 * k] = static_cast<float>(std::cos(lag));
        s.target_steering[2 * k + 1] = static_cast<float>(std::sin(lead));
    }
    std::memcpy(s.target_steering_delay, s.steer_delay, sizeof s.steer_delay);
    s.target_steering_built = 1;
}
