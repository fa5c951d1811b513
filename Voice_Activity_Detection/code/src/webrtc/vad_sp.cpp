// Minimum tracking: each band remembers its 16 smallest feature values of the
// last 100 frames; the median of the five smallest, smoothed over time, is the
// floor towards which the noise model is pulled.
#if defined(__ARM_NEON)
#include <arm_neon.h>
#else
#include <simde/arm/neon.h>
#endif

#include "vad_tables.h"
#include "webrtc_vad.h"

namespace kivbf::vad {
namespace {

static_assert(kMinimaPerBand == 16, "a band's list is two eight-lane vectors");

// Lanes 0..7 and 8..15 of a band's list.
struct MinimaLanes {
    int16x8_t low;
    int16x8_t high;
};

MinimaLanes LoadLanes(const int16_t *list) { return {vld1q_s16(list), vld1q_s16(list + 8)}; }

void StoreLanes(int16_t *list, MinimaLanes lanes) {
    vst1q_s16(list, lanes.low);
    vst1q_s16(list + 8, lanes.high);
}

// Ages every remembered value; one that reaches the maximum age is dropped and
// the larger values move down, leaving an empty slot at the top. The value
// that moves into a dropped slot is not aged again in the same frame.
void DropAndAgeMinima(int16_t *age, int16_t *values) {
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

// The common frame in which no value expires: every age grows by one
// (wrapping like the 16-bit counters they are).
void AgeMinima(int16_t *age, int16_t *values) {
    const MinimaLanes ages = LoadLanes(age);
    const int16x8_t max_age = vdupq_n_s16(kMinimumMaxAge);
    const uint16x8_t expiring = vorrq_u16(vceqq_s16(ages.low, max_age), vceqq_s16(ages.high, max_age));
    const uint16x4_t folded = vorr_u16(vget_low_u16(expiring), vget_high_u16(expiring));
    if (vget_lane_u64(vreinterpret_u64_u16(folded), 0) != 0) {
        DropAndAgeMinima(age, values);
        return;
    }
    const int16x8_t one = vdupq_n_s16(1);
    StoreLanes(age, {vaddq_s16(ages.low, one), vaddq_s16(ages.high, one)});
}

// Number of values at or below `feature`: in the ascending list, the slot at
// which it belongs (after equal values).
int InsertPosition(MinimaLanes values, int16_t feature) {
    const int16x8_t x = vdupq_n_s16(feature);
    // Each comparison lane is 0 or -1.
    const int16x8_t counts = vaddq_s16(vreinterpretq_s16_u16(vcleq_s16(values.low, x)),
                                       vreinterpretq_s16_u16(vcleq_s16(values.high, x)));
    const int64x2_t sums = vpaddlq_s32(vpaddlq_s16(counts));
    return -static_cast<int>(vgetq_lane_s64(sums, 0) + vgetq_lane_s64(sums, 1));
}

// The list with `entry` inserted at `position` and the values above it moved
// up one slot; the last value falls out.
MinimaLanes Inserted(MinimaLanes list, int position, int16_t entry) {
    static constexpr int16_t kSlotIndex[kMinimaPerBand] = {0, 1, 2,  3,  4,  5,  6,  7,
                                                           8, 9, 10, 11, 12, 13, 14, 15};
    const int16x8_t at = vdupq_n_s16(static_cast<int16_t>(position));
    const int16x8_t entries = vdupq_n_s16(entry);
    const MinimaLanes slots = LoadLanes(kSlotIndex);
    const MinimaLanes moved = {vextq_s16(entries, list.low, 7), vextq_s16(list.low, list.high, 7)};
    MinimaLanes out;
    out.low = vbslq_s16(vcgtq_s16(slots.low, at), moved.low, list.low);
    out.low = vbslq_s16(vceqq_s16(slots.low, at), entries, out.low);
    out.high = vbslq_s16(vcgtq_s16(slots.high, at), moved.high, list.high);
    out.high = vbslq_s16(vceqq_s16(slots.high, at), entries, out.high);
    return out;
}

}  // namespace

int16_t VadCore_TrackMinimum(VadDetectorState &s, int16_t feature, int band) {
    int16_t *age = &s.minimum_age[band * kMinimaPerBand];
    int16_t *values = &s.minimum_values[band * kMinimaPerBand];

    AgeMinima(age, values);

    // The list is ascending, so a feature below its last value belongs in it.
    if (feature < values[kMinimaPerBand - 1]) {
        const MinimaLanes value_lanes = LoadLanes(values);
        const int position = InsertPosition(value_lanes, feature);
        StoreLanes(values, Inserted(value_lanes, position, feature));
        StoreLanes(age, Inserted(LoadLanes(age), position, 1));
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
