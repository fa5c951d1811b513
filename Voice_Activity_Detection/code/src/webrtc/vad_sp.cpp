// Minimum tracking: each band remembers its 16 smallest feature values of the
// last 100 frames; the median of the five smallest, smoothed over time, is the
// floor towards which the noise model is pulled.
#include "vad_tables.h"
#include "webrtc_vad.h"

namespace kivbf::vad {
namespace {

// Ages every remembered value; one that reaches the maximum age is dropped and
// the larger values move down, leaving an empty slot at the top. The value
// that moves into a dropped slot is not aged again in the same frame.
void AgeMinima(int16_t *age, int16_t *values) {
    for (int i = 0; i < kMinimaPerBand; ++i) {
        if (age[i] != kMinimumMaxAge) {
            ++age[i];
            continue;
        }
        for (int j = i; j < kMinimaPerBand - 1; ++j) {
            values[j] = values[j + 1];
            age[j] = age[j + 1];
        }
        age[kMinimaPerBand - 1] = kMinimumMaxAge + 1;
        values[kMinimaPerBand - 1] = kMinimumEmpty;
    }
}

// Slot at which `feature` belongs in the ascending list (after equal values),
// or -1 when it is not among the 16 smallest.
int InsertPosition(const int16_t *values, int16_t feature) {
    if (feature >= values[kMinimaPerBand - 1]) return -1;
    int position = 0;
    while (feature >= values[position]) ++position;
    return position;
}

}  // namespace

int16_t VadCore_TrackMinimum(VadDetectorState &s, int16_t feature, int band) {
    int16_t *age = &s.minimum_age[band * kMinimaPerBand];
    int16_t *values = &s.minimum_values[band * kMinimaPerBand];

    AgeMinima(age, values);

    const int position = InsertPosition(values, feature);
    if (position >= 0) {
        for (int i = kMinimaPerBand - 1; i > position; --i) {
            values[i] = values[i - 1];
            age[i] = age[i - 1];
        }
        values[position] = feature;
        age[position] = 1;
    }

    // Until three frames have been adapted on, there are not five values yet.
    int16_t median = kInitialMedian;
    if (s.frame_counter > 2) {
        median = values[2];
    } else if (s.frame_counter > 0) {
        median = values[0];
    }

    // Follow a falling median quickly and a rising one slowly; before the
    // first adapted frame the median is taken as it is.
    int16_t alpha = 0;  // Q15
    if (s.frame_counter > 0) alpha = median < s.smoothed_minimum[band] ? kSmoothingDown : kSmoothingUp;
    int32_t smoothed = (alpha + 1) * s.smoothed_minimum[band];
    smoothed += (INT16_MAX - alpha) * median;
    smoothed += 16384;
    s.smoothed_minimum[band] = static_cast<int16_t>(smoothed >> 15);
    return s.smoothed_minimum[band];
}

}  // namespace kivbf::vad
