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

#include "scene.h"
#include "support.h"

namespace {

static_assert(std::endian::native == std::endian::little, "the reference file is little-endian");

constexpr int kModes = 5;
constexpr int kBlocks = 200;
using kivbf_scene::kHop;
constexpr int kSamples = kBlocks * kHop;

// 16 kHz, 5 cm linear array: the talker in two bursts, the interferer from
// the end-fire side. The level gate (default -20 dBFS) sees the talker blocks
// above it and the others below it, each by at least 5 %.
const kivbf_scene::Recipe kScene = {
    .seeds = {1, 2, 3, 4}, .a1 = 31174, .a2 = 15416,  // 500 Hz, r = 0.97
    .pulse = 4000, .excitation_shift = 5, .interferer_shift = 2, .interferer_divisor = 8,
    .sensor_shift = 8,
    .pitch_period = [](int) { return 100; },  // 160 Hz
    .talker = [](int32_t y, int n) {
        const int block = n / kHop;
        return (block >= 40 && block < 90) || (block >= 120 && block < 170) ? y / 2 : 0;
    }};

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

// The file: "KBXR", modes, blocks and the scene's hash as little-endian
// uint32, then every mode's output in turn.
struct Header {
    char magic[4] = {'K', 'B', 'X', 'R'};
    uint32_t modes = kModes, blocks = kBlocks, scene_hash = 0;
};

bool ReadReference(const std::string &path, uint32_t &scene_hash, std::vector<int16_t> &samples) {
    FILE *file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) return false;
    Header header, expected;
    samples.resize(static_cast<size_t>(kModes) * kSamples);
    const bool ok = std::fread(&header, sizeof header, 1, file) == 1 &&
                    std::memcmp(header.magic, expected.magic, 4) == 0 && header.modes == kModes &&
                    header.blocks == kBlocks &&
                    std::fread(samples.data(), 2, samples.size(), file) == samples.size();
    std::fclose(file);
    scene_hash = header.scene_hash;
    return ok;
}

bool WriteReference(const std::string &path, uint32_t scene_hash, const std::vector<int16_t> &samples) {
    FILE *file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) return false;
    Header header;
    header.scene_hash = scene_hash;
    const bool ok = std::fwrite(&header, sizeof header, 1, file) == 1 &&
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
    const std::vector<int16_t> scene = kivbf_scene::MakeScene(kScene, kSamples);
    std::vector<int16_t> outputs;
    for (uint32_t mode = 0; mode < kModes; ++mode) {
        const std::vector<int16_t> output = RunMode(scene, mode);
        outputs.insert(outputs.end(), output.begin(), output.end());
    }

    if (const char *target = std::getenv("KIVBF_WRITE_REFERENCE")) {
        ASSERT_TRUE(WriteReference(target, kivbf_scene::Fnv1a<uint32_t>(scene), outputs)) << "cannot write " << target;
        std::printf("reference written to %s\n", target);
        return;
    }

    uint32_t scene_hash = 0;
    std::vector<int16_t> recorded;
    ASSERT_TRUE(ReadReference(ReferencePath(), scene_hash, recorded))
        << ReferencePath() << " is missing or not a reference for " << kModes << " modes x "
        << kBlocks << " blocks; record it as the comment at the top of this file says";
    ASSERT_EQ(scene_hash, kivbf_scene::Fnv1a<uint32_t>(scene))
        << "the scene changed since the reference was recorded";

    // Microphone 0's talker-plus-noise energy, a yardstick for "carries the scene".
    double scene_energy = 0.0;
    for (int n = 0; n < kSamples; ++n)
        scene_energy += static_cast<double>(scene[2 * n]) * scene[2 * n];

    for (uint32_t mode = 0; mode < kModes; ++mode) {
        SCOPED_TRACE("mode " + std::to_string(mode));
        const int16_t *expected = &recorded[static_cast<size_t>(mode) * kSamples];
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
