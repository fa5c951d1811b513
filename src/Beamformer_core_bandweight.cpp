// Mode-3 band weighting.
//
// While a coherent source persists, the per-bin direction weights are scaled
// by three smoothed band weights: each is the logistic of a band's mean
// direction score, so a band that points away from the target as a whole is
// held down even where single bins happen to agree. Without a coherent source
// every bin passes with weight 1.
#include <cmath>

#include "math_functions.h"
#include "Beamformer_core.h"
#include "vector_kernels.h"

using namespace kivbf;

namespace {

// Bins whose direction scores are averaged.
constexpr int32_t kLowScoreFirst = 16;
constexpr int32_t kLowScoreCount = 16;   // bins 16..31
constexpr int32_t kWideScoreFirst = 16;
constexpr int32_t kWideScoreCount = 72;  // bins 16..87

// Bins each band weight scales: 0..7 low, 8..31 mid, 32..128 wide. The band
// edges are multiples of four, so vec_scale runs bins 0..127 in lanes and bin
// 128 alone, as every per-bin stage does.
constexpr int32_t kMidFirst = 8;
constexpr int32_t kWideFirst = 32;
static_assert(kMidFirst % 4 == 0 && kWideFirst % 4 == 0);

constexpr double kNewShare = 0.99;
constexpr double kOldShare = 1.0 - kNewShare;

// sum + score[first] + ... + score[first + count - 1], added in that order.
float AddScores(float sum, const float *score, int32_t first, int32_t count) {
    for (int32_t k = first; k < first + count; ++k) {
        sum += score[k];
    }
    return sum;
}

// old x 0.01 + 0.99 / (scale x exp(slope x (mean - 1)) + 1), in double.
float SmoothBandWeight(float old_weight, float score_sum, int32_t count, float scale,
                       float slope) {
    const float offset = score_sum / static_cast<float>(count) - 1.0f;
    const double logistic_denominator =
        static_cast<double>(scale) *
            math::Exp(static_cast<double>(slope) * static_cast<double>(offset)) +
        1.0;
    return static_cast<float>(kOldShare * old_weight + kNewShare / logistic_denominator);
}

}  // namespace

void Bf_BandWeighting(BfCoreState &s) {
    if (s.coherent_flag != 1) {
        vec_fill(s.direction_weight, 1.0f, kBins);
        return;
    }
    // The low bins open the wide range, so the wide sum goes on from the low one.
    static_assert(kWideScoreFirst == kLowScoreFirst && kWideScoreCount > kLowScoreCount);
    const float low_sum = AddScores(0.0f, s.direction_score, kLowScoreFirst, kLowScoreCount);
    const float wide_sum = AddScores(low_sum, s.direction_score, kLowScoreFirst + kLowScoreCount,
                                     kWideScoreCount - kLowScoreCount);
    s.band_weight_low = SmoothBandWeight(s.band_weight_low, low_sum, kLowScoreCount,
                                         s.mode3_scale, s.direction_slope);
    s.band_weight_wide = SmoothBandWeight(s.band_weight_wide, wide_sum, kWideScoreCount,
                                          s.mode3_scale, s.direction_slope);
    const double geometric_mean = std::sqrt(static_cast<double>(s.band_weight_low) *
                                            static_cast<double>(s.band_weight_wide));
    s.band_weight_mid =
        static_cast<float>(kOldShare * s.band_weight_mid + kNewShare * geometric_mean);

    vec_scale(s.direction_weight, s.band_weight_low, kMidFirst);
    vec_scale(s.direction_weight + kMidFirst, s.band_weight_mid, kWideFirst - kMidFirst);
    vec_scale(s.direction_weight + kWideFirst, s.band_weight_wide, kBins - kWideFirst);
}
