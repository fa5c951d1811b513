// Scans of a handle's floating-point state for the fuzzer and the soak tool:
// every float array and scalar that a later block reads back, the direction
// finder's and the enhanced mode's included. Scratch that a stage fills
// before reading lives on the stack, not here.
#pragma once

#include <cmath>
#include <cstddef>

#include "Beamformer_core.h"

namespace kivbf_tools {

// Calls visit(name, first, count) for each float field of the state.
template <typename Visit>
void ForEachStateFloat(const BfCoreState &s, Visit &&visit) {
#define KIVBF_VISIT(field) \
    visit(#field, reinterpret_cast<const float *>(&s.field), sizeof(s.field) / sizeof(float))
    KIVBF_VISIT(pf_gain);
    KIVBF_VISIT(microphone_distance);
    KIVBF_VISIT(output_gain);
    KIVBF_VISIT(speed_of_sound);
    KIVBF_VISIT(target_angle);
    KIVBF_VISIT(loading_base);
    KIVBF_VISIT(mic_position);
    KIVBF_VISIT(mic_distance_matrix);
    KIVBF_VISIT(mic_relative_position);
    KIVBF_VISIT(fft_buffer);
    KIVBF_VISIT(input_window);
    KIVBF_VISIT(input_rms);
    KIVBF_VISIT(bin_loading);
    KIVBF_VISIT(bin_frequency);
    KIVBF_VISIT(ola_buffer);
    KIVBF_VISIT(synth_frame);
    KIVBF_VISIT(beam_weights);
    KIVBF_VISIT(steering_angle);
    KIVBF_VISIT(intensity_scale);
    KIVBF_VISIT(intensity_floor);
    KIVBF_VISIT(band_weight_low);
    KIVBF_VISIT(band_weight_wide);
    KIVBF_VISIT(band_weight_mid);
    KIVBF_VISIT(mode3_scale);
    KIVBF_VISIT(direction_slope);
    KIVBF_VISIT(pf_mix);
    KIVBF_VISIT(mic_spectrum);
    KIVBF_VISIT(mic_phase_rate);
    KIVBF_VISIT(steering_phase);
    KIVBF_VISIT(raw_mic1_spectrum);
    KIVBF_VISIT(calibration_gain);
    KIVBF_VISIT(steer_delay);
    KIVBF_VISIT(target_steering);
    KIVBF_VISIT(target_steering_delay);
    KIVBF_VISIT(noise_psd);
    KIVBF_VISIT(spp_smoothed);
    KIVBF_VISIT(prior_snr_memory);
    KIVBF_VISIT(wiener_gain);
    KIVBF_VISIT(speech_noise_ratio);
    KIVBF_VISIT(noise_covariance);
    KIVBF_VISIT(mvdr_steering);
    KIVBF_VISIT(mvdr_steering_delay);
    KIVBF_VISIT(power_history);
    KIVBF_VISIT(avg_power);
    KIVBF_VISIT(cross_history);
    KIVBF_VISIT(avg_cross);
    KIVBF_VISIT(direction_score);
    KIVBF_VISIT(direction_weight);
    KIVBF_VISIT(mean_coherence);
    KIVBF_VISIT(beam_output);
    KIVBF_VISIT(anc_filter);
    KIVBF_VISIT(reference_power);
    KIVBF_VISIT(pf_raw_gain);
    KIVBF_VISIT(locate.window_low);
    KIVBF_VISIT(locate.window_high);
    KIVBF_VISIT(locate.built_speed);
    KIVBF_VISIT(locate.built_axis);
    KIVBF_VISIT(locate.phase_re);
    KIVBF_VISIT(locate.phase_im);
    KIVBF_VISIT(locate.advance_re);
    KIVBF_VISIT(locate.advance_im);
    KIVBF_VISIT(locate.map);
    KIVBF_VISIT(locate.map_weight);
    KIVBF_VISIT(locate.power);
    KIVBF_VISIT(locate.noise_power);
    KIVBF_VISIT(locate.noise_cross_re);
    KIVBF_VISIT(locate.noise_cross_im);
    KIVBF_VISIT(locate.cross_re);
    KIVBF_VISIT(locate.cross_im);
    KIVBF_VISIT(locate.diffuse);
    KIVBF_VISIT(locate.direction);
    KIVBF_VISIT(locate.confidence);
    KIVBF_VISIT(enhanced.moments);
    KIVBF_VISIT(enhanced.noise_covariance);
    KIVBF_VISIT(enhanced.beam_noise);
    KIVBF_VISIT(enhanced.beam_presence);
    KIVBF_VISIT(enhanced.transfer);
    KIVBF_VISIT(enhanced.prior_snr_memory);
#undef KIVBF_VISIT
}

// Name of the first state field holding NaN or infinity, or nullptr.
inline const char *FirstNonFiniteField(const BfCoreState &s) {
    const char *found = nullptr;
    ForEachStateFloat(s, [&found](const char *name, const float *v, size_t n) {
        for (size_t i = 0; found == nullptr && i < n; ++i)
            if (!std::isfinite(v[i])) found = name;
    });
    return found;
}

// Subnormal values in the state and the field holding the most of them.
struct SubnormalCount {
    size_t total = 0;
    const char *worst_field = nullptr;
    size_t worst_count = 0;
};

inline SubnormalCount CountSubnormals(const BfCoreState &s) {
    SubnormalCount count;
    ForEachStateFloat(s, [&count](const char *name, const float *v, size_t n) {
        size_t here = 0;
        for (size_t i = 0; i < n; ++i) here += std::fpclassify(v[i]) == FP_SUBNORMAL;
        count.total += here;
        if (here > count.worst_count) {
            count.worst_count = here;
            count.worst_field = name;
        }
    });
    return count;
}

}  // namespace kivbf_tools
