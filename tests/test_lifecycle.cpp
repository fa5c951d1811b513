// Handle lifecycle: buffer layout, Init/Reset, the handle check, Free.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "AudioBfProcess_internal.h"
#include "AudioVadProcess.h"
#include "support.h"

using namespace kivbf_test;

TEST(Lifecycle, InitLaysOutThreeRegionsAndWritesFlags) {
    SetMessageLevel(3);
    EXPECT_EQ(KivBf_GetBufferSize(), sizeof(BfCoreState) + KivVad_GetBufferSize() + FFT_GetBufferSize(256));
    WorkingBuffer buffer;
    AudioBfInit init = DefaultInit(16000, 5.0f);
    AudioBfHandle h = nullptr;
    EXPECT_EQ(Captured([&] { h = KivBf_Init(buffer.data(), &init); }),
              "[ALGO_MSG_WRN] [VAD] Force VAD sampling rate at 16000 Hz! \r\n");
    ASSERT_EQ(h, buffer.data());
    const BfCoreState &s = *Bf_StateOf(h);
    auto *base = static_cast<unsigned char *>(buffer.data());
    EXPECT_EQ(s.vad_instance, base + sizeof(BfCoreState));
    EXPECT_EQ(s.fft_record.fft_Ne10_cfg, base + sizeof(BfCoreState) + KivVad_GetBufferSize());
    EXPECT_EQ(std::make_tuple(s.init_flag, s.config_flag, s.shape_flag, s.mode_flag, s.run_flag),
              std::make_tuple(1, 2, 2, 2, 2));
    EXPECT_EQ(std::make_tuple(s.microphone_distance, s.debug_level, s.bin_frequency[1], s.bin_frequency[128]),
              std::make_tuple(0.05f, 3, 62.5f, 8000.0f));
}

TEST(Lifecycle, InitAndResetRefuseBadArgumentsInCheckOrder) {
    SetMessageLevel(1);
    const std::string point = kBfError + "Fail! This library only support 128 point number!!\r\n";
    const std::string mics = kBfError + "Fail! This library only support 2 Microphones!!\r\n";
    const std::string distance = kBfError + "Fail! The microphone_distance must be positibe!!\r\n";
    const std::string rate = kBfError + "Fail! Only support 8/16/32/48 KHz sample rate.\t\n";
    const std::pair<AudioBfInit, std::string> cases[] = {
        {{127, 16000, 5.0f, 2}, point},     {{256, 44100, -1.0f, 3}, point}, {{128, 44100, 0.0f, 3}, mics},
        {{128, 16000, -0.5f, 2}, distance}, {{128, 44100, NAN, 2}, distance}, {{128, 7999, 5.0f, 2}, rate},
        {{128, 16000, INFINITY, 2}, distance}, {{128, 16000, -INFINITY, 2}, distance},
        {{128, 44100, 5.0f, 2}, rate},      {{128, 8000, 5.0f, 2}, ""},      {{128, 48000, 5.0f, 2}, ""},
    };
    WorkingBuffer buffer;
    for (const auto &[init, message] : cases) {
        SCOPED_TRACE(testing::Message() << init.sample_rate << " Hz, " << init.microphone_distance << " cm");
        AudioBfHandle h = nullptr;
        EXPECT_EQ(Captured([&] { h = KivBf_Init(buffer.data(), &init); }), message);
        EXPECT_EQ(h != nullptr, message.empty());
    }
    // Null and misaligned buffers are refused untouched.
    AudioBfInit init = DefaultInit();
    std::vector<unsigned char> raw(KivBf_GetBufferSize() + 32, 0xA5);
    unsigned char *aligned = raw.data() + (16 - reinterpret_cast<uintptr_t>(raw.data()) % 16);
    const std::string null = " Fail! The working buffer or init parameter is NULL!!\r\n";
    EXPECT_EQ(Captured([&] {
                  EXPECT_EQ(KivBf_Init(nullptr, &init), nullptr);
                  EXPECT_EQ(KivBf_Reset(aligned, nullptr), nullptr);
              }),
              kBfError + "[Init]" + null + kBfError + "[Reset]" + null);
    const std::string out = Captured([&] {  // 8-byte aligned is not enough
        EXPECT_EQ(KivBf_Init(aligned + 8, &init), nullptr);
        EXPECT_EQ(KivBf_Reset(aligned + 8, &init), nullptr);
    });
    EXPECT_EQ(out.rfind(kBfError + "[Init] Fail!", 0), 0u) << out;
    EXPECT_NE(out.find(kBfError + "[Reset] Fail!"), std::string::npos);
    for (unsigned char byte : raw) ASSERT_EQ(byte, 0xA5);
}

