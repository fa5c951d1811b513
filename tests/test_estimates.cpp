// ARM's reciprocal and reciprocal-square-root estimates, emulated from the
// float's bits. The estimates depend on the sign, the exponent and the top
// eight or nine fraction bits only, so a sweep over those (with the low bits
// clear and set) plus zeros, subnormals, infinities and NaNs covers every
// case. On ARM the sweep runs the instructions themselves; on x86 it checks
// a hash recorded from them under qemu-aarch64.
#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <vector>

#include "arm_estimates.h"
#include "support.h"

namespace {

using namespace kivbf::estimates;

// FNV-1a 64 of the estimates of EstimateInputs(), taken from FRECPE and
// FRSQRTE on qemu-aarch64.
constexpr uint64_t kAarch64RecipHash = 0x3855224bf30daee0ull;
constexpr uint64_t kAarch64RecipSqrtHash = 0xd1f8cc1e04d8f5c8ull;

std::vector<uint32_t> EstimateInputs() {
    std::vector<uint32_t> inputs;
    for (uint32_t sign = 0; sign < 2; ++sign)
        for (uint32_t exponent = 0; exponent < 256; ++exponent)
            for (uint32_t top = 0; top < 512; ++top)
                for (uint32_t low : {0u, 0x3FFFu, 0x1234u}) {
                    const uint32_t fraction = top << 14 | low;
                    inputs.push_back(sign << 31 | exponent << 23 | fraction);
                }
    // Subnormals across every leading-zero count, signalling NaNs.
    for (uint32_t shift = 0; shift < 23; ++shift) {
        inputs.push_back(1u << shift);
        inputs.push_back(0x80000000u | (1u << shift) | 1u);
    }
    inputs.push_back(0x7F800001u);
    inputs.push_back(0xFF800123u);
    while (inputs.size() % 4 != 0) inputs.push_back(0);
    return inputs;
}

template <typename Estimate>
std::vector<uint32_t> LaneResults(const std::vector<uint32_t> &inputs, Estimate estimate) {
    std::vector<uint32_t> results(inputs.size());
    for (size_t i = 0; i < inputs.size(); i += 4) {
        const float32x4_t x = vreinterpretq_f32_u32(vld1q_u32(&inputs[i]));
        vst1q_u32(&results[i], vreinterpretq_u32_f32(estimate(x)));
    }
    return results;
}

uint64_t Hash(const std::vector<uint32_t> &values) {
    uint64_t hash = kivbf_test::kFnv1aStart;
    for (uint32_t v : values) hash = kivbf_test::Fnv1a64(hash, v, 4);
    return hash;
}

// ARMv7 NEON runs with flush-to-zero and default NaNs: subnormal inputs count
// as zero, results that would be subnormal are zero, NaNs come out as the
// default NaN. Those inputs are left out of the comparison there.
#if defined(__ARM_NEON) && !defined(__aarch64__)
constexpr bool kFlushesToZero = true;
#else
constexpr bool kFlushesToZero = false;
#endif
#if defined(__ARM_NEON)
constexpr bool kHasInstruction = true;
#else
constexpr bool kHasInstruction = false;
#endif

bool Armv7Differs(uint32_t x) {
    const uint32_t exponent = (x >> 23) & 0xFF;
    return exponent == 0 || exponent == 0xFF || exponent >= 253;
}

struct EstimateCase {
    const char *name;
    uint32_t (*reference)(uint32_t);
    float32x4_t (*emulated)(float32x4_t);
    float32x4_t (*native)(float32x4_t);
    uint64_t aarch64_hash;
};

const EstimateCase kEstimates[] = {
    {"reciprocal", RecipEstimateBits, EmulatedRecipEstimate, RecipEstimate, kAarch64RecipHash},
    {"reciprocal sqrt", RecipSqrtEstimateBits, EmulatedRecipSqrtEstimate, RecipSqrtEstimate,
     kAarch64RecipSqrtHash},
};

TEST(Estimates, EmulationMatchesTheArchitecture) {
    const std::vector<uint32_t> inputs = EstimateInputs();
    for (const EstimateCase &c : kEstimates) {
        SCOPED_TRACE(c.name);
        const std::vector<uint32_t> lanes = LaneResults(inputs, c.emulated);
        const std::vector<uint32_t> native = LaneResults(inputs, c.native);
        int mismatches = 0;
        for (size_t i = 0; i < inputs.size(); ++i) {
            const uint32_t expected = c.reference(inputs[i]);
            if (lanes[i] != expected && ++mismatches <= 5)
                ADD_FAILURE() << std::hex << "lanes " << inputs[i] << ": " << lanes[i] << " != " << expected;
            // The instruction itself, where this build has it.
            const bool comparable = kHasInstruction && !(kFlushesToZero && Armv7Differs(inputs[i]));
            if (comparable && native[i] != expected && ++mismatches <= 10)
                ADD_FAILURE() << std::hex << "instruction " << inputs[i] << ": " << native[i]
                              << " != " << expected;
        }
        if (!kFlushesToZero) {
            EXPECT_EQ(Hash(native), c.aarch64_hash) << std::hex << "0x" << Hash(native);
        }
    }
}

}  // namespace
