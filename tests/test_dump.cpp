// PCM dump: files opened at Init, written per block, and following
// AUDIO_BF_DUMP between blocks; failures of the directory and the files.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <cstdlib>
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
        setenv("DML_PATH", "/nonexistent/level.json", 1);  // level 7
        setenv("AUDIO_DUMP_PATH", dir.c_str(), 1);
        setenv("AUDIO_BF_DUMP", "1", 1);
    }
    void TearDown() override {
        for (const char *name : kNames) std::remove((dir + "/" + name).c_str());
        rmdir(dir.c_str());
    }
    // Sizes in bytes of the input 0, input 1 and output files (-1: missing).
    std::vector<long> Sizes() const {
        std::vector<long> sizes;
        for (const char *name : kNames) {
            struct stat st {};
            sizes.push_back(stat((dir + "/" + name).c_str(), &st) == 0 ? st.st_size : -1);
        }
        return sizes;
    }
    uint32_t RunBlocks(int count, bool silent = false) {
        std::vector<int16_t> in(256);
        for (int b = 0; b < count; ++b) {
            for (int i = 0; i < 256; ++i)
                in[i] = silent ? 0 : static_cast<int16_t>(5000 * std::sin(0.1 * (256 * b + i)));
            if (const uint32_t status = KivBf_Run(buffer.data(), in.data(), out, &direction))
                return status;
        }
        return KIVBF_OK;
    }
    BfCoreState &State() { return *Bf_StateOf(buffer.data()); }

    static constexpr const char *kNames[] = {"Audio_BF_input_data0.pcm", "Audio_BF_input_data1.pcm",
                                            "Audio_BF_output_data.pcm"};
};

std::vector<long> All(long size) { return {size, size, size}; }

}  // namespace

TEST_F(DumpFixture, InitOpensAndEveryBlockAppendsUntilSwitchedOff) {
    MakeConfiguredHandle(buffer);
    EXPECT_EQ(Sizes(), All(0));
    ASSERT_EQ(RunBlocks(3), KIVBF_OK);
    ASSERT_EQ(RunBlocks(1, true), KIVBF_OK);  // silence is dumped too
    setenv("AUDIO_BF_DUMP", "0", 1);
    ASSERT_EQ(RunBlocks(2), KIVBF_OK);  // closed before these blocks
    EXPECT_EQ(Sizes(), All(4 * 256));
    EXPECT_EQ(State().dump_input[0], nullptr);
}

TEST_F(DumpFixture, UnsetWhileOnClosesAndLaterBlocksWriteNothing) {
    MakeConfiguredHandle(buffer);
    ASSERT_EQ(RunBlocks(2), KIVBF_OK);
    unsetenv("AUDIO_BF_DUMP");
    ASSERT_EQ(RunBlocks(3), KIVBF_OK);
    EXPECT_EQ(State().dump_mode, 1);
    EXPECT_EQ(Sizes(), All(2 * 256));
    EXPECT_EQ(KivBf_Free(buffer.data()), KIVBF_OK);
}

TEST_F(DumpFixture, ModeTwoAtInitDumpsAndOtherValuesAtRunOnlyComplain) {
    setenv("AUDIO_BF_DUMP", "2", 1);
    MakeConfiguredHandle(buffer);
    ASSERT_EQ(RunBlocks(2), KIVBF_OK);
    setenv("AUDIO_BF_DUMP", "3", 1);
    CaptureStart();
    ASSERT_EQ(RunBlocks(1), KIVBF_OK);
    EXPECT_EQ(CaptureStop(), "[ALGO_MSG_ERR] [BF] [Run] Fail! [KivBf_Run] Dump export error\t\n");
    setenv("AUDIO_BF_DUMP", "0", 1);
    ASSERT_EQ(RunBlocks(1), KIVBF_OK);
    EXPECT_EQ(Sizes(), All(3 * 256));
}

TEST_F(DumpFixture, MissingOrOverlongDirectoryFailsInit) {
    const std::string overlong(5000, 'd');
    for (const std::string &path : {dir + "/missing", overlong}) {
        setenv("AUDIO_DUMP_PATH", path.c_str(), 1);
        AudioBfInit init = DefaultInit();
        CaptureStart();
        EXPECT_EQ(KivBf_Init(buffer.data(), &init), nullptr);
        const std::string printed = CaptureStop();
        EXPECT_NE(printed.find("[ALGO_MSG_ERR] [BF][Init]Fail! Dump path "), std::string::npos);
        EXPECT_NE(printed.find(" doesn't exist!\t\n"), std::string::npos);
    }
}

TEST_F(DumpFixture, ReopeningFailureAtRunReturnsMinusOne) {
    unsetenv("AUDIO_BF_DUMP");
    MakeConfiguredHandle(buffer);
    setenv("AUDIO_BF_DUMP", "1", 1);
    setenv("AUDIO_DUMP_PATH", (dir + "/missing").c_str(), 1);
    CaptureStart();
    EXPECT_EQ(RunBlocks(1), 0xFFFFFFFFu);
    EXPECT_EQ(CaptureStop(),
              "[ALGO_MSG_ERR] [BF] [Run] Fail! The dump input file 0 could not be open\n");
    EXPECT_EQ(State().run_flag, 0);
}