TEST(Lifecycle, ResetEqualsFreshInitByteForByteAndFreeUnsetsEveryFlag) {
    SetMessageLevel(7);
    WorkingBuffer buffer;
    AudioBfInit init = DefaultInit(48000, 7.0f);
    ASSERT_NE(KivBf_Init(buffer.data(), &init), nullptr);
    const auto *bytes = static_cast<const unsigned char *>(buffer.data());
    const std::vector<unsigned char> fresh(bytes, bytes + buffer.size());

    AudioBfHandle h = MakeConfiguredHandle(buffer, 1, 16000, 3.0f);
    BfCoreState &s = *Bf_StateOf(h);
    s.run_flag = 1;  // as after a block
    std::memset(s.ola_buffer, 0x7F, sizeof s.ola_buffer);
    ASSERT_EQ(KivBf_Reset(h, &init), h);
    EXPECT_EQ(std::memcmp(bytes, fresh.data(), fresh.size()), 0);
    AudioBfConfig config = CurrentConfig(h);
    ASSERT_EQ(KivBf_SetConfig(h, &config), KIVBF_OK);
    EXPECT_EQ(KivBf_SetShape(h, 0), KIVBF_OK);  // settable again

    EXPECT_EQ(KivBf_Free(h), KIVBF_OK);
    EXPECT_EQ(std::make_tuple(s.init_flag, s.config_flag, s.shape_flag, s.mode_flag, s.run_flag),
              std::make_tuple(2, 2, 2, 2, 2));
    EXPECT_EQ(KivBf_SetShape(h, 0), KIVBF_ERR_NOT_INITIALISED);
    uint16_t major = 0, minor = 0;
    EXPECT_EQ(Captured([&] {
                  EXPECT_EQ(KivBf_Free(nullptr), KIVBF_ERR_HANDLE);
                  EXPECT_EQ(KivBf_GetAPIVersion(&major, &minor), KIVBF_OK);
              }),
              "[ALGO_MSG_ERR]  [BF] [Free] Fail!. The handle is NULL\t\n[ALGO_MSG_MSG] BF_API_VERSION: 1.5\n");
    EXPECT_EQ(major * 10 + minor, 15);
}

TEST(Lifecycle, HandleCheckOrderAndGating) {
    WorkingBuffer buffer;
    BfCoreState &s = *Bf_StateOf(MakeConfiguredHandle(buffer));
    s.debug_level = 1;
    AudioBfConfig config{};
    // Each fault on top of the last: the earlier test wins.
    EXPECT_EQ(Captured([&] {
                  s.handle_marker[3] = 'X';
                  EXPECT_EQ(KivBf_GetConfig(&s, &config), KIVBF_ERR_HANDLE);
                  s.mic_number = 3;
                  EXPECT_EQ(KivBf_GetConfig(&s, &config), KIVBF_ERR_MIC_NUMBER);
                  s.point_number = 256;
                  EXPECT_EQ(KivBf_GetConfig(&s, &config), KIVBF_ERR_POINT_NUMBER);
              }),
              "[ALGO_MSG_ERR] [BF][GetConfig] Fail! The handle pointer seems to be dirty!!\r\n"
              "[ALGO_MSG_ERR] [BF][GetConfig] Fail! This library only support 2 Microphones!!\r\n" +
                  kBfError + "[GetConfig] Fail! This library only support 128 point number!!\r\n");
    s.debug_level = 0;  // codes stay, messages go
    EXPECT_EQ(Captured([&] { EXPECT_EQ(Bf_HandleCheck(s, s.debug_level, "Run"), KIVBF_ERR_POINT_NUMBER); }), "");
}
