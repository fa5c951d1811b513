#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstdio>
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
static_assert(FFT_GetBufferSize(kN) == 6028);

std::vector<float> RandomFrame(unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    std::vector<float> frame(kFloats, 0.0f);
    for (int32_t i = 0; i < kN; ++i) frame[i] = dist(rng);
    return frame;
}

// The FFT region is a heap block of exactly the reported size, so the
// sanitizer build catches configurations that do not fit in it.
class FftTest : public testing::Test {
protected:
    void SetUp() override {
        record_.fft_Ne10_cfg = region_.get();
        record_.fft_size = kN;
        FFT_Init(&record_);
        ASSERT_EQ(record_.ne10_init_flag, 1);
    }
    void Transform(int32_t direction, std::vector<float> &data, int32_t n = kN) {
        FFT_Rdft(&record_, n, direction, data.data(), ip_, w_);
    }

    std::unique_ptr<unsigned char[]> region_{new unsigned char[FFT_GetBufferSize(kN)]};
    FftRecord record_{};
    int32_t ip_[2] = {};
    float w_[2] = {};
};

TEST_F(FftTest, ForwardIsTheUnscaledDftAndInverseUndoesIt) {
    auto data = RandomFrame(1);
    const auto frame = data;
    Transform(FFT_FORWARD, data);
    for (int32_t k = 0; k <= kN / 2; ++k) {
        std::complex<double> bin = 0.0;
        for (int32_t n = 0; n < kN; ++n)
            bin += static_cast<double>(frame[n]) * std::polar(1.0, -2.0 * M_PI * k * n / kN);
        EXPECT_NEAR(data[2 * k], bin.real(), 2e-5) << "bin " << k;
        EXPECT_NEAR(data[2 * k + 1], bin.imag(), 2e-5) << "bin " << k;
    }
    EXPECT_EQ(data[1], 0.0f);
    EXPECT_EQ(data[kN + 1], 0.0f);

    // The inverse ignores Im[0] and Im[N/2] and reads a staged copy of its input.
    data[1] = 5.0f;
    data[kN + 1] = -7.0f;
    const auto given = data;
    Transform(FFT_INVERSE, data);
    for (int32_t n = 0; n < kN; ++n) EXPECT_NEAR(data[n], frame[n], 1e-6) << n;
    EXPECT_EQ(data[kN], 0.0f);
    EXPECT_EQ(data[kN + 1], 0.0f);
    EXPECT_EQ(std::memcmp(record_.fft_scratch, given.data(), sizeof(float) * kFloats), 0);
}

TEST_F(FftTest, SecondInitRefusedInitsAndNullArgumentsAreReported) {
    const std::vector<unsigned char> before(region_.get(), region_.get() + FFT_GetBufferSize(kN));
    EXPECT_EQ(kivbf_test::Captured([&] { FFT_Init(&record_); }), "[FFT]Ne10 has init already\n");
    EXPECT_EQ(std::memcmp(before.data(), region_.get(), before.size()), 0);
    FFT_Free(&record_);
    EXPECT_EQ(record_.ne10_init_flag, 0);

    FftRecord no_region{}, odd_size{}, large_size{}, bare{};
    no_region.fft_size = bare.fft_size = kN;
    odd_size = large_size = no_region;
    odd_size.fft_Ne10_cfg = large_size.fft_Ne10_cfg = region_.get();
    odd_size.fft_size = 255, large_size.fft_size = 512;
    char address[64];
    std::snprintf(address, sizeof address, "address = %p is NULL in FFT_Rdft\n", static_cast<void *>(nullptr));
    auto data = RandomFrame(4);
    EXPECT_EQ(kivbf_test::Captured([&] {
                  for (FftRecord *record : {&no_region, &odd_size, &large_size, static_cast<FftRecord *>(nullptr)})
                      FFT_Init(record);
                  FFT_Rdft(nullptr, kN, FFT_FORWARD, data.data(), ip_, w_);
                  FFT_Free(nullptr);
                  FFT_Rdft(&bare, kN, FFT_INVERSE, data.data(), ip_, w_);
              }),
              "[FFT] Please assigned the begining address about FFT workingbuffer in Init.\n"
              "[Audio] memory malloc failed\n[Audio] memory malloc failed\n[FFT]The handle is NULL\n"
              "[Audio] Ne10_workingBufPtr is Null in fft\nhandle is NULL in FFT_Free!\t\n"
              "[Audio] input Null in Ne10_workingBufPtr->fft_Ne10_cfg\n" + std::string(address));
    EXPECT_EQ(no_region.ne10_init_flag + odd_size.ne10_init_flag + large_size.ne10_init_flag, 0);
    // Without a configuration the inverse still stages and clears, then stops.
    EXPECT_EQ(data, std::vector<float>(kFloats, 0.0f));
}

}  // namespace
