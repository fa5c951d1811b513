#include <gtest/gtest.h>

#include <kissfft/kiss_fftr.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "fft.h"
#include "support.h"

namespace {

constexpr int32_t kN = 256;
constexpr int32_t kFloats = kN + 2;

static_assert(FFT_GetBufferSize(256) == 6028);

// A record whose FFT region is a heap block of exactly the reported size, so
// that the sanitizer build catches any write past it.
class FftTest : public testing::Test {
protected:
    void SetUp() override {
        region_.reset(new unsigned char[FFT_GetBufferSize(kN)]);
        record_ = std::make_unique<FftRecord>();
        record_->fft_Ne10_cfg = region_.get();
        record_->fft_size = kN;
        FFT_Init(record_.get());
        ASSERT_EQ(record_->ne10_init_flag, 1);
    }

    void Transform(int32_t direction, float *data) {
        FFT_Rdft(record_.get(), kN, direction, data, ip_, w_);
    }

    std::vector<float> RandomFrame(unsigned seed) {
        std::mt19937 rng(seed);
        std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
        std::vector<float> frame(kFloats, 0.0f);
        for (int32_t i = 0; i < kN; ++i) frame[i] = dist(rng);
        return frame;
    }

    std::unique_ptr<unsigned char[]> region_;
    std::unique_ptr<FftRecord> record_;
    int32_t ip_[2] = {0, 0};
    float w_[2] = {0.0f, 0.0f};
};

TEST_F(FftTest, BothConfigurationsFitTheReportedRegion) {
    size_t forward = 0, inverse = 0;
    kiss_fftr_alloc(kN, 0, nullptr, &forward);
    kiss_fftr_alloc(kN, 1, nullptr, &inverse);
    EXPECT_LE(((forward + 15) & ~size_t{15}) + inverse, FFT_GetBufferSize(kN));
    EXPECT_EQ(record_->fft_Ne10_cfg, region_.get());
}

TEST_F(FftTest, ForwardMatchesTheUnscaledDftWithRealDcAndNyquist) {
    auto data = RandomFrame(1);
    const auto frame = data;
    Transform(FFT_FORWARD, data.data());
    for (int32_t k = 0; k <= kN / 2; ++k) {
        double re = 0.0, im = 0.0;
        for (int32_t n = 0; n < kN; ++n) {
            const double angle = -2.0 * M_PI * k * n / kN;
            re += frame[n] * std::cos(angle);
            im += frame[n] * std::sin(angle);
        }
        EXPECT_NEAR(data[2 * k], re, 2e-5) << "bin " << k;
        EXPECT_NEAR(data[2 * k + 1], im, 2e-5) << "bin " << k;
    }
    EXPECT_EQ(data[1], 0.0f);
    EXPECT_EQ(data[kN + 1], 0.0f);

    std::vector<float> constant(kFloats, 0.0f);
    std::fill(constant.begin(), constant.begin() + kN, 0.25f);
    Transform(FFT_FORWARD, constant.data());
    EXPECT_FLOAT_EQ(constant[0], 256.0f * 0.25f);
    for (int32_t i = 1; i < kFloats; ++i) EXPECT_NEAR(constant[i], 0.0f, 1e-5) << i;
    EXPECT_EQ(constant[1], 0.0f);
    EXPECT_EQ(constant[kN + 1], 0.0f);
}

TEST_F(FftTest, InverseScalesByOneOverNAndRoundTrips) {
    auto data = RandomFrame(2);
    const auto frame = data;
    Transform(FFT_FORWARD, data.data());
    Transform(FFT_INVERSE, data.data());
    for (int32_t n = 0; n < kN; ++n) EXPECT_NEAR(data[n], frame[n], 1e-6) << n;
    EXPECT_EQ(data[kN], 0.0f);
    EXPECT_EQ(data[kN + 1], 0.0f);

    // Bin 3 alone, with its mirror image implied: x[n] = 2 cos(2 pi 3 n / N) / N.
    std::vector<float> tone(kFloats, 0.0f);
    tone[6] = 1.0f;
    Transform(FFT_INVERSE, tone.data());
    for (int32_t n = 0; n < kN; ++n)
        EXPECT_NEAR(tone[n], 2.0 * std::cos(2.0 * M_PI * 3 * n / kN) / kN, 1e-7) << n;
}

TEST_F(FftTest, InverseIgnoresImaginaryDcAndNyquistAndStagesTheSpectrum) {
    auto spectrum = RandomFrame(3);
    Transform(FFT_FORWARD, spectrum.data());
    auto zeroed = spectrum;
    auto disturbed = spectrum;
    disturbed[1] = 5.0f;
    disturbed[kN + 1] = -7.0f;
    const auto given = disturbed;
    Transform(FFT_INVERSE, zeroed.data());
    Transform(FFT_INVERSE, disturbed.data());
    EXPECT_EQ(disturbed, zeroed);
    EXPECT_EQ(std::memcmp(record_->fft_scratch, given.data(), sizeof(float) * kFloats), 0);
}

TEST_F(FftTest, OtherDirectionsAndLengthsLeaveTheDataAlone) {
    const auto frame = RandomFrame(4);
    for (int32_t direction : {0, 2, -2, 100}) {
        auto data = frame;
        kivbf_test::CaptureStart();
        Transform(direction, data.data());
        EXPECT_EQ(kivbf_test::CaptureStop(), "");
        EXPECT_EQ(data, frame) << direction;
    }
    auto data = frame;
    FFT_Rdft(record_.get(), 128, FFT_FORWARD, data.data(), ip_, w_);
    EXPECT_EQ(data, frame);
}

TEST_F(FftTest, SecondInitKeepsTheConfigurationAndSaysSo) {
    const std::vector<unsigned char> before(region_.get(), region_.get() + FFT_GetBufferSize(kN));
    kivbf_test::CaptureStart();
    FFT_Init(record_.get());
    EXPECT_EQ(kivbf_test::CaptureStop(), "[FFT]Ne10 has init already\n");
    EXPECT_EQ(record_->fft_Ne10_cfg, region_.get());
    EXPECT_EQ(std::memcmp(before.data(), region_.get(), before.size()), 0);

    FFT_Free(record_.get());
    EXPECT_EQ(record_->ne10_init_flag, 0);
    kivbf_test::CaptureStart();
    FFT_Free(nullptr);
    EXPECT_EQ(kivbf_test::CaptureStop(), "handle is NULL in FFT_Free!\t\n");
}

TEST_F(FftTest, MissingArgumentsAreReportedAndWhatCanRunRuns) {
    kivbf_test::CaptureStart();
    FFT_Rdft(nullptr, kN, FFT_FORWARD, nullptr, ip_, w_);
    EXPECT_EQ(kivbf_test::CaptureStop(), "[Audio] Ne10_workingBufPtr is Null in fft\n");

    // A missing work array is reported but the transform still runs.
    auto expected = RandomFrame(5);
    auto data = expected;
    Transform(FFT_FORWARD, expected.data());
    kivbf_test::CaptureStart();
    FFT_Rdft(record_.get(), kN, FFT_FORWARD, data.data(), nullptr, w_);
    const std::string printed = kivbf_test::CaptureStop();
    char address_line[128];
    std::snprintf(address_line, sizeof address_line, "address = %p is NULL in FFT_Rdft\n",
                  record_->fft_Ne10_cfg);
    EXPECT_EQ(printed,
              std::string("[Audio] input Null in Ne10_workingBufPtr->fft_Ne10_cfg\n") + address_line);
    EXPECT_EQ(data, expected);

    // Without a configuration the inverse still stages and clears, then stops.
    FftRecord bare{};
    bare.fft_size = kN;
    kivbf_test::CaptureStart();
    FFT_Rdft(&bare, kN, FFT_INVERSE, data.data(), ip_, w_);
    std::snprintf(address_line, sizeof address_line, "address = %p is NULL in FFT_Rdft\n",
                  static_cast<void *>(nullptr));
    EXPECT_EQ(kivbf_test::CaptureStop(),
              std::string("[Audio] input Null in Ne10_workingBufPtr->fft_Ne10_cfg\n") + address_line);
    EXPECT_EQ(data, std::vector<float>(kFloats, 0.0f));
    EXPECT_EQ(std::memcmp(bare.fft_scratch, expected.data(), sizeof(float) * kFloats), 0);
}

TEST(FftInit, NullRecordMissingRegionAndUnbuildableLength) {
    kivbf_test::CaptureStart();
    FFT_Init(nullptr);
    EXPECT_EQ(kivbf_test::CaptureStop(), "[FFT]The handle is NULL\n");

    FftRecord record{};
    record.fft_size = kN;
    kivbf_test::CaptureStart();
    FFT_Init(&record);
    EXPECT_EQ(kivbf_test::CaptureStop(),
              "[FFT] Please assigned the begining address about FFT workingbuffer in Init.\n");
    EXPECT_EQ(record.ne10_init_flag, 0);

    std::vector<unsigned char> region(FFT_GetBufferSize(kN));
    for (int32_t size : {255, 0, 512}) {
        FftRecord odd{};
        odd.fft_size = size;
        odd.fft_Ne10_cfg = region.data();
        kivbf_test::CaptureStart();
        FFT_Init(&odd);
        EXPECT_EQ(kivbf_test::CaptureStop(), "[Audio] memory malloc failed\n") << size;
        EXPECT_EQ(odd.ne10_init_flag, 0);
    }
}

}  // namespace
