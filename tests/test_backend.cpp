// Which arithmetic the build really got: native NEON kernels on ARM, the same
// intrinsics through SIMDe on x86, and no fused multiply-adds anywhere.
#include <gtest/gtest.h>

#include <cstring>

#include "vector_kernels.h"

namespace {

#if defined(__aarch64__) || defined(__arm__)
constexpr bool kArmTarget = true;
#else
constexpr bool kArmTarget = false;
#endif

// An ARM build without the vector unit (armhf without -mfpu=neon) would fall
// back to SIMDe silently; refuse to build that at all.
#if (defined(__aarch64__) || defined(__arm__)) && !defined(__ARM_NEON)
#error "ARM builds must enable NEON (see cmake/toolchain-*.cmake)"
#endif
#if defined(__arm__) && !defined(__ARM_PCS_VFP)
#error "32-bit ARM builds must use the hard-float ABI"
#endif

TEST(Backend, KernelsUseTheTargetsOwnVectorUnit) {
    EXPECT_STREQ(vec_kernels_backend(), kArmTarget ? "neon" : "simde");
}

// x = 1 + 2^-23, y = 2^-12: x*x = 1 + 2^-22 + 2^-46 rounds to 1 + 2^-22, and
// adding y*y = 2^-24 lands exactly half way between two floats, which rounds
// to even (1 + 2^-22). A fused x*x + y*y keeps the 2^-46 and rounds up to
// 1 + 3 * 2^-23. Both element orders are filled so that fusing either product
// shows, in the vector lanes and in the scalar tail.
TEST(Backend, KernelsRoundEveryProductBeforeAdding) {
    const float x = 1.0f + 0x1p-23f;
    const float y = 0x1p-12f;
    constexpr int kBinsUsed = 11;  // two four-lane groups and a tail of three
    float spectrum[2 * kBinsUsed];
    for (int k = 0; k < kBinsUsed; ++k) {
        spectrum[2 * k] = (k % 2 == 0) ? x : y;
        spectrum[2 * k + 1] = (k % 2 == 0) ? y : x;
    }
    float power[kBinsUsed];
    cplx_power(spectrum, power, 2 * kBinsUsed);

    const float unfused = 1.0f + 0x1p-22f;
    for (int k = 0; k < kBinsUsed; ++k) EXPECT_EQ(power[k], unfused) << "bin " << k;

    // The same holds for code compiled with the project's flags outside the
    // kernels; volatile keeps the compiler from folding the constants.
    volatile float vx = x;
    volatile float vy = y;
    const float a = vx;
    const float b = vy;
    EXPECT_EQ(a * a + b * b, unfused);
    EXPECT_EQ(b * b + a * a, unfused);
}

}  // namespace
