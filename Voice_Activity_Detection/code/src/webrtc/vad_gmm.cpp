// The Gaussian-mixture classifier: per-band likelihood ratios, the local and
// global decision, the adaptation of both models, and the hangover.
#include <cstdio>

#include "debug_msglevel.h"
#include "vad_fixed_point.h"
#include "vad_tables.h"
#include "webrtc_vad.h"

namespace kivbf::vad {
namespace {

// What the scoring of one frame leaves for the model update.
struct FrameScores {
    int16_t noise_delta[kModelSize];   // (x - m) / s^2 under each noise Gaussian, Q11
    int16_t speech_delta[kModelSize];  // the same under each speech Gaussian, Q11
    int16_t noise_share[kModelSize];   // each noise Gaussian's share of the band's noise density, Q14
    int16_t speech_share[kModelSize];  // each speech Gaussian's share of the speech density, Q14
};

// Column of the threshold rows for a frame of `frame_length` samples.
int ThresholdColumn(size_t frame_length) {
    if (frame_length == 80) return 0;
    if (frame_length == 160) return 1;
    return 2;
}

// VadCore_GaussianDensity, inlined into the scoring loop.
inline int32_t GaussianDensity(int16_t feature, int16_t mean, int16_t std, int16_t &delta) {
    // 1 / s in Q10 (Q17 / Q7), rounded.
    const int16_t inv_std = Wrap16(DivW32ByW16(131072 + (std >> 1), std));
    const int16_t inv_std_q8 = static_cast<int16_t>(inv_std >> 2);
    const int16_t inv_var = Wrap16((inv_std_q8 * inv_std_q8) >> 2);  // 1 / s^2, Q14
    const int16_t offset = Wrap16(Wrap16(feature * 8) - mean);       // x - m, Q7
    delta = Wrap16((inv_var * offset) >> 10);                        // Q11
    const int32_t exponent = (delta * offset) >> 9;                  // (x - m)^2 / (2 s^2), Q10

    int16_t exp_value = 0;  // Q10
    if (exponent < kCompVar) {
        // exp(-e) = 2^(-e log2(e)): integer part as a shift, fraction taken as linear.
        const int16_t neg_log2 = Wrap16(-Wrap16(WrapMul32(kLog2Exp, exponent) >> 12));  // Q10
        exp_value = static_cast<int16_t>(0x0400 | (neg_log2 & 0x03FF));
        // 0..31 for any exponent below kCompVar; the mask only matters for a
        // wrapped (negative) exponent, and shifts as a 32-bit register does.
        const int16_t shift = Wrap16((Wrap16(~neg_log2) >> 10) + 1);
        exp_value = static_cast<int16_t>(exp_value >> (shift & 31));
    }
    return inv_std * exp_value;  // Q20
}

// Share of the first of two mixture components in their sum (Q27 densities),
// Q14; the second gets the rest. A sum too small to divide by gives the whole
// share to the first component when `unlikely_goes_first`, otherwise none.
void SplitShares(int32_t first_q27, int32_t sum_q27, bool unlikely_goes_first, int16_t &first,
                 int16_t &second) {
    const int16_t sum_q15 = Wrap16(sum_q27 >> 12);
    if (sum_q15 > 0) {
        const int32_t first_q29 = static_cast<int32_t>((static_cast<uint32_t>(first_q27) & 0xFFFFF000u) << 2);
        first = Wrap16(DivW32ByW16(first_q29, sum_q15));
        second = Wrap16(16384 - first);
    } else if (unlikely_goes_first) {
        first = 16384;
    }
}

// Scores the frame against both models; returns 1 when any band's ratio or
// the weighted sum passes its threshold.
int16_t ScoreFrame(const VadDetectorState &s, const int16_t features[kBands], int column,
                   FrameScores &scores) {
    int16_t speech = 0;
    int32_t weighted_ratio_sum = 0;
    for (int band = 0; band < kBands; ++band) {
        int32_t noise_density[kMixtures];   // Q27: weight (Q7) times density (Q20)
        int32_t speech_density[kMixtures];  // Q27
        int32_t noise_sum = 0;
        int32_t speech_sum = 0;
        for (int k = 0; k < kMixtures; ++k) {
            const int g = band + k * kBands;
            noise_density[k] = kNoiseDataWeights[g] *
                               GaussianDensity(features[band], s.noise_means[g], s.noise_stds[g],
                                               scores.noise_delta[g]);
            noise_sum += noise_density[k];
            speech_density[k] = kSpeechDataWeights[g] *
                                GaussianDensity(features[band], s.speech_means[g], s.speech_stds[g],
                                                scores.speech_delta[g]);
            speech_sum += speech_density[k];
        }

        // log2 of the likelihood ratio, approximated by the difference of the
        // two sums' leading-bit positions.
        const int16_t noise_shifts = noise_sum == 0 ? 31 : NormSigned32(noise_sum);
        const int16_t speech_shifts = speech_sum == 0 ? 31 : NormSigned32(speech_sum);
        const int16_t log_ratio = Wrap16(noise_shifts - speech_shifts);
        weighted_ratio_sum += log_ratio * kSpectrumWeight[band];
        if ((log_ratio * 4) > s.local_threshold[column]) speech = 1;

        SplitShares(noise_density[0], noise_sum, true, scores.noise_share[band],
                    scores.noise_share[band + kBands]);
        SplitShares(speech_density[0], speech_sum, false, scores.speech_share[band],
                    scores.speech_share[band + kBands]);
    }
    if (weighted_ratio_sum >= s.global_threshold[column]) speech = 1;
    return speech;
}

// Weighted sum of both components' means of a band (Q14 for Q7 means and weights).
int32_t Weighted(const int16_t *means, int band, const int16_t *weights) {
    return means[band] * weights[band] + means[band + kBands] * weights[band + kBands];
}

// Adds `offset` to both components' means of a band and returns their
// weighted sum (Q14 for Q7 means and weights).
int32_t ShiftAndWeigh(int16_t *means, int band, int16_t offset, const int16_t *weights) {
    for (int k = 0; k < kMixtures; ++k) {
        int16_t &mean = means[band + k * kBands];
        mean = Wrap16(mean + offset);
    }
    return Weighted(means, band, weights);
}

// Deviation step (Q7) from a Q20 numerator over a Q7 deviation, rounded by
// `rounding` and scaled down by `shift`; the quotient's sign is the numerator's.
int16_t DeviationStep(int32_t numerator_q20, int16_t divisor, int16_t rounding, int shift) {
    int16_t step = numerator_q20 > 0 ? Wrap16(DivW32ByW16(numerator_q20, divisor))
                                     : Wrap16(-Wrap16(DivW32ByW16(WrapSub32(0, numerator_q20), divisor)));
    step = Wrap16(step + rounding);
    return static_cast<int16_t>(step >> shift);
}

// Noise deviation of one Gaussian after a noise frame, measured against the
// mean the frame was scored with.
void AdaptNoiseDeviation(VadDetectorState &s, int g, int16_t feature, int16_t old_mean,
                         const FrameScores &scores) {
    const int16_t distance = Wrap16(feature - (old_mean >> 3));            // Q4
    int32_t spread = WrapSub32((scores.noise_delta[g] * distance) >> 3, 4096);  // Q12
    const int16_t share = Wrap16((scores.noise_share[g] + 2) >> 2);         // Q12
    const int32_t numerator = WrapMul32(share, spread) >> 14;               // Q20, about 0.001 of it
    int16_t std = s.noise_stds[g];
    std = Wrap16(std + DeviationStep(numerator, std, 32, 6));
    if (std < kMinStd) std = kMinStd;
    s.noise_stds[g] = std;
}

// Speech model of one Gaussian after a speech frame.
void AdaptSpeechGaussian(VadDetectorState &s, int g, int k, int16_t feature, int16_t mean_ceiling,
                         const FrameScores &scores) {
    const int16_t old_mean = s.speech_means[g];
    const int16_t step = Wrap16((scores.speech_share[g] * scores.speech_delta[g]) >> 11);  // Q14
    const int16_t mean_step = Wrap16((step * kSpeechUpdateConst) >> 21);                   // Q8
    int16_t mean = Wrap16(old_mean + ((mean_step + 1) >> 1));
    if (mean < kMinimumMean[k]) mean = kMinimumMean[k];
    if (mean > mean_ceiling) mean = mean_ceiling;
    s.speech_means[g] = mean;

    const int16_t distance = Wrap16(feature - ((old_mean + 4) >> 3));       // Q4
    const int32_t spread = WrapSub32((scores.speech_delta[g] * distance) >> 3, 4096);  // Q12
    const int16_t share = Wrap16(scores.speech_share[g] >> 2);              // Q12
    const int32_t numerator = WrapMul32(share, spread) >> 4;                // Q20
    // 0.1 * Q20 / Q7 gives Q13; the shift by 8 also divides by 4.
    int16_t std = s.speech_stds[g];
    std = Wrap16(std + DeviationStep(numerator, Wrap16(std * 10), 128, 8));
    if (std < kMinStd) std = kMinStd;
    s.speech_stds[g] = std;
}

// Adapts both models of one band to the frame.
void AdaptBand(VadDetectorState &s, int band, int16_t feature, int16_t speech,
               const FrameScores &scores) {
    const int16_t floor_q4 = VadCore_TrackMinimum(s, feature, band);
    const int32_t noise_mean_q14 = Weighted(s.noise_means, band, kNoiseDataWeights);
    const int16_t noise_mean_q8 = Wrap16(noise_mean_q14 >> 6);
    // The speech-mean ceiling of a band is borrowed from the band below.
    const int16_t mean_ceiling =
        Wrap16((band == 0 ? kFirstBandSpeechCeiling : kMaximumSpeech[band - 1]) + 640);

    for (int k = 0; k < kMixtures; ++k) {
        const int g = band + k * kBands;
        const int16_t old_noise_mean = s.noise_means[g];

        int16_t noise_mean = old_noise_mean;
        if (!speech) {
            const int16_t step = Wrap16((scores.noise_share[g] * scores.noise_delta[g]) >> 11);  // Q14
            noise_mean = Wrap16(noise_mean + Wrap16((step * kNoiseUpdateConst) >> 22));
        }
        // Long-term pull of the noise mean towards the tracked minimum.
        const int16_t pull = Wrap16(floor_q4 * 16 - noise_mean_q8);  // Q8
        noise_mean = Wrap16(noise_mean + Wrap16((pull * kBackEta) >> 9));
        const int16_t lowest = Wrap16((k + 5) << 7);
        const int16_t highest = Wrap16((72 + k - band) << 7);
        if (noise_mean < lowest) noise_mean = lowest;
        if (noise_mean > highest) noise_mean = highest;
        s.noise_means[g] = noise_mean;

        if (speech) {
            AdaptSpeechGaussian(s, g, k, feature, mean_ceiling, scores);
        } else {
            AdaptNoiseDeviation(s, g, feature, old_noise_mean, scores);
        }
    }

    // Keep the two models apart: move speech up by ~0.8 and noise down by ~0.2
    // of the shortfall.
    int32_t noise_weighted = Weighted(s.noise_means, band, kNoiseDataWeights);
    int32_t speech_weighted = Weighted(s.speech_means, band, kSpeechDataWeights);
    const int16_t separation = Wrap16(Wrap16(speech_weighted >> 9) - Wrap16(noise_weighted >> 9));  // Q5
    if (separation < kMinimumDifference[band]) {
        const int16_t shortfall = Wrap16(kMinimumDifference[band] - separation);
        const int16_t speech_move = Wrap16((13 * shortfall) >> 2);
        const int16_t noise_move = Wrap16((3 * shortfall) >> 2);
        speech_weighted = ShiftAndWeigh(s.speech_means, band, speech_move, kSpeechDataWeights);
        noise_weighted = ShiftAndWeigh(s.noise_means, band, Wrap16(-noise_move), kNoiseDataWeights);
    }

    // Keep the weighted means under their ceilings.
    const int16_t speech_mean_q7 = Wrap16(speech_weighted >> 7);
    if (speech_mean_q7 > kMaximumSpeech[band]) {
        const int16_t excess = Wrap16(speech_mean_q7 - kMaximumSpeech[band]);
        for (int k = 0; k < kMixtures; ++k) {
            int16_t &mean = s.speech_means[band + k * kBands];
            mean = Wrap16(mean - excess);
        }
    }
    const int16_t noise_mean_q7 = Wrap16(noise_weighted >> 7);
    if (noise_mean_q7 > kMaximumNoise[band]) {
        const int16_t excess = Wrap16(noise_mean_q7 - kMaximumNoise[band]);
        for (int k = 0; k < kMixtures; ++k) {
            int16_t &mean = s.noise_means[band + k * kBands];
            mean = Wrap16(mean - excess);
        }
    }
}

void CountAdaptedFrame(VadDetectorState &s, int32_t msg_level) {
    // Only "more than 0" and "more than 2" are ever asked of the counter.
    if (s.frame_counter > 2) return;
    const int16_t next = Wrap16(s.frame_counter + 1);
    if (next < s.frame_counter) {
        DML_PRINT(msg_level, DML_ERR, "[%s] %s[%s]Fail! Counter overflow.\t\n", "GmmProbability");
        return;
    }
    s.frame_counter = next;
}

// Holds a speech decision for a while after the speech stops; the hold is
// longer after a long run of speech.
int16_t ApplyHangover(VadDetectorState &s, int16_t speech, int column) {
    if (!speech) {
        int16_t decision = 0;
        if (s.hangover > 0) {
            decision = Wrap16(2 + s.hangover);
            --s.hangover;
        }
        s.speech_run = 0;
        return decision;
    }
    ++s.speech_run;
    if (s.speech_run > kMaxSpeechFrames) {
        s.speech_run = kMaxSpeechFrames;
        s.hangover = s.overhang_max_long[column];
    } else {
        s.hangover = s.overhang_max_short[column];
    }
    return speech;
}

}  // namespace

int32_t VadCore_GaussianDensity(int16_t feature, int16_t mean, int16_t std, int16_t &delta) {
    return GaussianDensity(feature, mean, std, delta);
}

int16_t GmmProbability(VadDetectorState &s, const int16_t features[kBands], int16_t total_energy,
                       size_t frame_length, int32_t msg_level) {
    const int column = ThresholdColumn(frame_length);
    int16_t speech = 0;
    if (total_energy > kMinEnergy) {
        FrameScores scores{};
        speech = ScoreFrame(s, features, column, scores);
        for (int band = 0; band < kBands; ++band) AdaptBand(s, band, features[band], speech, scores);
        CountAdaptedFrame(s, msg_level);
    }
    return ApplyHangover(s, speech, column);
}

}  // namespace kivbf::vad
