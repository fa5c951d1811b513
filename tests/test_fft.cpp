#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "fft.h"
#include "support.h"

namespace {

constexpr int32_t kN = 256;
constexpr int32_t kFloats = kN + 2;
static_assert(FFT_GetBufferSize(kN) == 6028);

template <typename Call>
std::string Printed(Call call) {
    kivbf_test::CaptureStart();
    call();
    return kivbf_test::CaptureStop();
}

std::string NullArgumentLines(const void *config) {
    char address[96];
    std::snprintf(address, sizeof address, "address = %p is NULL in FFT_Rdft\n", config);
    return std::string("[Audio] input Null in Ne10_workingBufPtr->fft_Ne10_cfg\n") + address;
}

std::vector<float> RandomFrame(unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    std::vector<float> frame(kFloats, 0.0f);
    for (int32_t i = 0; i < kN; ++i) frame[i] = dist(rng);
    return frame;
}

// The FFT region is a heap block of exactly the reported size, so the
// sanitizer build catches a configuration that does not fit.
class FftTest : public testing::Test {
protected:
    void SetUp() override {
        record_.fft_Ne10_cfg = region_.get();
        record_.fft_size = kN;
        FFT_Init(&record_);
        ASSERT_EQ(record_.ne10_init_flag, 1);
        ASSERT_EQ(record_.fft_Ne10_cfg, region_.get());
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

    Transform(FFT_INVERSE, data);
    for (int32_t n = 0; n < kN; ++n) EXPECT_NEAR(data[n], frame[n], 1e-6) << n;
    EXPECT_EQ(data[kN], 0.0f);
    EXPECT_EQ(data[kN + 1], 0.0f);

    std::vector<float> constant(kN, 0.25f);
    constant.resize(kFloats, 0.0f);
    Transform(FFT_FORWARD, constant);
    EXPECT_EQ(constant[0], 64.0f);
    for (int32_t i = 1; i < kFloats; ++i) EXPECT_NEAR(constant[i], 0.0f, 1e-5) << i;
}

TEST_F(FftTest, InverseIgnoresImaginaryDcAndNyquistAndWorksOnAStagedCopy) {
    auto zeroed = RandomFrame(2);
    Transform(FFT_FORWARD, zeroed);
    auto disturbed = zeroed;
    disturbed[1] = 5.0f;
    disturbed[kN + 1] = -7.0f;
    const auto given = disturbed;
    Transform(FFT_INVERSE, zeroed);
    Transform(FFT_INVERSE, disturbed);
    EXPECT_EQ(disturbed, zeroed);
    EXPECT_EQ(std::memcmp(record_.fft_scratch, given.data(), sizeof(float) * kFloats), 0);
}

TEST_F(FftTest, OtherDirectionsAndLengthsDoNothing) {
    const auto frame = RandomFrame(3);
    const std::pair<int32_t, int32_t> direction_and_length[] = {{0, kN}, {2, kN}, {-2, kN}, {FFT_FORWARD, 128}};
    for (const auto &c : direction_and_length) {
        auto data = frame;
        EXPECT_EQ(Printed([&] { Transform(c.first, data, c.second); }), "");
        EXPECT_EQ(data, frame) << c.first << " " << c.second;
    }
}

TEST_F(FftTest, LifecycleMessagesAndSecondInit) {
    const std::vector<unsigned char> before(region_.get(), region_.get() + FFT_GetBufferSize(kN));
    EXPECT_EQ(Printed([&] { FFT_Init(&record_); }), "[FFT]Ne10 has init already\n");
    EXPECT_EQ(record_.fft_Ne10_cfg, region_.get());
    EXPECT_EQ(std::memcmp(before.data(), region_.get(), before.size()), 0);
    FFT_Free(&record_);
    EXPECT_EQ(record_.ne10_init_flag, 0);

    const struct {
        int32_t size;
        void *region;
        const char *printed;
    } inits[] = {
        {kN, nullptr, "[FFT] Please assigned the begining address about FFT workingbuffer in Init.\n"},
        {255, region_.get(), "[Audio] memory malloc failed\n"},
        {512, region_.get(), "[Audio] memory malloc failed\n"},
    };
    for (const auto &c : inits) {
        FftRecord record{};
        record.fft_size = c.size;
        record.fft_Ne10_cfg = c.region;
        EXPECT_EQ(Printed([&] { FFT_Init(&record); }), c.printed) << c.size;
        EXPECT_EQ(record.ne10_init_flag, 0);
    }

    EXPECT_EQ(Printed([&] {
                  FFT_Init(nullptr);
                  FFT_Rdft(nullptr, kN, FFT_FORWARD, nullptr, ip_, w_);
                  FFT_Free(nullptr);
              }),
              "[FFT]The handle is NULL\n[Audio] Ne10_workingBufPtr is Null in fft\nhandle is NULL in FFT_Free!\t\n");
}

TEST_F(FftTest, MissingArraysAreReportedAndTheTransformRunsWhereItCan) {
    auto expected = RandomFrame(4);
    auto data = expected;
    Transform(FFT_FORWARD, expected);
    EXPECT_EQ(Printed([&] { FFT_Rdft(&record_, kN, FFT_FORWARD, data.data(), nullptr, w_); }),
              NullArgumentLines(record_.fft_Ne10_cfg));
    EXPECT_EQ(data, expected);

    // Without a configuration the inverse still stages and clears, then stops.
    FftRecord bare{};
    bare.fft_size = kN;
    EXPECT_EQ(Printed([&] { FFT_Rdft(&bare, kN, FFT_INVERSE, data.data(), ip_, w_); }), NullArgumentLines(nullptr));
    EXPECT_EQ(data, std::vector<float>(kFloats, 0.0f));
    EXPECT_EQ(std::memcmp(bare.fft_scratch, expected.data(), sizeof(float) * kFloats), 0);
}

}  // namespace
