// Golden outputs: fixed scenes through KivBf_Run in every mode, the enhanced
// mode and the settings that change the signal path, each output reduced to a line of
// figures (FNV-1a 64 of the output bytes, RMS, peak, first non-zero samples) and
// compared exactly with tests/data/golden.txt. Any change to the arithmetic
// anywhere in the library shows up here; when the change is intended,
// rewrite the file from the top of the tree with
//   KIVBF_GOLDEN_WRITE=1 build/native/tests/test_golden
// and review the diff. KIVBF_GOLDEN_DUMP=dir also writes each case's output as
// raw s16 (dir/<case>.s16), for tests/compare_outputs.py to measure how far
// a change of arithmetic moved it, in LSB and dB. The library's arithmetic is
// the same on every CPU, so the very same figures hold on x86-64, AArch64 and
// ARMv7: the cross-built suites run this test under QEMU.
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

#include "kivbf_ext.h"
#include "scene.h"
#include "support.h"

namespace {

using kivbf_scene::kHop;
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

const kivbf_scene::Recipe kSpeechCycles = {
    .seeds = {11, 12, 13, 14}, .a1 = 30870, .a2 = 15745,  // near 600 Hz, r = 0.98
    .pulse = 3000, .excitation_shift = 6, .interferer_shift = 3, .interferer_divisor = 4,
    .sensor_shift = 9,
    .pitch_period = [](int n) { return 90 + 20 * ((n / (60 * kHop)) % 3); },  // per burst
    .talker = [](int32_t y, int n) { return y * TalkerGainQ6(n) / 48; }};

// The talker in two long bursts, the interferer louder and from the end-fire
// side; the level gate sees the talker blocks above it and the others below
// it, each by at least 5 %.
const kivbf_scene::Recipe kTwoBursts = {
    .seeds = {1, 2, 3, 4}, .a1 = 31174, .a2 = 15416,  // 500 Hz, r = 0.97
    .pulse = 4000, .excitation_shift = 5, .interferer_shift = 2, .interferer_divisor = 8,
    .sensor_shift = 8,
    .pitch_period = [](int) { return 100; },  // 160 Hz
    .talker = [](int32_t y, int n) {
        const int block = n / kHop;
        return (block >= 40 && block < 90) || (block >= 120 && block < 170) ? y / 2 : 0;
    }};

// A broadband talker in the same cycles, well above a quieter
// interferer, without reverberation: the enhanced mode finds it dry.
const kivbf_scene::Recipe kDryTalker = {
    .seeds = {21, 22, 23, 24}, .a1 = 18165, .a2 = 5898,  // near 1 kHz, r = 0.6
    .pulse = 6000, .excitation_shift = 4, .interferer_shift = 2, .interferer_divisor = 6,
    .sensor_shift = 9,
    .pitch_period = [](int) { return 120; },  // 133 Hz
    .talker = [](int32_t y, int n) { return y * TalkerGainQ6(n) / 64; }};

struct Scene {
    const char *name;
    const kivbf_scene::Recipe &recipe;
    int blocks;
};
const Scene kScenes[] = {{"scene", kSpeechCycles, 300}, {"bursts", kTwoBursts, 200}, {"dry", kDryTalker, 400}};

struct GoldenCase {
    const char *name;
    int scene;        // index into kScenes
    uint32_t mode;
    float angle;      // SetMode and the per-block direction
    uint32_t vad_enable;
    uint32_t noise_estimation;
    uint32_t calibration;
    int32_t intensity;  // -1: leave the default
    int32_t pf_flow;    // -1: leave the default
    bool dynamic_loading;
    bool enhanced;      // KivBfExt_SetEnhancedMode(1) after the other setters
};

constexpr GoldenCase kCases[] = {
    {"mode0", 0, 0, 0.0f, 0, 0, 0, -1, -1, false, false},
    {"mode1", 0, 1, 0.0f, 0, 0, 0, -1, -1, false, false},
    {"mode1_angle_-30", 0, 1, -30.0f, 0, 0, 0, -1, -1, false, false},
    {"mode1_dynamic_loading", 0, 1, 0.0f, 0, 0, 0, -1, -1, true, false},
    {"mode2", 0, 2, 0.0f, 0, 0, 0, -1, -1, false, false},
    {"mode3_pf_flow_1", 0, 3, 0.0f, 0, 0, 0, -1, -1, false, false},
    {"mode3_pf_flow_0", 0, 3, 0.0f, 0, 0, 0, -1, 0, false, false},
    {"mode3_pf_flow_2", 0, 3, 0.0f, 0, 0, 0, -1, 2, false, false},
    {"mode3_intensity_4", 0, 3, 0.0f, 0, 0, 0, 4, -1, false, false},
    {"mode3_vad", 0, 3, 0.0f, 1, 0, 0, -1, -1, false, false},
    {"mode4_refused", 0, 4, 0.0f, 0, 0, 0, -1, -1, false, false},
    {"mode0_calibration", 0, 0, 0.0f, 0, 0, 1, -1, -1, false, false},
    {"mode0_vad", 0, 0, 0.0f, 1, 0, 0, -1, -1, false, false},
    {"mode0_noise_estimation_1", 0, 0, 0.0f, 0, 1, 0, -1, -1, false, false},
    {"mode0_intensity_3", 0, 0, 0.0f, 0, 0, 0, 3, -1, false, false},
    {"bursts_mode0", 1, 0, 0.0f, 0, 0, 0, -1, -1, false, false},
    {"bursts_mode1", 1, 1, 0.0f, 0, 0, 0, -1, -1, false, false},
    {"bursts_mode2", 1, 2, 0.0f, 0, 0, 0, -1, -1, false, false},
    {"bursts_mode3", 1, 3, 0.0f, 0, 0, 0, -1, -1, false, false},
    {"bursts_mode4", 1, 4, 0.0f, 0, 0, 0, -1, -1, false, false},
    {"enhanced", 0, 0, 0.0f, 0, 0, 0, -1, -1, false, true},
    {"bursts_enhanced", 1, 0, 0.0f, 0, 0, 0, -1, -1, false, true},
    {"dry_enhanced", 2, 0, 0.0f, 0, 0, 0, -1, -1, false, true},
};

std::vector<int16_t> RunCase(const GoldenCase &c, const std::vector<int16_t> &scene) {
    kivbf_test::WorkingBuffer buffer;
    AudioBfHandle handle = kivbf_test::MakeConfiguredHandle(buffer);
    AudioBfConfig config = kivbf_test::CurrentConfig(handle);
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
    if (c.enhanced) {
        EXPECT_EQ(KivBfExt_SetEnhancedMode(handle, 1), KIVBF_OK);
    }

    const std::vector<int16_t> output = kivbf_test::RunStream(handle, scene, c.angle);
    KivBf_Free(handle);
    return output;
}

// "<hash> <rms> <peak> <first non-zero index> <samples from there on>".
// The RMS is over `frames` (a scene's pairs count as one frame).
std::string Figures(const std::vector<int16_t> &output, size_t frames) {
    int64_t energy = 0;
    int32_t peak = 0;
    uint64_t hash = kivbf_test::kFnv1aStart;
    for (int16_t s : output) {
        hash = kivbf_test::Fnv1a64(hash, static_cast<uint16_t>(s), 2);
        energy += static_cast<int32_t>(s) * s;
        peak = std::max(peak, std::abs(static_cast<int32_t>(s)));
    }
    const auto first = std::find_if(output.begin(), output.end(), [](int16_t s) { return s != 0; });
    const long index = first == output.end() ? -1 : first - output.begin();
    char text[160];
    int length = std::snprintf(text, sizeof text, "%016llx %.3f %d %ld",
                               static_cast<unsigned long long>(hash),
                               std::sqrt(static_cast<double>(energy) / frames), peak, index);
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
    std::vector<std::vector<int16_t>> scenes;
    std::map<std::string, std::string> actual;
    for (const Scene &scene : kScenes) {
        scenes.push_back(kivbf_scene::MakeScene(scene.recipe, scene.blocks * kHop));
        actual[scene.name] = Figures(scenes.back(), scenes.back().size() / 2);
    }
    const char *dump_dir = std::getenv("KIVBF_GOLDEN_DUMP");
    for (const GoldenCase &c : kCases) {
        const std::vector<int16_t> output = RunCase(c, scenes[c.scene]);
        actual[c.name] = Figures(output, output.size());
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
        for (const Scene &scene : kScenes) file << scene.name << " " << actual[scene.name] << "\n";
        for (const GoldenCase &c : kCases) file << c.name << " " << actual[c.name] << "\n";
        ASSERT_TRUE(file.good()) << "cannot write " << GoldenPath();
        std::printf("golden figures written to %s\n", GoldenPath().c_str());
        return;
    }

    const std::map<std::string, std::string> golden = ReadGolden(GoldenPath());
    ASSERT_FALSE(golden.empty()) << GoldenPath() << " is missing; write it as the comment at the "
                                 << "top of this file says";
    for (const Scene &scene : kScenes)
        ASSERT_EQ(golden.count(scene.name) ? golden.at(scene.name) : "", actual[scene.name])
            << scene.name << " itself changed; the recorded figures no longer apply";
    for (const GoldenCase &c : kCases) {
        const auto recorded = golden.find(c.name);
        EXPECT_TRUE(recorded != golden.end() && recorded->second == actual[c.name])
            << c.name << " now gives:\n  " << c.name << " " << actual[c.name] << "\nrecorded:\n  "
            << c.name << " " << (recorded == golden.end() ? "(none)" : recorded->second);
    }
}

}  // namespace
