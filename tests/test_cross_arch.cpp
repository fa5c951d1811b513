// One fixed scene through KivBf_Run in every mode gives the same output on
// every platform the library is built for (x86 through SIMDe, aarch64 and
// armhf on NEON). The expected output is recorded on x86, from the top of the
// tree after scripts/build.sh native, with
//   KIVBF_WRITE_REFERENCE=tests/data/cross_arch_expected.bin build/native/tests/test_cross_arch
// and every build compares against that file. Record it again whenever a
// change to the library moves its output on purpose.
//
// Agreement means every sample equal: the library's arithmetic (own FFT, own
// elementary functions, ARM's estimates emulated on x86, no fused
// multiply-add) gives the same bits everywhere. ARMv7's NEON flushes
// subnormal numbers to zero, which could move a sample there; this scene
// produces none, and ARMv7 agrees exactly too.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support.h"

namespace {

static_assert(std::endian::native == std::endian::little, "the reference file is little-endian");

constexpr int kModes = 5;
constexpr int kBlocks = 200;
constexpr int kHop = 128;
constexpr int kSamples = kBlocks * kHop;
constexpr char kMagic[4] = {'K', 'B', 'X', 'R'};

// The scene is built with integer arithmetic only, so every platform feeds
// the library exactly the same samples.
class Lcg {
public:
    explicit Lcg(uint32_t seed) : state_(seed) {}
    // Uniform in [-32768, 32767].
    int32_t Next() {
        state_ = state_ * 1664525u + 1013904223u;
        return static_cast<int32_t>(state_ >> 16) - 32768;
    }

private:
    uint32_t state_;
};

bool TalkerActive(int block) {
    return (block >= 40 && block < 90) || (block >= 120 && block < 170);
}

// 16 kHz, 5 cm linear array: a voiced talker at broadside (same signal on
// both microphones) in two bursts, a low-passed noise interferer from the
// end-fire side that reaches microphone 0 two samples before microphone 1,
// and independent sensor noise. The level gate (default -20 dBFS) sees the
// talker blocks above it and the others below it, each by at least 5 %.
std::vector<int16_t> MakeScene() {
    constexpr int kPitchPeriod = 100;                  // 160 Hz
    constexpr int32_t kA1 = 31174, kA2 = 15416;        // Q14 resonator at 500 Hz, r = 0.97
    constexpr int kInterfererLag = 2;
    Lcg excitation(1), interferer_source(2), sensor0(3), sensor1(4);

    std::vector<int32_t> interferer(kSamples + kInterfererLag);
    int32_t lowpass = 0;
    for (int32_t &sample : interferer) {
        lowpass += (interferer_source.Next() - lowpass) >> 2;
        sample = lowpass / 8;
    }

    std::vector<int16_t> scene(2 * kSamples);
    int32_t y1 = 0, y2 = 0;
    for (int n = 0; n < kSamples; ++n) {
        const int32_t pulse = (n % kPitchPeriod == 0) ? 4000 : 0;
        const int32_t y = ((kA1 * y1 - kA2 * y2) >> 14) + pulse + (excitation.Next() >> 5);
        y2 = y1;
        y1 = y;
        const int32_t talker = TalkerActive(n / kHop) ? y / 2 : 0;
        const int32_t mic0 = talker + interferer[n + kInterfererLag] + (sensor0.Next() >> 8);
        const int32_t mic1 = talker + interferer[n] + (sensor1.Next() >> 8);
        scene[2 * n] = static_cast<int16_t>(std::clamp(mic0, -32768, 32767));
        scene[2 * n + 1] = static_cast<int16_t>(std::clamp(mic1, -32768, 32767));
    }
    return scene;
}

uint32_t Fnv1a(const std::vector<int16_t> &samples) {
    uint32_t hash = 2166136261u;
    for (int16_t s : samples) {
        const uint16_t bits = static_cast<uint16_t>(s);
        hash = (hash ^ (bits & 0xFFu)) * 16777619u;
        hash = (hash ^ (bits >> 8)) * 16777619u;
    }
    return hash;
}

// Default settings, direction 0 (broadside); mode 4 is refused by SetMode but
// stays selected, which is the only way to reach it.
std::vector<int16_t> RunMode(const std::vector<int16_t> &scene, uint32_t mode) {
    kivbf_test::WorkingBuffer buffer;
    AudioBfHandle handle = kivbf_test::MakeConfiguredHandle(buffer);
    const uint32_t set_mode = KivBf_SetMode(handle, mode, 0.0f);
    EXPECT_EQ(set_mode, mode == KIVBF_MODE_POSTFILTER_NO_BAND ? KIVBF_ERR_MODE : KIVBF_OK);

    std::vector<int16_t> output(kSamples);
    const float direction = 0.0f;
    for (int b = 0; b < kBlocks; ++b) {
        const uint32_t status = KivBf_Run(handle, &scene[2 * kHop * b], &output[kHop * b], &direction);
        if (status != KIVBF_OK) {
            ADD_FAILURE() << "KivBf_Run returned " << status << " at block " << b;
            break;
        }
    }
    KivBf_Free(handle);
    return output;
}

struct Reference {
    uint32_t scene_hash = 0;
    std::vector<int16_t> samples;  // kModes runs of kSamples
};

bool ReadReference(const std::string &path, Reference &reference) {
    FILE *file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) return false;
    char magic[4];
    uint32_t modes = 0, blocks = 0;
    reference.samples.resize(static_cast<size_t>(kModes) * kSamples);
    const bool ok = std::fread(magic, 1, 4, file) == 4 && std::memcmp(magic, kMagic, 4) == 0 &&
                    std::fread(&modes, 4, 1, file) == 1 && modes == kModes &&
                    std::fread(&blocks, 4, 1, file) == 1 && blocks == kBlocks &&
                    std::fread(&reference.scene_hash, 4, 1, file) == 1 &&
                    std::fread(reference.samples.data(), 2, reference.samples.size(), file) ==
                        reference.samples.size();
    std::fclose(file);
    return ok;
}

