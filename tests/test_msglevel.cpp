// The message level read from its JSON file, and what it gates.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "debug_msglevel.h"
#include "level_file.h"
#include "support.h"

using namespace kivbf_test;

TEST(MessageLevel, AcceptedValuesAndTheDefault) {
    struct Case {
        const char *json;
        int32_t level;
    };
    const Case cases[] = {
        {"{\"debug_level\": 1}", 1},  {"{\"debug_level\": 3}", 3},
        {"{\"debug_level\": 7}", 7},  {"{\"debug_level\": 15}", 15},
        {"{\"debug_level\": 5}", 7},  {"{\"debug_level\": 0}", 7},
        {"{\"debug_level\": -1}", 7}, {"{\"debug_level\": 31}", 7},
        {"{\"debug_level\": 3.5}", 3}, {"{\"debug_level\": \"1\"}", 7},
        {"{\"other\": 1}", 7},        {"[1, 3]", 7},
        {"{\"debug_level\": 1", 7},   {"debug_level = 1", 7},
        {"", 7},                      {"\n{ \"x\": {\"y\": []}, \"debug_level\" : 15 }\n", 15},
    };
    for (const Case &c : cases) {
        SetLevelFile(c.json);
        EXPECT_EQ(DebugMsgLevel_Read(), c.level) << c.json;
    }
}

TEST(MessageLevel, FileIsReadAnewEachTime) {
    SetMessageLevel(1);
    EXPECT_EQ(DebugMsgLevel_Read(), 1);
    SetMessageLevel(15);
    EXPECT_EQ(DebugMsgLevel_Read(), 15);
}

TEST(MessageLevel, UnreadableFilesGiveTheDefault) {
    std::string binary(4096, '\0');
    for (size_t i = 0; i < binary.size(); ++i) binary[i] = static_cast<char>((i * 131u) ^ 0x5A);
    SetLevelFile(binary);
    EXPECT_EQ(DebugMsgLevel_Read(), 7);

    // A file far larger than any level file is not read at all.
    SetLevelFile("{\"debug_level\": 1}" + std::string(5 * 1024 * 1024, ' '));
    EXPECT_EQ(DebugMsgLevel_Read(), 7);

    setenv("DML_PATH", (testing::TempDir() + "no_such_level_file.json").c_str(), 1);
    EXPECT_EQ(DebugMsgLevel_Read(), 7);
    setenv("DML_PATH", testing::TempDir().c_str(), 1);  // a directory
    EXPECT_EQ(DebugMsgLevel_Read(), 7);
    setenv("DML_PATH", "", 1);
    EXPECT_EQ(DebugMsgLevel_Read(), 7);
    setenv("DML_PATH", std::string(4000, 'a').c_str(), 1);
    EXPECT_EQ(DebugMsgLevel_Read(), 7);
}

TEST(MessageLevel, PathsUpTo127CharactersAreUsed) {
    const std::string dir = testing::TempDir() + "kivbf_path_" + std::to_string(getpid());
    mkdir(dir.c_str(), 0755);
    const auto file_of_length = [&dir](size_t length) {
        return dir + "/" + std::string(length - dir.size() - 1, 'p');
    };
    const std::string fits = file_of_length(127);
    const std::string cut = file_of_length(128);
    std::ofstream(fits) << "{\"debug_level\": 1}";
    std::ofstream(cut) << "{\"debug_level\": 1}";
    setenv("DML_PATH", fits.c_str(), 1);
    EXPECT_EQ(DebugMsgLevel_Read(), 1);
    setenv("DML_PATH", cut.c_str(), 1);
    EXPECT_EQ(DebugMsgLevel_Read(), 7);
}

TEST(MessageLevel, LevelGatesEachKindOfMessage) {
    uint16_t major, minor;
    SetMessageLevel(3);  // errors and warnings only
    CaptureStart();
    KivBf_GetAPIVersion(&major, &minor);
    EXPECT_EQ(CaptureStop(), "");
    SetMessageLevel(15);
    CaptureStart();
    KivBf_GetAPIVersion(&major, &minor);
    EXPECT_EQ(CaptureStop(), "[ALGO_MSG_MSG] BF_API_VERSION: 1.5\n");
}
