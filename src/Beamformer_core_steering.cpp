// Microphone-1 equalisation and the block's target steering.
#include <cmath>
#include <cstring>

#include "math_functions.h"
#include "Beamformer_core.h"
#include "vector_lanes.h"

using namespace kivbf;
using namespace kivbf::lanes;

namespace {
constexpr float kPowerScale = 256.0f;  // power estimates use the spectrum times 256
constexpr float kCalibrationFloor = 1e-6f;

// Modes 3 and 4 carry the post-filter, which needs the relative steering.
bool HasPostFilter(const BfCoreState &s) { return s.mode == 3 || s.mode == 4; }
}  // namespace

// gain = sqrt(P0 / (Pm + 1e-6)) from the powers of the spectra scaled by 256,
// bins 0..127 in lanes and bin 128 with the scalar operations; the floor is
// added after the scaling by 256^2, where it takes effect.
void Bf_Calibrate(BfCoreState &s) {
    for (int32_t i = 0; i < kSpectrumFloats; ++i) s.raw_mic1_spectrum[i] = s.mic_spectrum[1][i];
    if (s.calibration_flag != 1) return;

    const float *reference = s.mic_spectrum[0];
    float *gain = s.calibration_gain;
    for (int32_t m = 1; m < kMics; ++m) {
        float *spectrum = s.mic_spectrum[m];
        ForEachLaneGroup(
            kBins,
            [&](int32_t k) {
                const float32x4x2_t x0 = vld2q_f32(reference + 2 * k);
                const float32x4_t re0 = vmulq_n_f32(x0.val[0], kPowerScale);
                const float32x4_t im0 = vmulq_n_f32(x0.val[1], kPowerScale);
                const float32x4_t power0 = vaddq_f32(vmulq_f32(re0, re0), vmulq_f32(im0, im0));
                float32x4x2_t x = vld2q_f32(spectrum + 2 * k);
                const float32x4_t re = vmulq_n_f32(x.val[0], kPowerScale);
                const float32x4_t im = vmulq_n_f32(x.val[1], kPowerScale);
                float32x4_t g = vaddq_f32(vmulq_f32(re, re), vmulq_f32(im, im));
                g = vaddq_f32(g, vdupq_n_f32(kCalibrationFloor));
                g = SquareRoot(vmulq_f32(power0, Reciprocal(g)));
                vst1q_f32(gain + k, g);
                x.val[0] = vmulq_f32(x.val[0], g);
                x.val[1] = vmulq_f32(x.val[1], g);
                vst2q_f32(spectrum + 2 * k, x);
            },
            [&](int32_t k) {
                const float re0 = reference[2 * k] * kPowerScale;
                const float im0 = reference[2 * k + 1] * kPowerScale;
                const float power0 = re0 * re0 + im0 * im0;
                const float re = spectrum[2 * k] * kPowerScale;
                const float im = spectrum[2 * k + 1] * kPowerScale;
                float g = re * re + im * im;
                g = g + kCalibrationFloor;
                g = ScalarSquareRoot(ScalarQuotient(power0, g));
                gain[k] = g;
                spectrum[2 * k] = spectrum[2 * k] * g;
                spectrum[2 * k + 1] = spectrum[2 * k + 1] * g;
            });
    }
}

void Bf_TargetSteering(BfCoreState &s) {
    const float direction = static_cast<float>(s.target_angle * kPi / 180.0);
    const double speed = s.speed_of_sound;
    for (int32_t m = 0; m < kMics; ++m) {
        const double projection = s.mic_position[m][0] * math::Cos(static_cast<double>(direction)) +
                                  s.mic_position[m][1] * math::Sin(static_cast<double>(direction));
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
        s.target_steering[2 * k] = static_cast<float>(math::Cos(lag));
        s.target_steering[2 * k + 1] = static_cast<float>(math::Sin(lead));
    }
    std::memcpy(s.target_steering_delay, s.steer_delay, sizeof s.steer_delay);
    s.target_steering_built = 1;
}
