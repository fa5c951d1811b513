// The plugins' shared core: a control change handed over in any host call
// takes effect at the next block boundary exactly as the matching setter
// called on a handle before that block; and the LV2 .ttl describes the
// controls of beam_controls.h.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "beam_core.h"
#include "kivbf_ext.h"
#include "support.h"

namespace {

constexpr uint32_t kBlock = KIVBF_POINT_NUMBER;
constexpr uint32_t kRate = 16000;
constexpr uint32_t kBlocks = 160;  // the VAD decides only after its first second
constexpr uint32_t kChangeFrame = 140 * kBlock + 5;  // inside block 140
constexpr uint32_t kShift = kPluginLatencyFrames - kBlock;

// A talker off broadside (noise reaching microphone 1 a sample later) who
// pauses now and then, over uncorrelated noise; interleaved.
std::vector<int16_t> TalkerInNoise() {
    std::vector<int16_t> pcm(2 * kBlocks * kBlock);
    uint32_t seed = 12345;
    auto noise = [&seed] {
        seed = seed * 1664525u + 1013904223u;
        return static_cast<float>(static_cast<int32_t>(seed >> 16) - 32768) / 32768.0f;
    };
    std::vector<float> talker(kBlocks * kBlock + 1);
    for (float &x : talker) x = noise();
    for (uint32_t t = 0; t < kBlocks * kBlock; ++t) {
        const float level = (t / kBlock) % 50 < 30 ? 6000.0f : 0.0f;
        pcm[2 * t] = static_cast<int16_t>(level * talker[t + 1] + 300.0f * noise());
        pcm[2 * t + 1] = static_cast<int16_t>(level * talker[t] + 300.0f * noise());
    }
    return pcm;
}

void ApplyDirectly(BeamControl control, AudioBfHandle &handle, void *storage, const BeamControls &c);

// The handle configured as the plugin core configures it (the kivbf tool's
// settings of what the plugins do not expose), then each control's setter.
AudioBfHandle Configured(void *storage, const BeamControls &c) {
    const float *v = c.value;
    const AudioBfInit init{kBlock, kRate, v[kControlSpacing], 2};
    AudioBfHandle handle = KivBf_Init(storage, &init);
    AudioBfConfig config = kivbf_test::CurrentConfig(handle);
    config.temperature = 20;
    config.noise_threshold_db = -20;
    config.Noise_estimation = 0;
    config.diagonal_loading = 10;
    config.output_gain = v[kControlOutputGain];
    config.vad_enable = static_cast<uint32_t>(v[kControlVad]);
    EXPECT_EQ(KivBf_SetConfig(handle, &config), KIVBF_OK);
    EXPECT_EQ(KivBf_SetShape(handle, static_cast<uint32_t>(v[kControlShape])), KIVBF_OK);
    EXPECT_EQ(KivBf_SetCalibration(handle, 0), KIVBF_OK);
    for (BeamControl control : {kControlMode, kControlIntensity, kControlAutoSteer, kControlWindowCentre})
        ApplyDirectly(control, handle, storage, c);
    return handle;
}

// What a program driving the library calls before a block to make a change of
// `control` to the values in `c`.
void ApplyDirectly(BeamControl control, AudioBfHandle &handle, void *storage, const BeamControls &c) {
    const float *v = c.value;
    AudioBfConfig config{};
    switch (control) {
    case kControlMode:
    case kControlAngle:
        EXPECT_EQ(KivBf_SetMode(handle, static_cast<uint32_t>(v[kControlMode]), v[kControlAngle]), KIVBF_OK);
        break;
    case kControlOutputGain:
    case kControlVad:
        config = kivbf_test::CurrentConfig(handle);
        config.output_gain = v[kControlOutputGain];
        config.vad_enable = static_cast<uint32_t>(v[kControlVad]);
        EXPECT_EQ(KivBf_SetConfig(handle, &config), KIVBF_OK);
        break;
    case kControlIntensity:
        EXPECT_EQ(KivBf_SetAdaptiveIntensity(handle, static_cast<int32_t>(v[kControlIntensity])), KIVBF_OK);
        break;
    case kControlAutoSteer:
        EXPECT_EQ(KivBfExt_SetAutoSteer(handle, static_cast<uint32_t>(v[kControlAutoSteer])), KIVBF_OK);
        break;
    case kControlWindowCentre:
    case kControlWindowHalfWidth:
        EXPECT_EQ(KivBfExt_SetSearchWindow(handle, v[kControlWindowCentre], v[kControlWindowHalfWidth]), KIVBF_OK);
        break;
    default:  // spacing and shape: a fresh Init
        EXPECT_EQ(KivBf_Free(handle), KIVBF_OK);
        handle = Configured(storage, c);
    }
}

// The library driven directly, with `control` changed before block `change_block`.
std::vector<int16_t> Direct(const std::vector<int16_t> &pcm, const BeamControls &before,
                            const BeamControls &after, uint32_t change_block, BeamControl control) {
    kivbf_test::WorkingBuffer buffer;
    AudioBfHandle handle = Configured(buffer.data(), before);
    std::vector<int16_t> out(kBlocks * kBlock);
    const float direction = 0.0f;
    for (uint32_t b = 0; b < kBlocks; ++b) {
        if (b == change_block) ApplyDirectly(control, handle, buffer.data(), after);
        EXPECT_EQ(KivBf_Run(handle, &pcm[2 * b * kBlock], &out[b * kBlock], &direction), KIVBF_OK);
    }
    return out;
}

struct Change {
    BeamControl control;
    float from, to;
    float mode = 0;  // the mode before and after
};

TEST(PluginCore, ControlChangeActsAtTheNextBlockAsItsSetter) {
    static const KivBfExtMessageSink quiet{KIVBFEXT_SINK_DISCARD, nullptr, nullptr, KIVBFEXT_LEVEL_FROM_FILE};
    ASSERT_EQ(KivBfExt_SetMessageSink(&quiet), KIVBF_OK);
    const Change changes[] = {
        {kControlMode, 1, 3},          {kControlAngle, 0, 40, 1},  {kControlOutputGain, 0.7f, 0.5f},
        {kControlVad, 0, 1},           {kControlIntensity, 1, 4},  {kControlAutoSteer, 0, 1},
        {kControlWindowHalfWidth, 180, 10}, {kControlSpacing, 5, 8}, {kControlShape, 0, 1},
    };
    const std::vector<int16_t> pcm = TalkerInNoise();
    for (const Change &change : changes) {
        for (uint32_t chunk : {1u, 37u, kBlock}) {
            SCOPED_TRACE(std::string(kControls[change.control].symbol) + ", host calls of " + std::to_string(chunk));
            BeamControls before = DefaultControls();
            before.value[kControlMode] = change.mode;
            before.value[kControlAutoSteer] = change.control == kControlWindowHalfWidth ? 1 : 0;
            before.value[kControlWindowCentre] = change.control == kControlWindowHalfWidth ? 40 : 0;
            before.value[change.control] = change.from;
            BeamControls after = before;
            after.value[change.control] = change.to;

            BeamCore core;
            ASSERT_TRUE(core.Start(kRate, before));
            std::vector<int16_t> got(kBlocks * kBlock);
            uint32_t change_block = kBlocks;
            for (uint32_t start = 0; start < got.size(); start += chunk) {
                const uint32_t frames = std::min<uint32_t>(chunk, got.size() - start);
                const bool changed = start + frames > kChangeFrame;
                // The change acts on the first block completed in the call that brings it.
                if (changed && change_block == kBlocks) change_block = start / kBlock;
                core.Process(&pcm[2 * start], &pcm[2 * start + 1], 2, &got[start], frames,
                             changed ? after : before);
            }
            const std::vector<int16_t> expected = Direct(pcm, before, after, change_block, change.control);
            const std::vector<int16_t> unchanged = Direct(pcm, before, before, kBlocks, change.control);
            ASSERT_NE(expected, unchanged) << "the change makes no difference to this signal";
            for (uint32_t t = kShift; t < got.size(); ++t)
                ASSERT_EQ(got[t], expected[t - kShift]) << "frame " << t;
        }
    }
}

// The value after `key` in a port's block of the .ttl, up to ';' or the block's end.
std::string Field(const std::string &port, const std::string &key) {
    const size_t at = port.find(key + " ");
    if (at == std::string::npos) return "";
    const size_t begin = at + key.size() + 1;
    std::string value = port.substr(begin, port.find_first_of(";\n", begin) - begin);
    while (!value.empty() && value.back() == ' ') value.pop_back();
    return value;
}

TEST(PluginCore, LV2PortsDescribeTheControlTable) {
    std::ifstream file(KIVBF_LV2_TTL);
    ASSERT_TRUE(file) << KIVBF_LV2_TTL;
    std::stringstream text;
    text << file.rdbuf();
    const std::string ttl = text.str();
    for (uint32_t i = 0; i < kControlCount; ++i) {
        const ControlInfo &info = kControls[i];
        SCOPED_TRACE(info.symbol);
        const size_t at = ttl.find(std::string("lv2:symbol \"") + info.symbol + "\"");
        ASSERT_NE(at, std::string::npos);
        const size_t begin = ttl.rfind('[', at), end = ttl.find(']', at);
        const std::string port = ttl.substr(begin, end - begin);
        EXPECT_EQ(Field(port, "lv2:index"), std::to_string(3 + i));
        EXPECT_EQ(Field(port, "lv2:name"), std::string("\"") + info.name + "\"");
        EXPECT_EQ(std::stof(Field(port, "lv2:minimum")), info.low);
        EXPECT_EQ(std::stof(Field(port, "lv2:maximum")), info.high);
        EXPECT_EQ(std::stof(Field(port, "lv2:default")), info.initial);
        EXPECT_EQ(port.find("lv2:integer") != std::string::npos, info.integer);
    }
    // The latency output follows the controls.
    EXPECT_NE(ttl.find("lv2:index " + std::to_string(3 + kControlCount) + " ;\n        lv2:symbol \"latency\""),
              std::string::npos);
}

}  // namespace
