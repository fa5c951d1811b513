// Beam sum and the adaptive sidelobe canceller of the fixed beam (mode 2).
//
// The canceller removes the target from microphone 1 with the blocking filter
// (the fixed beam's steering phase), predicts the noise left in the beam from
// that reference with one complex tap per bin, subtracts the prediction and
// adapts the tap by leaky normalised LMS with a magnitude bound.
//
// Every bin is independent, so each stage is one body over the element type
// (vector_lanes.h). Each value goes through the float operations, in the
// order, that the element-wise kernels applied: a sum starts from an explicit
// 0.0f, a scaling by -1.0f stays a product.
#include "Beamformer_core.h"
#include "vector_lanes.h"

using namespace kivbf;
using namespace kivbf::lanes;

namespace {

constexpr float kStepSize = 0.01f;
constexpr float kLeakage = 0.997f;
constexpr float kPowerSmoothing = 0.01f;
constexpr float kPowerFloor = 1e-6f;
constexpr float kSquaredTapBound = 4.0f;  // |H| <= 2

// Y = 0 + W0 X0 + W1 X1
template <typename T>
void BeamSumBins(BfCoreState &s, int32_t k) {
    Complex<T> beam = {T(0.0f), T(0.0f)};
    for (int32_t m = 0; m < kMics; ++m)
        beam = beam + Product(LoadComplex<T>(s.beam_weights[m], k), LoadComplex<T>(s.mic_spectrum[m], k));
    StoreComplex(s.beam_output, k, beam);
}

// One canceller step:
//   U = X1 - B X0                    (blocking)
//   P = 0 + conj(U) H                (prediction)
//   S = max(0.01 |U|^2 + 0.99 S, 1e-6), U~ = U / S
//   E = Y - P                        (the error replaces the beam)
//   H = 0.997 H + 0.01 U~ conj(E), then |H| bounded by 2, phase kept:
//   g = min(sqrt(4 / (1 (0 + |H|^2))), 1); a zero tap gives 4 / 0 = inf, so g = 1.
template <typename T>
void CancelBins(BfCoreState &s, int32_t k) {
    const T zero(0.0f);
    const T minus_one(-1.0f);
    const Complex<T> blocked =
        Scale(Product(LoadComplex<T>(s.steering_phase, k), LoadComplex<T>(s.mic_spectrum[0], k)), minus_one);
    const Complex<T> reference = LoadComplex<T>(s.mic_spectrum[1], k) + blocked;
    Complex<T> tap = LoadComplex<T>(s.anc_filter, k);
    const Complex<T> prediction = Complex<T>{zero, zero} + ConjugateProduct(reference, tap);

    const T smoothed = Power(reference) * T(kPowerSmoothing) +
                       Load<T>(s.reference_power, k) * T(1.0f - kPowerSmoothing);
    const T floored = AtLeast(smoothed, kPowerFloor);
    Store(s.reference_power, k, floored);
    const Complex<T> normalised = DivideByReal(reference, floored);

    const Complex<T> error = LoadComplex<T>(s.beam_output, k) + Scale(prediction, minus_one);
    StoreComplex(s.beam_output, k, error);

    const Complex<T> step = Scale(Product(normalised, Conjugate(error)), T(kStepSize));
    tap = Scale(tap, T(kLeakage)) + step;

    const T squared = (zero + Power(tap)) * T(1.0f);
    const T ratio = Quotient(T(kSquaredTapBound), squared);
    const T gain = Min(SquareRoot(ratio), T(1.0f));
    StoreComplex(s.anc_filter, k, Scale(tap, gain));
}

}  // namespace

void Bf_BeamSum(BfCoreState &s) {
    ForEachBin(kBins, [&](auto element, int32_t k) { BeamSumBins<decltype(element)>(s, k); });
}

void Bf_Canceller(BfCoreState &s) {
    ForEachBin(kBins, [&](auto element, int32_t k) { CancelBins<decltype(element)>(s, k); });
}
