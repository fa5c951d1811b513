#include <gtest/gtest.h>
#include <kissfft/kiss_fftr.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <complex>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fft.h"
#include "support.h"

namespace {

constexpr int32_t kN = 256;
constexpr int32_t kBins = kN / 2 + 1;
constexpr int32_t kFloats = kN + 2;
static_assert(FFT_GetBufferSize(kN) == 6028);

using Frame = std::vector<float>;

// Integer-built inputs, the same floats on every target: lcg values are
// multiples of 2^-23 in [-1, 1), full scale is 16-bit integers.
Frame Generated(uint32_t seed, float scale) {
    Frame frame(kFloats, 0.0f);
    uint32_t state = seed;
    for (int32_t n = 0; n < kN; ++n) {
        state = state * 1664525u + 1013904223u;
        frame[n] = std::ldexp(static_cast<float>(static_cast<int32_t>(state) >> 8), -23) * scale;
    }
    return frame;
}

Frame Pattern(float (*sample)(int32_t)) {
    Frame frame(kFloats, 0.0f);
    for (int32_t n = 0; n < kN; ++n) frame[n] = sample(n);
    return frame;
}

struct Input {
    const char *name;
    Frame frame;
};

std::vector<Input> Inputs() {
    return {
        {"random", Generated(1, 1.0f)},
        {"random_small", Generated(2, 1e-3f)},
        {"full_scale", Pattern([](int32_t n) { return n % 3 == 0 ? 32767.0f : -32768.0f; })},
        {"full_scale_random", Generated(3, 32768.0f)},
        {"impulse", Pattern([](int32_t n) { return n == 0 ? 1.0f : 0.0f; })},
        {"impulse_37", Pattern([](int32_t n) { return n == 37 ? -1.0f : 0.0f; })},
        {"dc", Pattern([](int32_t) { return 1.0f; })},
        {"nyquist", Pattern([](int32_t n) { return n % 2 == 0 ? 1.0f : -1.0f; })},
    };
}

// Double-precision references: the unscaled DFT of a frame, and the 1/N
// inverse of a half spectrum with Im[0] and Im[N/2] taken as zero.
std::vector<double> ReferenceForward(const Frame &x) {
    std::vector<double> spectrum(kFloats);
    for (int32_t k = 0; k < kBins; ++k) {
        std::complex<double> bin = 0.0;
        for (int32_t n = 0; n < kN; ++n)
            bin += static_cast<double>(x[n]) * std::polar(1.0, -2.0 * M_PI * ((k * n) % kN) / kN);
        spectrum[2 * k] = bin.real();
        spectrum[2 * k + 1] = bin.imag();
    }
    return spectrum;
}

std::vector<double> ReferenceInverse(const Frame &spectrum) {
    std::vector<double> x(kFloats, 0.0);
    for (int32_t n = 0; n < kN; ++n) {
        double sum = spectrum[0] + (n % 2 == 0 ? 1.0 : -1.0) * spectrum[kN];
        for (int32_t k = 1; k < kN / 2; ++k) {
            const std::complex<double> bin(spectrum[2 * k], spectrum[2 * k + 1]);
            sum += 2.0 * (bin * std::polar(1.0, 2.0 * M_PI * ((k * n) % kN) / kN)).real();
        }
        x[n] = sum / kN;
    }
    return x;
}

// KissFFT as the second opinion, with the wrapper's layout and scaling.
class KissOracle {
public:
    KissOracle() : forward_(kiss_fftr_alloc(kN, 0, nullptr, nullptr)), inverse_(kiss_fftr_alloc(kN, 1, nullptr, nullptr)) {}
    ~KissOracle() {
        kiss_fftr_free(forward_);
        kiss_fftr_free(inverse_);
    }
    Frame Forward(const Frame &x) const {
        Frame spectrum(kFloats);
        kiss_fftr(forward_, x.data(), reinterpret_cast<kiss_fft_cpx *>(spectrum.data()));
        return spectrum;
    }
    Frame Inverse(const Frame &spectrum) const {
        Frame x(kFloats, 0.0f);
        kiss_fftri(inverse_, reinterpret_cast<const kiss_fft_cpx *>(spectrum.data()), x.data());
        for (int32_t n = 0; n < kN; ++n) x[n] /= kN;
        return x;
    }

private:
    kiss_fftr_cfg forward_;
    kiss_fftr_cfg inverse_;
};

// Largest difference over the first `count` values, relative to the RMS of
// the reference per bin (kBins units) or per sample (kN units).
template <typename Reference>
double RelativeError(const Frame &actual, const Reference &reference, int32_t count, int32_t units) {
    double worst = 0.0, energy = 0.0;
    for (int32_t i = 0; i < count; ++i) {
        worst = std::max(worst, std::fabs(actual[i] - static_cast<double>(reference[i])));
        energy += static_cast<double>(reference[i]) * reference[i];
    }
    return worst / std::sqrt(energy / units);
}

uint64_t Fnv1a64(uint64_t hash, const Frame &values) {
    for (float value : values) hash = kivbf_test::Fnv1a64(hash, std::bit_cast<uint32_t>(value), 4);
    return hash;
}

// The FFT region is a heap block of exactly the reported size, so the
// sanitizer build catches work arrays that do not fit in it.
class FftTest : public testing::Test {
protected:
    void SetUp() override {
        record_.fft_Ne10_cfg = region_.get();
        record_.fft_size = kN;
        ASSERT_TRUE(FFT_Init(&record_));
        ASSERT_EQ(record_.ne10_init_flag, 1);
    }
    Frame Transformed(int32_t direction, Frame data, int32_t n = kN) {
        FFT_Rdft(&record_, n, direction, data.data(), ip_, w_);
        return data;
    }

