// Set-up, aggressiveness and the per-frame path of the detector.
#include "webrtc_vad.h"

#include <algorithm>
#include <iterator>

#include "vad_tables.h"

namespace kivbf::vad {

int32_t VadCore_Init(VadDetectorState &s) {
    s.decision = 1;
    std::fill(std::begin(s.downsampler_state), std::end(s.downsampler_state), 0);
    s.resample_by_two = 0;
    s.frame_counter = 0;
    s.hangover = 0;
    s.speech_run = 0;

    std::copy(std::begin(kNoiseDataMeans), std::end(kNoiseDataMeans), s.noise_means);
    std::copy(std::begin(kSpeechDataMeans), std::end(kSpeechDataMeans), s.speech_means);
    std::copy(std::begin(kNoiseDataStds), std::end(kNoiseDataStds), s.noise_stds);
    std::copy(std::begin(kSpeechDataStds), std::end(kSpeechDataStds), s.speech_stds);

    std::fill(std::begin(s.minimum_age), std::end(s.minimum_age), 0);
    std::fill(std::begin(s.minimum_values), std::end(s.minimum_values), kMinimumEmpty);
    std::fill(std::begin(s.smoothed_minimum), std::end(s.smoothed_minimum), kInitialMedian);

    std::fill(std::begin(s.split_upper_state), std::end(s.split_upper_state), 0);
    std::fill(std::begin(s.split_lower_state), std::end(s.split_lower_state), 0);
    std::fill(std::begin(s.highpass_state), std::end(s.highpass_state), 0);

    s.frame_length = 0;
    if (VadCore_SetMode(s, kDefaultMode) != 0) return -1;
    s.init_marker = kInitCheck;
    return 0;
}

int32_t VadCore_SetMode(VadDetectorState &s, int32_t mode) {
    if (mode < 0 || mode >= kModes) return -1;
    const VadModeRows &rows = kModeRows[mode];
    std::copy(std::begin(rows.overhang_max_short), std::end(rows.overhang_max_short),
              s.overhang_max_short);
    std::copy(std::begin(rows.overhang_max_long), std::end(rows.overhang_max_long),
              s.overhang_max_long);
    std::copy(std::begin(rows.local_threshold), std::end(rows.local_threshold), s.local_threshold);
    std::copy(std::begin(rows.global_threshold), std::end(rows.global_threshold),
              s.global_threshold);
    return 0;
}

int32_t VadCore_Process(VadDetectorState &s, const int16_t *frame, int16_t *downsampled,
                        int32_t msg_level) {
    if (s.init_marker != kInitCheck || s.frame_length > kMaxInputFrame) return -1;

    const size_t classified_length = s.frame_length / 2;
    int16_t features[kBands];
    const int16_t total_energy =
        s.resample_by_two != 0
            ? VadCore_DownsampledBandFeatures(s, frame, s.frame_length, downsampled, features)
            : VadCore_BandFeatures(s, frame, classified_length, features);
    s.decision = GmmProbability(s, features, total_energy, classified_length, msg_level);
    return s.decision > 0 ? 1 : 0;
}

}  // namespace kivbf::vad
