// Golden outputs: one fixed scene through KivBf_Run in every mode and in the
// settings that change the signal path, each output reduced to a line of
// figures (FNV-1a 64 of the output bytes, RMS, peak, first non-zero samples) and
// compared exactly with tests/data/golden.txt. Any change to the arithmetic
// anywhere in the library shows up here; when the change is intended,
// rewrite the file from the top of the tree with
//   KIVBF_GOLDEN_WRITE=1 build/native/tests/test_golden
// and review the diff. KIVBF_GOLDEN_DUMP=dir also writes each case's output as
// raw s16 (dir/<case>.s16), for tests/compare_outputs.py to measure how far
// a change of arithmetic moved it. The library's arithmetic is the same on
// every CPU, so the very same figures hold on x86-64, AArch64 and ARMv7.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "scene.h"
#include "support.h"

namespace {

using kivbf_scene::kHop;
constexpr int kBlocks = 300;
constexpr int kSamples = kBlocks * kHop;
constexpr int kShownSamples = 4;

// A talker speaking 36 blocks out of every 60 with 64-sample ramps, above the
// default -20 dBFS gate, the interferer alone below it. Nothing clips, in or
// out, so wrapping and saturating output stages give the same figures.
int32_t TalkerGainQ6(int n) {  // 0..64
    constexpr int kCycle = 60 * kHop, kPause = 24 * kHop, kRamp = 64;
    const int into = n % kCycle - kPause;
    if (into < 0) return 0;
    return std::min({kRamp, into, kCycle - kPause - into});
}

const kivbf_scene::Recipe kScene = {
    .seeds = {11, 12, 13, 14}, .a1 = 30870, .a2 = 15745,  // near 600 Hz, r = 0.98
    .pulse = 3000, .excitation_shift = 6, .interferer_shift = 3, .interferer_divisor = 4,
    .sensor_shift = 9,
    .pitch_period = [](int n) { return 90 + 20 * ((n / (60 * kHop)) % 3); },  // per burst
    .talker = [](int32_t y, int n) { return y * TalkerGainQ6(n) / 48; }};

struct GoldenCase {
    const char *name;
    uint32_t mode;
    float angle;      // SetMode and the per-block direction
    uint32_t vad_enable;
    uint32_t noise_estimation;
    uint32_t calibration;
    int32_t intensity;  // -1: leave the default
    int32_t pf_flow;    // -1: leave the default
    bool dynamic_loading;
};

constexpr GoldenCase kCases[] = {
    {"mode0", 0, 0.0f, 0, 0, 0, -1, -1, false},
    {"mode1", 1, 0.0f, 0, 0, 0, -1, -1, false},
    {"mode1_angle_-30", 1, -30.0f, 0, 0, 0, -1, -1, false},
    {"mode1_dynamic_loading", 1, 0.0f, 0, 0, 0, -1, -1, true},
    {"mode2", 2, 0.0f, 0, 0, 0, -1, -1, false},
    {"mode3_pf_flow_1", 3, 0.0f, 0, 0, 0, -1, -1, false},
    {"mode3_pf_flow_0", 3, 0.0f, 0, 0, 0, -1, 0, false},
    {"mode3_pf_flow_2", 3, 0.0f, 0, 0, 0, -1, 2, false},
    {"mode3_intensity_4", 3, 0.0f, 0, 0, 0, 4, -1, false},
    {"mode3_vad", 3, 0.0f, 1, 0, 0, -1, -1, false},
    {"mode4_refused", 4, 0.0f, 0, 0, 0, -1, -1, false},
    {"mode0_calibration", 0, 0.0f, 0, 0, 1, -1, -1, false},
    {"mode0_vad", 0, 0.0f, 1, 0, 0, -1, -1, false},
    {"mode0_noise_estimation_1", 0, 0.0f, 0, 1, 0, -1, -1, false},
    {"mode0_intensity_3", 0, 0.0f, 0, 0, 0, 3, -1, false},
};

std::vector<int16_t> RunCase(const GoldenCase &c, const std::vector<int16_t> &scene) {
    kivbf_test::WorkingBuffer buffer;
    AudioBfHandle handle = kivbf_test::MakeConfiguredHandle(buffer);
    AudioBfConfig config{};
    EXPECT_EQ(KivBf_GetConfig(handle, &config), KIVBF_OK);
    config.vad_enable = c.vad_enable;
    config.Noise_estimation = c.noise_estimation;
    EXPECT_EQ(KivBf_SetConfig(handle, &config), KIVBF_OK);
    if (c.dynamic_loading) {
        const int32_t band[6] = {8, 16, 32, 48, 64, 96};
        const int32_t factor[7] = {1, 3, 10, 30, 100, 300, 1000};
        EXPECT_EQ(KivBf_DynamicLoading(handle, band, factor, 1), KIVBF_OK);
    }
    EXPECT_EQ(KivBf_SetCalibration(handle, c.calibration), KIVBF_OK);
    // Mode 4 is refused but stays stored, the only way to run it.
    EXPECT_EQ(KivBf_SetMode(handle, c.mode, c.angle), c.mode == 4 ? KIVBF_ERR_MODE : KIVBF_OK);
    if (c.intensity >= 0) {
        EXPECT_EQ(KivBf_SetAdaptiveIntensity(handle, c.intensity), KIVBF_OK);
    }
    if (c.pf_flow >= 0) {
        EXPECT_EQ(KivBf_SetPfFlow(handle, static_cast<uint32_t>(c.pf_flow)), KIVBF_OK);
    }

    std::vector<int16_t> output(kSamples);
    for (int b = 0; b < kBlocks; ++b)
        EXPECT_EQ(KivBf_Run(handle, &scene[2 * kHop * b], &output[kHop * b], &c.angle), KIVBF_OK);
    KivBf_Free(handle);
    return output;
}

// "<hash> <rms> <peak> <first non-zero index> <samples from there on>".
std::string Figures(const std::vector<int16_t> &output) {
    int64_t energy = 0;
    int32_t peak = 0;
    for (int16_t s : output) {
        energy += static_cast<int32_t>(s) * s;
        peak = std::max(peak, std::abs(static_cast<int32_t>(s)));
    }
    const auto first = std::find_if(output.begin(), output.end(), [](int16_t s) { return s != 0; });
    const long index = first == output.end() ? -1 : first - output.begin();
    char text[160];
    int length = std::snprintf(text, sizeof text, "%016llx %.3f %d %ld",
                               static_cast<unsigned long long>(kivbf_scene::Fnv1a<uint64_t>(output)),
                               std::sqrt(static_cast<double>(energy) / kSamples), peak, index);
    for (auto it = first; it != output.end() && it - first < kShownSamples; ++it)
        length += std::snprintf(text + length, sizeof text - static_cast<size_t>(length), " %d", *it);
    return text;
}

std::string GoldenPath() {
    const std::string source = __FILE__;
    return source.substr(0, source.find_last_of('/') + 1) + "data/golden.txt";
}

std::map<std::string, std::string> ReadGolden(const std::string &path) {
    std::map<std::string, std::string> lines;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#') continue;
        const size_t blank = line.find(' ');
        if (blank != std::string::npos) lines[line.substr(0, blank)] = line.substr(blank + 1);
    }
    return lines;
}

