// The message level read from its JSON file.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "debug_msglevel.h"
#include "level_file.h"

using namespace kivbf_test;

TEST(MessageLevel, AcceptedValuesElseTheDefault) {
    const std::pair<std::string, int32_t> cases[] = {
        {"{\"debug_level\": 1}", 1},  {"{\"debug_level\": 15}", 15}, {"{\"debug_level\": 5}", 7},
        {"{\"debug_level\": 0}", 7},  {"{\"debug_level\": 31}", 7},  {"{\"debug_level\": \"1\"}", 7},
        {"{\"debug_level\": 1", 7},   {"", 7},                       {"{\"other\": 1}", 7},
        {std::string("\x89PNG\r\n\x1a\n\0\0\xff", 11), 7}, {"\n{ \"x\": [], \"debug_level\" : 3 }\n", 3},
        // Far larger than any level file: not read at all.
        {"{\"debug_level\": 1}" + std::string(5 * 1024 * 1024, ' '), 7},
    };
    for (const auto &[json, level] : cases) {
        SetLevelFile(json);
        EXPECT_EQ(DebugMsgLevel_Read(), level) << json.substr(0, 40);
    }
    for (const std::string &path : {testing::TempDir() + "no_such_file.json", testing::TempDir(), std::string()}) {
        setenv("DML_PATH", path.c_str(), 1);
        EXPECT_EQ(DebugMsgLevel_Read(), 7) << path;
    }
}

TEST(MessageLevel, PathsUpTo127CharactersAreUsed) {
    const std::string dir = testing::TempDir() + "kivbf_path_" + std::to_string(getpid());
    mkdir(dir.c_str(), 0755);
    for (size_t length : {127u, 128u}) {
        const std::string path = dir + "/" + std::string(length - dir.size() - 1, 'p');
        std::ofstream(path) << "{\"debug_level\": 1}";
        setenv("DML_PATH", path.c_str(), 1);
        EXPECT_EQ(DebugMsgLevel_Read(), length == 127 ? 1 : 7);
    }
}