    std::unique_ptr<unsigned char[]> region_{new unsigned char[FFT_GetBufferSize(kN)]};
    FftRecord record_{};
    int32_t ip_[2] = {};
    float w_[2] = {};
};

// Bounds in float epsilons relative to the reference RMS. Worst cases over
// the inputs: forward 6.4 (KissFFT 12.9, on full_scale), inverse 5.3
// (KissFFT 6.8, on impulse_37). KissFFT is held to the same bounds, so they
// state the accuracy of a float FFT rather than a tolerance for this one.
constexpr double kEpsilon = 0x1p-23;
constexpr double kForwardBound = 16 * kEpsilon;
constexpr double kInverseBound = 10 * kEpsilon;

TEST_F(FftTest, BothDirectionsAgreeWithDoubleDftAndKissFft) {
    const KissOracle kiss;
    for (const Input &input : Inputs()) {
        SCOPED_TRACE(input.name);
        const Frame spectrum = Transformed(FFT_FORWARD, input.frame);
        const std::vector<double> exact = ReferenceForward(input.frame);
        EXPECT_LE(RelativeError(spectrum, exact, kFloats, kBins), kForwardBound);
        EXPECT_LE(RelativeError(kiss.Forward(input.frame), exact, kFloats, kBins), kForwardBound);
        EXPECT_EQ(spectrum[1], 0.0f);
        EXPECT_EQ(spectrum[kN + 1], 0.0f);

        // The inverse of the float spectrum, whose Im[0] and Im[N/2] do not count.
        Frame given = spectrum;
        given[1] = 5.0f;
        given[kN + 1] = -7.0f;
        const Frame signal = Transformed(FFT_INVERSE, given);
        const std::vector<double> inverse = ReferenceInverse(spectrum);
        EXPECT_LE(RelativeError(signal, inverse, kN, kN), kInverseBound);
        EXPECT_LE(RelativeError(kiss.Inverse(spectrum), inverse, kN, kN), kInverseBound);
        EXPECT_EQ(signal[kN], 0.0f);
        EXPECT_EQ(signal[kN + 1], 0.0f);
        EXPECT_EQ(signal, Transformed(FFT_INVERSE, spectrum)) << "Im[0] and Im[N/2] are ignored";
    }
}

// The transform's bits are part of the library's output, the same on every
// target (x86 through SIMDe, AArch64 and ARMv7 NEON): a hash of both
// directions over every input, recorded on x86-64. Rerecord it only when
// the arithmetic changes on purpose.
TEST_F(FftTest, OutputBitsMatchTheRecordedHash) {
    uint64_t hash = kivbf_test::kFnv1aStart;
    for (const Input &input : Inputs()) {
        const Frame spectrum = Transformed(FFT_FORWARD, input.frame);
        hash = Fnv1a64(Fnv1a64(hash, spectrum), Transformed(FFT_INVERSE, spectrum));
    }
    EXPECT_EQ(hash, 0xdad3473c658931cdull) << std::hex << "now 0x" << hash;
}

TEST_F(FftTest, SecondInitRefusedOtherLengthsFailAndNullArgumentsAreReported) {
    const std::vector<unsigned char> before(region_.get(), region_.get() + FFT_GetBufferSize(kN));
    EXPECT_EQ(kivbf_test::Captured([&] { EXPECT_TRUE(FFT_Init(&record_)); }), "[FFT]Ne10 has init already\n");
    EXPECT_EQ(std::memcmp(before.data(), region_.get(), before.size()), 0);
    // Only 256 points are built; other lengths leave the array alone.
    const Frame frame = Generated(4, 1.0f);
    EXPECT_EQ(Transformed(FFT_FORWARD, frame, 128), frame);
    FFT_Free(&record_);
    EXPECT_EQ(record_.ne10_init_flag, 0);

    FftRecord no_region{}, bare{};
    no_region.fft_size = bare.fft_size = kN;
    FftRecord other_sizes[3] = {no_region, no_region, no_region};
    const int32_t sizes[3] = {128, 255, 512};
    for (int i = 0; i < 3; ++i) other_sizes[i].fft_Ne10_cfg = region_.get(), other_sizes[i].fft_size = sizes[i];
    char address[64];
    std::snprintf(address, sizeof address, "address = %p is NULL in FFT_Rdft\n", static_cast<void *>(nullptr));
    Frame data = frame;
    int succeeded = 0;
    EXPECT_EQ(kivbf_test::Captured([&] {
                  for (FftRecord *record : {&no_region, &other_sizes[0], &other_sizes[1], &other_sizes[2],
                                            static_cast<FftRecord *>(nullptr)})
                      succeeded += FFT_Init(record) ? 1 : 0;
                  FFT_Rdft(nullptr, kN, FFT_FORWARD, data.data(), ip_, w_);
                  FFT_Free(nullptr);
                  FFT_Rdft(&bare, kN, FFT_INVERSE, data.data(), ip_, w_);
              }),
              "[FFT] Please assigned the begining address about FFT workingbuffer in Init.\n"
              "[Audio] memory malloc failed\n[Audio] memory malloc failed\n[Audio] memory malloc failed\n"
              "[FFT]The handle is NULL\n[Audio] Ne10_workingBufPtr is Null in fft\nhandle is NULL in FFT_Free!\t\n"
              "[Audio] input Null in Ne10_workingBufPtr->fft_Ne10_cfg\n" + std::string(address));
    EXPECT_EQ(succeeded, 0);
    for (const FftRecord &record : other_sizes) EXPECT_EQ(record.ne10_init_flag, 0);
    // Without a region the inverse still takes the spectrum and clears the array, then stops.
    EXPECT_EQ(data, Frame(kFloats, 0.0f));
}

}  // namespace