bool WriteReference(const std::string &path, uint32_t scene_hash,
                    const std::vector<int16_t> &samples) {
    FILE *file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) return false;
    const uint32_t modes = kModes, blocks = kBlocks;
    const bool ok = std::fwrite(kMagic, 1, 4, file) == 4 && std::fwrite(&modes, 4, 1, file) == 1 &&
                    std::fwrite(&blocks, 4, 1, file) == 1 &&
                    std::fwrite(&scene_hash, 4, 1, file) == 1 &&
                    std::fwrite(samples.data(), 2, samples.size(), file) == samples.size();
    return std::fclose(file) == 0 && ok;
}

std::string ReferencePath() {
    std::string source = __FILE__;
    return source.substr(0, source.find_last_of('/') + 1) + "data/cross_arch_expected.bin";
}

double Energy(const int16_t *samples, int count) {
    double sum = 0.0;
    for (int i = 0; i < count; ++i) sum += static_cast<double>(samples[i]) * samples[i];
    return sum;
}

TEST(CrossArch, EveryModeAgreesWithTheRecordedOutput) {
    const std::vector<int16_t> scene = MakeScene();
    std::vector<int16_t> outputs;
    for (uint32_t mode = 0; mode < kModes; ++mode) {
        const std::vector<int16_t> output = RunMode(scene, mode);
        outputs.insert(outputs.end(), output.begin(), output.end());
    }

    if (const char *target = std::getenv("KIVBF_WRITE_REFERENCE")) {
        ASSERT_TRUE(WriteReference(target, Fnv1a(scene), outputs)) << "cannot write " << target;
        std::printf("reference written to %s\n", target);
        return;
    }

    Reference reference;
    ASSERT_TRUE(ReadReference(ReferencePath(), reference))
        << ReferencePath() << " is missing or not a reference for " << kModes << " modes x "
        << kBlocks << " blocks; record it as the comment at the top of this file says";
    ASSERT_EQ(reference.scene_hash, Fnv1a(scene))
        << "the scene changed since the reference was recorded";

    // Microphone 0's talker-plus-noise energy, a yardstick for "carries the scene".
    double scene_energy = 0.0;
    for (int n = 0; n < kSamples; ++n)
        scene_energy += static_cast<double>(scene[2 * n]) * scene[2 * n];

    for (uint32_t mode = 0; mode < kModes; ++mode) {
        SCOPED_TRACE("mode " + std::to_string(mode));
        const int16_t *expected = &reference.samples[static_cast<size_t>(mode) * kSamples];
        const int16_t *actual = &outputs[static_cast<size_t>(mode) * kSamples];
        // Mode 4 runs on the post-filter gain it starts with, which all but
        // mutes it; the others must pass the scene.
        if (mode != KIVBF_MODE_POSTFILTER_NO_BAND) {
            EXPECT_GT(Energy(expected, kSamples), 0.01 * scene_energy)
                << "the recorded output is nearly silent";
        }

        int differing = 0, largest = 0, first = -1;
        for (int i = 0; i < kSamples; ++i) {
            const int difference = std::abs(static_cast<int>(actual[i]) - expected[i]);
            if (difference != 0 && differing++ == 0) first = i;
            largest = std::max(largest, difference);
        }
        EXPECT_EQ(differing, 0) << "up to " << largest << " LSB off, the first in block "
                                << first / kHop;
    }
}

}  // namespace
