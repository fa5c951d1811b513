// The kivbf command-line tool, run as a process: WAV and raw streams come
// back as long as they went in, and bad options or settings the library
// refuses end with a non-zero status.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

constexpr uint32_t kFrames = 1000;  // not a whole number of blocks

struct ToolFixture : testing::Test {
    std::string dir;
    void SetUp() override {
        char pattern[] = "/tmp/kivbf_tool_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = std::string(pattern) + "/";
    }
    void TearDown() override { std::filesystem::remove_all(dir); }
    std::vector<char> Read(const std::string &name) const {
        std::ifstream in(dir + name, std::ios::binary);
        return std::vector<char>(std::istreambuf_iterator<char>(in), {});
    }
    // Exit status of the tool run with `arguments` in the scratch directory.
    int Tool(const std::string &arguments) const {
        const int status = std::system(("cd " + dir + " && " + KIVBF_TOOL_PATH + " process " + arguments).c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
};

}  // namespace

TEST_F(ToolFixture, OutputsAreAsLongAsInputs) {
    std::vector<int16_t> in(2 * kFrames);
    for (uint32_t i = 0; i < 2 * kFrames; ++i) in[i] = static_cast<int16_t>(12000 * std::sin(0.05 * (i / 2)));
    const char *samples = reinterpret_cast<const char *>(in.data());
    std::ofstream(dir + "in.raw", std::ios::binary).write(samples, 4 * kFrames);
    // "RIFF", size, "WAVE", "fmt ", 16, PCM + 2 channels, 16 kHz, bytes/s, 4-byte frames of 16 bits, "data", size
    const uint32_t header[] = {0x46464952, 36 + 4 * kFrames, 0x45564157, 0x20746d66, 16, 0x00020001,
                               16000,      64000,            0x00100004, 0x61746164, 4 * kFrames};
    std::ofstream(dir + "in.wav", std::ios::binary)
        .write(reinterpret_cast<const char *>(header), sizeof header)
        .write(samples, 4 * kFrames);
    ASSERT_EQ(Tool("in.wav out.wav"), 0);
    const std::vector<char> wav = Read("out.wav");
    const auto data = std::search(wav.begin() + 12, wav.end(), "data", "data" + 4);
    ASSERT_LE(data + 8, wav.end());
    uint32_t data_size = 0;
    std::memcpy(&data_size, &*(data + 4), 4);
    EXPECT_EQ(data_size, 2 * kFrames);
    for (const char *options : {"--rate 16000 --mode 1", "--compensate-latency"}) {
        ASSERT_EQ(Tool(std::string(options) + " - - < in.raw > out.raw"), 0) << options;
        EXPECT_EQ(Read("out.raw").size(), 2u * kFrames) << options;
    }
}

TEST_F(ToolFixture, BadOptionsAndRefusedSettingsFail) {
    for (const char *arguments : {"--no-such-option - - < /dev/null", "--mode 9 - - < /dev/null",
                                  "--dynamic-loading 1,2,3 - - < /dev/null", "/nonexistent.wav -",
                                  "--output-gain 2 - - < /dev/null"})  // its report names the status
        EXPECT_NE(Tool(std::string(arguments) + " 2> stderr.txt"), 0) << arguments;
    const std::vector<char> text = Read("stderr.txt");
    EXPECT_NE(std::string(text.begin(), text.end()).find("KIVBF_ERR_OUTPUT_GAIN"), std::string::npos);
}