TEST(Golden, EveryCaseReproducesItsRecordedOutput) {
    setenv("DML_PATH", "/nonexistent/audioAlgo.json", 1);
    const std::vector<int16_t> scene = kivbf_scene::MakeScene(kScene, kSamples);
    std::map<std::string, std::string> actual;
    actual["scene"] = Figures(scene);
    const char *dump_dir = std::getenv("KIVBF_GOLDEN_DUMP");
    for (const GoldenCase &c : kCases) {
        const std::vector<int16_t> output = RunCase(c, scene);
        actual[c.name] = Figures(output);
        if (dump_dir != nullptr) {
            std::ofstream dump(std::string(dump_dir) + "/" + c.name + ".s16", std::ios::binary);
            dump.write(reinterpret_cast<const char *>(output.data()),
                       static_cast<std::streamsize>(output.size() * sizeof(int16_t)));
        }
    }

    if (std::getenv("KIVBF_GOLDEN_WRITE") != nullptr) {
        std::ofstream file(GoldenPath());
        file << "# Written by KIVBF_GOLDEN_WRITE=1 build/native/tests/test_golden (see\n"
                "# tests/test_golden.cpp). Per case: FNV-1a 64 of the output, output RMS,\n"
                "# peak, index of the first non-zero sample and the samples from there on.\n";
        file << "scene " << actual["scene"] << "\n";
        for (const GoldenCase &c : kCases) file << c.name << " " << actual[c.name] << "\n";
        ASSERT_TRUE(file.good()) << "cannot write " << GoldenPath();
        std::printf("golden figures written to %s\n", GoldenPath().c_str());
        return;
    }

    const std::map<std::string, std::string> golden = ReadGolden(GoldenPath());
    ASSERT_FALSE(golden.empty()) << GoldenPath() << " is missing; write it as the comment at the "
                                 << "top of this file says";
    ASSERT_EQ(golden.count("scene") ? golden.at("scene") : "", actual["scene"])
        << "the scene itself changed; the recorded figures no longer apply";
    for (const GoldenCase &c : kCases) {
        const auto recorded = golden.find(c.name);
        EXPECT_TRUE(recorded != golden.end() && recorded->second == actual[c.name])
            << c.name << " now gives:\n  " << c.name << " " << actual[c.name] << "\nrecorded:\n  "
            << c.name << " " << (recorded == golden.end() ? "(none)" : recorded->second);
    }
}

}  // namespace
