// Microphone-1 equalisation and the block's target steering.
#include <cmath>
#include <cstring>

#include "math_functions.h"
#include "Beamformer_core.h"
#include "Beamformer_core_modes.h"
#include "vector_lanes.h"

using namespace kivbf;
using namespace kivbf::lanes;

namespace {
constexpr float kCalibrationFloor = 1e-6f;

// gain = sqrt(P0 / (Pm + 1e-6)) from the powers of the spectra scaled by 256;
// the floor is added after the scaling by 256^2, where it takes effect.
template <typename T>
void CalibrateBins(BfCoreState &s, int32_t m, int32_t k) {
    const T scale(kSpectrumScale);
    const T power0 = Power(Scale(LoadComplex<T>(s.mic_spectrum[0], k), scale));
    const Complex<T> x = LoadComplex<T>(s.mic_spectrum[m], k);
    const T power = Power(Scale(x, scale)) + T(kCalibrationFloor);
    const T gain = SquareRoot(Quotient(power0, power));
    Store(s.calibration_gain, k, gain);
    StoreComplex(s.mic_spectrum[m], k, Scale(x, gain));
}
}  // namespace

void Bf_Calibrate(BfCoreState &s) {
    for (int32_t i = 0; i < kSpectrumFloats; ++i) s.raw_mic1_spectrum[i] = s.mic_spectrum[1][i];
    if (s.calibration_flag != 1) return;

    for (int32_t m = 1; m < kMics; ++m)
        ForEachBin(kBins, [&](auto element, int32_t k) { CalibrateBins<decltype(element)>(s, m, k); });
}

void Bf_TargetSteering(BfCoreState &s) {
    const float direction = static_cast<float>(s.target_angle * kPi / 180.0);
    const double speed = s.speed_of_sound;
    for (int32_t m = 0; m < kMics; ++m) {
        const double projection = s.mic_position[m][0] * math::Cos(static_cast<double>(direction)) +
                                  s.mic_position[m][1] * math::Sin(static_cast<double>(direction));
        s.steer_delay[m] = static_cast<float>(kTwoPi * projection / speed);
    }
    if (!TraitsOf(s).post_filter) return;  // only the post-filter needs the table
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
