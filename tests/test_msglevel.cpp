// The message level read from its JSON file, and the message sink.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "debug_msglevel.h"
#include "kivbf_ext.h"
#include "support.h"

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

// The sink gets exactly what standard output would have, at the level it sets;
// bad records are refused and leave the sink as it was.
TEST(MessageSink, CallbackStderrLevelAndRefusals) {
    unsetenv("DML_PATH");
    const auto init_and_bad_mode = [] {
        WorkingBuffer buffer;
        AudioBfHandle handle = MakeConfiguredHandle(buffer);
        (void)KivBf_SetMode(handle, 9, 0.0f);
        (void)KivBf_Run(nullptr, nullptr, nullptr, nullptr);
    };
    const std::string printed = Captured(init_and_bad_mode);
    ASSERT_NE(printed.find("ALGO_MSG_WRN"), std::string::npos);

    std::string collected;
    const KivBfExtMessageFn collect = [](void *user, int32_t kind, const char *text) {
        EXPECT_TRUE(kind == 1 || kind == 2 || kind == 4);
        *static_cast<std::string *>(user) += text;
    };
    const KivBfExtMessageSink to_callback{KIVBFEXT_SINK_CALLBACK, collect, &collected,
                                          KIVBFEXT_LEVEL_FROM_FILE};
    ASSERT_EQ(KivBfExt_SetMessageSink(&to_callback), KIVBF_OK);
    EXPECT_EQ(Captured(init_and_bad_mode), "");
    EXPECT_EQ(collected, printed);

    const KivBfExtMessageSink errors_only{KIVBFEXT_SINK_CALLBACK, collect, &collected, 1};
    ASSERT_EQ(KivBfExt_SetMessageSink(&errors_only), KIVBF_OK);
    collected.clear();
    init_and_bad_mode();
    EXPECT_EQ(collected.find("ALGO_MSG_WRN"), std::string::npos);
    EXPECT_NE(collected.find("[Run] Fail! The handle is NULL"), std::string::npos);

    const KivBfExtMessageSink refused[] = {
        {4, nullptr, nullptr, KIVBFEXT_LEVEL_FROM_FILE},
        {KIVBFEXT_SINK_CALLBACK, nullptr, nullptr, KIVBFEXT_LEVEL_FROM_FILE},
        {KIVBFEXT_SINK_STDERR, nullptr, nullptr, 5},
    };
    for (const KivBfExtMessageSink &sink : refused)
        EXPECT_EQ(KivBfExt_SetMessageSink(&sink), KIVBFEXT_ERR_MESSAGE_SINK);
    collected.clear();
    init_and_bad_mode();
    EXPECT_FALSE(collected.empty());  // still the callback

    const KivBfExtMessageSink to_stderr{KIVBFEXT_SINK_STDERR, nullptr, nullptr,
                                        KIVBFEXT_LEVEL_FROM_FILE};
    ASSERT_EQ(KivBfExt_SetMessageSink(&to_stderr), KIVBF_OK);
    testing::internal::CaptureStderr();
    EXPECT_EQ(Captured(init_and_bad_mode), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), printed);

    ASSERT_EQ(KivBfExt_SetMessageSink(nullptr), KIVBF_OK);
    EXPECT_EQ(Captured(init_and_bad_mode), printed);
}
