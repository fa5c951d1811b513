// Coherence and direction weighting (modes 3 and 4).
//
// Five-block averages of the two microphones' power spectra and of their
// cross-spectrum give a coherence measure (is one source dominating?) and the
// measured relative transfer function H = X1 / X0, whose phase is compared
// with the target direction's steering to give each bin a weight in (0, 1).
//
// The cross-spectrum is conj(X0) X1. For a plane wave from the target
// direction X_m = S exp(+j f tau_m), so H = exp(+j f (tau1 - tau0)), while
// target_steering = exp(-j f (tau1 - tau0)): their plain product is 1.
//
// Each stage is one pass over the bins, one body over the element type
// (vector_lanes.h).
#include <cmath>

#include "math_functions.h"
#include "Beamformer_core.h"
#include "vector_lanes.h"

using namespace kivbf;
using namespace kivbf::lanes;

namespace {

constexpr float kHistoryShare = 0.2f;  // 1 / kHistoryBlocks
constexpr float kGuard = 1e-6f;
constexpr double kCoherenceCells = 129.0;
constexpr double kCoherentLevel = 0.3;
constexpr uint16_t kCounterMax = 10;
constexpr uint16_t kCounterToFlag = 3;  // the flag needs more than this
constexpr float kScoreNewShare = 0.99f;

// The history drops its oldest block and takes `newest` as its last one;
// returns 0.2 x (sum of the blocks, oldest first, onto zero). `history`
// points at this element's floats in block 0, `stride` floats apart per block.
template <typename T>
T PushAndAverage(float *history, int32_t stride, T newest) {
    T sum(0.0f);
    for (int32_t b = 1; b < kHistoryBlocks; ++b) {
        const T block = Load<T>(history, b * stride);
        Store(history, (b - 1) * stride, block);
        sum = sum + block;
    }
    Store(history, (kHistoryBlocks - 1) * stride, newest);
    return (sum + newest) * T(kHistoryShare);
}

// Microphone 1 is taken before calibration: coherence and transfer function
// describe the field as the two microphones picked it up. Both spectra are
// measured at 256 times their scale.
template <typename T>
void SpectraAverageBins(BfCoreState &s, int32_t k) {
    const T scale(kSpectrumScale);
    const Complex<T> a = Scale(LoadComplex<T>(s.mic_spectrum[0], k), scale);
    const Complex<T> b = Scale(LoadComplex<T>(s.raw_mic1_spectrum, k), scale);
    Store(s.avg_power[0], k, PushAndAverage(&s.power_history[0][0][k], kBins, Power(a)));
    Store(s.avg_power[1], k, PushAndAverage(&s.power_history[1][0][k], kBins, Power(b)));
    // conj(X0) X1, interleaved as the history keeps it.
    const Interleaved<T> cross(ConjugateProduct(a, b));
    for (int32_t half = 0; half < 2; ++half) {
        const int32_t i = 2 * k + Interleaved<T>::kStride * half;
        Store(s.avg_cross, i, PushAndAverage(&s.cross_history[0][i], kSpectrumFloats, cross.part[half]));
    }
}

// |avg_cross|^2 / (P0 P1 + 1e-6), added to the sum bin by bin in order.
template <typename T>
void AddCoherence(const BfCoreState &s, int32_t k, float &sum) {
    const T denominator = Load<T>(s.avg_power[0], k) * Load<T>(s.avg_power[1], k) + T(kGuard);
    const T coherence = Quotient(Power(LoadComplex<T>(s.avg_cross, k)), denominator);
    float values[sizeof(T) / sizeof(float)];
    Store(values, 0, coherence);
    for (const float c_k : values) sum += c_k;
}

// H = avg_cross / (P0 + 1e-6), brought to unit magnitude by dividing by
// |H| + 1e-6; Re(H x steering) is the cosine of the phase error against the
// target, smoothed into the score.
template <typename T>
void DirectionScoreBins(BfCoreState &s, int32_t k) {
    Complex<T> h = DivideByReal(LoadComplex<T>(s.avg_cross, k), Load<T>(s.avg_power[0], k) + T(kGuard));
    h = DivideByReal(h, SquareRoot(Power(h)) + T(kGuard));
    const Complex<T> steering = LoadComplex<T>(s.target_steering, k);
    const T cosine = h.re * steering.re - h.im * steering.im;
    Store(s.direction_score, k,
          cosine * T(kScoreNewShare) + Load<T>(s.direction_score, k) * T(1.0f - kScoreNewShare));
}

// The exponent of the logistic weight, and the weight once exponentiated:
// weight = 1 / (1 + mode3_scale x exp(direction_slope x (score - 1))).
template <typename T>
void DirectionExponent(const BfCoreState &s, int32_t k, float *work) {
    Store(work, k, (Load<T>(s.direction_score, k) + T(-1.0f)) * T(s.direction_slope));
}

template <typename T>
void DirectionWeightBins(BfCoreState &s, int32_t k, const float *work) {
    const T unit = Load<T>(kUnitBins.data(), k);
    Store(s.direction_weight, k, Quotient(unit, Load<T>(work, k) * T(s.mode3_scale) + unit));
}

}  // namespace

void Bf_SpectraAverage(BfCoreState &s) {
    ForEachBin(kBins, [&](auto element, int32_t k) { SpectraAverageBins<decltype(element)>(s, k); });
}

void Bf_CoherenceDetect(BfCoreState &s) {
    float sum = 0.0f;
    ForEachBin(kBins, [&](auto element, int32_t k) { AddCoherence<decltype(element)>(s, k, sum); });
    s.mean_coherence = static_cast<float>(sum / kCoherenceCells);

    if (s.mean_coherence <= kCoherentLevel) {
        if (s.coherence_counter > 0) {
            --s.coherence_counter;
        }
    } else if (s.coherence_counter < kCounterMax) {
        ++s.coherence_counter;
    }
    s.coherent_flag =
        (s.coherence_counter > kCounterToFlag && s.mean_coherence >= kCoherentLevel) ? 1 : 0;
}

void Bf_DirectionScore(BfCoreState &s) {
    ForEachBin(kBins, [&](auto element, int32_t k) { DirectionScoreBins<decltype(element)>(s, k); });
}

void Bf_DirectionWeight(BfCoreState &s) {
    float work[kBins];
    ForEachBin(kBins, [&](auto element, int32_t k) { DirectionExponent<decltype(element)>(s, k, work); });
    math::ExpFInPlace(work, kBins);
    ForEachBin(kBins, [&](auto element, int32_t k) { DirectionWeightBins<decltype(element)>(s, k, work); });
}
