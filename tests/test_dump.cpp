// PCM dump: files opened at Init, written per block, and following
// AUDIO_BF_DUMP between blocks; failures of the directory and the files.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "AudioBfProcess_internal.h"
#include "support.h"

using namespace kivbf_test;

namespace {

struct DumpFixture : testing::Test {
    WorkingBuffer buffer;
    std::string dir;
    int16_t out[128];
    float direction = 0.0f;

    void SetUp() override {
        char pattern[] = "/tmp/kivbf_dump_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
        setenv("AUDIO_DUMP_PATH", dir.c_str(), 1);
        setenv("AUDIO_BF_DUMP", "1", 1);
    }
    void TearDown() override { std::filesystem::remove_all(dir); }
    // Whether the input 0, input 1 and output files all hold `blocks` blocks.
    bool AllHold(int blocks) const {
        std::error_code missing;  // reads as size -1
        for (const char *name : {"Audio_BF_input_data0.pcm", "Audio_BF_input_data1.pcm", "Audio_BF_output_data.pcm"})
            if (std::filesystem::file_size(dir + "/" + name, missing) != 256u * blocks) return false;
        return true;
    }
    uint32_t RunBlocks(int count, double amplitude = 5000) {
        std::vector<int16_t> in(256);
        uint32_t status = KIVBF_OK;
        for (int b = 0; b < count && status == KIVBF_OK; ++b) {
            for (int i = 0; i < 256; ++i) in[i] = static_cast<int16_t>(amplitude * std::sin(0.1 * (256 * b + i)));
            status = KivBf_Run(buffer.data(), in.data(), out, &direction);
        }
        return status;
    }
};

}  // namespace

// Every block is dumped, silence too; an unknown value at Run only complains;
// "0" closes, and so does unsetting while "1" is in force, keeping the mode.
TEST_F(DumpFixture, FilesFollowTheSettingBetweenBlocks) {
    const std::tuple<const char *, bool, const char *> cases[] = {{"1", false, "0"}, {"1", false, nullptr}, {"2", true, "0"}};
    for (const auto &[initial, complain, last] : cases) {
        setenv("AUDIO_BF_DUMP", initial, 1);
        MakeConfiguredHandle(buffer);
        EXPECT_TRUE(AllHold(0));
        ASSERT_EQ(RunBlocks(2), KIVBF_OK);
        ASSERT_EQ(RunBlocks(1, 0.0), KIVBF_OK);
        if (complain) setenv("AUDIO_BF_DUMP", "3", 1);
        EXPECT_EQ(Captured([&] { ASSERT_EQ(RunBlocks(1), KIVBF_OK); }),
                  complain ? "[ALGO_MSG_ERR] [BF] [Run] Fail! [KivBf_Run] Dump export error\t\n" : "");
        if (last) setenv("AUDIO_BF_DUMP", last, 1);
        else unsetenv("AUDIO_BF_DUMP");
        ASSERT_EQ(RunBlocks(2), KIVBF_OK);
        EXPECT_TRUE(AllHold(4)) << initial << last;
        const BfCoreState &s = *Bf_StateOf(buffer.data());
        EXPECT_EQ(std::make_pair(s.dump_input[0], s.dump_mode), std::make_pair(static_cast<FILE *>(nullptr), last ? 0 : 1));
        EXPECT_EQ(KivBf_Free(buffer.data()), KIVBF_OK);
    }
}

TEST_F(DumpFixture, MissingDirectoryFailsInitAndReopeningFailsRun) {
    for (const std::string &path : {dir + "/missing", std::string(5000, 'd')}) {
        setenv("AUDIO_DUMP_PATH", path.c_str(), 1);
        AudioBfInit init = DefaultInit();
        const std::string printed = Captured([&] { EXPECT_EQ(KivBf_Init(buffer.data(), &init), nullptr); });
        EXPECT_NE(printed.find("[ALGO_MSG_ERR] [BF][Init]Fail! Dump path "), std::string::npos);
        EXPECT_NE(printed.find(" doesn't exist!\t\n"), std::string::npos);
    }
    setenv("AUDIO_DUMP_PATH", dir.c_str(), 1);
    unsetenv("AUDIO_BF_DUMP");
    MakeConfiguredHandle(buffer);
    setenv("AUDIO_BF_DUMP", "1", 1);
    setenv("AUDIO_DUMP_PATH", (dir + "/missing").c_str(), 1);
    EXPECT_EQ(Captured([&] { EXPECT_EQ(RunBlocks(1), 0xFFFFFFFFu); }),
              "[ALGO_MSG_ERR] [BF] [Run] Fail! The dump input file 0 could not be open\n");
    EXPECT_EQ(Bf_StateOf(buffer.data())->run_flag, 0);
}
