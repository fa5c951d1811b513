// Per-bin noise power by speech-presence probability, decision-directed
// a-priori SNR and Wiener gain per microphone.
#include "Beamformer_core.h"
#include "vector_kernels.h"

using namespace kivbf;

namespace {

constexpr float kPowerScale = 65536.0f;  // power of the spectrum scaled by 256
constexpr float kLambdaFloor = 1e-6f;
// Presence probability with a fixed a-priori SNR of 15 dB under speech:
// p = 1 / (1 + (1 + xi) exp(-gamma xi / (1 + xi))), xi = 10^1.5.
constexpr float kPresenceOffset = 32.622776f;
constexpr float kPresenceSlope = -0.9693466f;
constexpr float kPresenceSmoothing = 0.1f;  // weight of this block's probability
constexpr float kPresenceCap = 0.9f;        // both threshold and the value it caps to
constexpr float kNoiseSmoothing = 0.2f;     // weight of this block's noise estimate
constexpr float kPriorSmoothing = 0.02f;    // weight of this block's a-posteriori SNR
// Floor of the speech-to-noise ratio by adaptive intensity 0..4.
constexpr float kSpeechRatioFloor[] = {0.01f, 0.01f, 0.005f, 0.005f, 0.001f};

bool HasPostFilter(const BfCoreState &s) { return s.mode == 3 || s.mode == 4; }

// out = (1 - p) a + p b, element-wise.
void MixByProbability(const float *p, const float *a, const float *b, float *out) {
    for (int32_t k = 0; k < kBins; ++k) out[k] = (1.0f - p[k]) * a[k] + p[k] * b[k];
}

// gamma = P / max(lambda, 1e-6); p from gamma, smoothed and capped.
void SpeechPresence(BfCoreState &s, int32_t m) {
    float *gamma = s.ne_posterior_snr;
    float *presence = s.ne_presence;
    float *smoothed = s.spp_smoothed[m];

    vec_floor(s.noise_psd[m], kLambdaFloor, gamma, kBins);
    vec_divide(s.ne_power, gamma, gamma, kBins);

    for (int32_t k = 0; k < kBins; ++k) presence[k] = gamma[k];
    vec_scale(presence, kPresenceSlope, kBins);
    vec_exp(presence, presence, kBins);
    vec_scale(presence, kPresenceOffset, kBins);
    vec_add(presence, s.unit_vector, presence, kBins);
    vec_divide(s.unit_vector, presence, presence, kBins);

    if (s.noise_counter == 1) {
        for (int32_t k = 0; k < kBins; ++k) smoothed[k] = presence[k];
    } else {
        vec_mix(presence, smoothed, kPresenceSmoothing, smoothed, kBins);
    }
    // Keeps the noise estimate moving when speech seems present for long.
    for (int32_t k = 0; k < kBins; ++k) {
        if (smoothed[k] > kPresenceCap && presence[k] > kPresenceCap) presence[k] = kPresenceCap;
    }
}

void NoiseUpdate(BfCoreState &s, int32_t m) {
    float *scaled_noise = s.ne_prior_snr;  // free until the a-priori SNR
    float *expected = s.ne_speech;         // free until the speech power
    for (int32_t k = 0; k < kBins; ++k) scaled_noise[k] = s.noise_psd[m][k];
    vec_scale(scaled_noise, s.intensity_scale, kBins);
    MixByProbability(s.ne_presence, s.ne_power, scaled_noise, expected);
    vec_mix(expected, s.noise_psd[m], kNoiseSmoothing, s.noise_psd[m], kBins);
}

void WienerGain(BfCoreState &s, int32_t m) {
    float *gamma = s.ne_posterior_snr;
    float *xi = s.ne_prior_snr;
    float *gain = s.wiener_gain[m];
    float *memory = s.prior_snr_memory[m];

    for (int32_t k = 0; k < kBins; ++k) xi[k] = gamma[k] - 1.0f;
    vec_floor(xi, 0.0f, xi, kBins);
    vec_mix(xi, memory, kPriorSmoothing, xi, kBins);
    vec_floor(xi, s.intensity_floor, xi, kBins);

    vec_add(xi, s.unit_vector, s.ne_speech, kBins);
    vec_divide(xi, s.ne_speech, gain, kBins);
    vec_mul(gain, gain, memory, kBins);
    vec_mul(memory, gamma, memory, kBins);
}

// Estimated speech power over noise power of microphone 0, for the post-filter.
void SpeechNoiseRatio(BfCoreState &s) {
    float *speech = s.ne_speech;
    float *ratio = s.speech_noise_ratio;
    const float *gain = s.wiener_gain[0];
    const float *noise = s.noise_psd[0];

    vec_mul(gain, gain, speech, kBins);
    vec_mul(speech, s.ne_power, speech, kBins);
    for (int32_t k = 0; k < kBins; ++k) {
        if (noise[k] >= speech[k]) {
            // A silent bin (both 0) would give 0/0: it has no speech, ratio 0.
            ratio[k] = speech[k] > 0.0f ? speech[k] / noise[k] : 0.0f;
        } else {
            ratio[k] = 1.0f;
        }
    }
    vec_mul(ratio, gain, ratio, kBins);
    int32_t intensity = s.adaptive_intensity;
    if (intensity < 0) intensity = 0;
    if (intensity > 4) intensity = 4;
    vec_floor(ratio, kSpeechRatioFloor[intensity], ratio, kBins);
}

}  // namespace

void Bf_NoiseEstimate(BfCoreState &s) {
    for (int32_t m = 0; m < kMics; ++m) {
        cplx_power(s.mic_spectrum[m], s.ne_power, kSpectrumFloats);
        vec_scale(s.ne_power, kPowerScale, kBins);

        if (s.noise_counter == 0) {
            // First block: the noise starts at the block's power; gamma keeps
            // what its scratch array holds.
            for (int32_t k = 0; k < kBins; ++k) s.noise_psd[m][k] = s.ne_power[k];
        } else {
            SpeechPresence(s, m);
            NoiseUpdate(s, m);
        }
        WienerGain(s, m);
        if (m == 0 && HasPostFilter(s)) SpeechNoiseRatio(s);

        if (s.calibration_flag == 1) {
            // The equalised microphones share microphone 0's gain.
            for (int32_t k = 0; k < kBins; ++k) s.wiener_gain[1][k] = s.wiener_gain[0][k];
            break;
        }
    }
    if (s.noise_counter < 2) ++s.noise_counter;
}
