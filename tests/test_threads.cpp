// Distinct handles share nothing: four handles in different modes and scenes
// give the same bytes whether they run one after another or in parallel
// threads (this test also runs under ThreadSanitizer).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "support.h"

using namespace kivbf_test;

namespace {

constexpr int kBlocks = 400;

struct Scene {
    uint32_t mode;
    float direction;
    uint32_t calibration;
    uint32_t seed;
};

constexpr Scene kScenes[] = {{0, 0.0f, 0, 1u}, {2, 30.0f, 0, 2u}, {3, -20.0f, 1, 3u},
                             {1, 60.0f, 1, 4u}};

// Noise with a tone that reaches microphone 1 `seed` samples late, and a
// silent stretch in the middle.
std::vector<int16_t> SceneInput(const Scene &scene) {
    std::vector<int16_t> pcm(2u * 128u * kBlocks);
    uint32_t state = scene.seed;
    for (size_t n = 0; n < pcm.size() / 2; ++n) {
        state = state * 1664525u + 1013904223u;
        const double noise = static_cast<double>(state >> 20) - 2048.0;
        const bool silent = n / 128 >= 150 && n / 128 < 170;
        const double t = static_cast<double>(n);
        pcm[2 * n] = silent ? 0 : static_cast<int16_t>(noise + 9000.0 * std::sin(0.11 * t));
        pcm[2 * n + 1] = silent ? 0 : static_cast<int16_t>(-noise +
                                                           9000.0 * std::sin(0.11 * (t - scene.seed)));
    }
    return pcm;
}

std::vector<int16_t> RunScene(const Scene &scene, const std::vector<int16_t> &input) {
    WorkingBuffer buffer;
    AudioBfHandle h = MakeConfiguredHandle(buffer);
    EXPECT_EQ(KivBf_SetCalibration(h, scene.calibration), KIVBF_OK);
    EXPECT_EQ(KivBf_SetMode(h, scene.mode, scene.direction), KIVBF_OK);
    const std::vector<int16_t> output = RunStream(h, input, scene.direction);
    EXPECT_EQ(KivBf_Free(h), KIVBF_OK);
    return output;
}

}  // namespace

TEST(Threads, ParallelHandlesMatchSequentialRunsExactly) {
    constexpr size_t kCount = sizeof kScenes / sizeof kScenes[0];
    std::vector<std::vector<int16_t>> inputs, sequential, parallel(kCount);
    for (const Scene &scene : kScenes) inputs.push_back(SceneInput(scene));
    for (size_t i = 0; i < kCount; ++i) sequential.push_back(RunScene(kScenes[i], inputs[i]));

    std::vector<std::thread> threads;
    for (size_t i = 0; i < kCount; ++i)
        threads.emplace_back([&, i] { parallel[i] = RunScene(kScenes[i], inputs[i]); });
    for (std::thread &t : threads) t.join();

    for (size_t i = 0; i < kCount; ++i) {
        EXPECT_EQ(parallel[i], sequential[i]) << "scene " << i;
        EXPECT_NE(sequential[i], std::vector<int16_t>(sequential[i].size(), 0)) << "scene " << i;
    }
}
