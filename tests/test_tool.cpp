// The kivbf command-line tool, run as a process: WAV and raw streams come
// back as long as they went in, latency compensation aligns them, and bad
// options or settings the library refuses end with a non-zero status.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

constexpr int kFrames = 1000;  // not a whole number of blocks

// A private temporary directory, removed when the test program ends.
struct ScratchDirectory {
    std::string path;
    ScratchDirectory() {
        char pattern[] = "/tmp/kivbf_tool_XXXXXX";
        path = mkdtemp(pattern) != nullptr ? pattern : "/tmp";
    }
    ~ScratchDirectory() {
        if (path != "/tmp") std::filesystem::remove_all(path);
    }
};

std::string Scratch(const char *name) {
    static const ScratchDirectory directory;
    return directory.path + "/" + name;
}

// Identical channels: a broadside source, which the default beam passes.
std::vector<int16_t> StereoSine() {
    std::vector<int16_t> s(2 * kFrames);
    for (int n = 0; n < kFrames; ++n)
        s[2 * n] = s[2 * n + 1] = static_cast<int16_t>(12000 * std::sin(0.05 * n));
    return s;
}

std::vector<char> Bytes(const std::vector<int16_t> &samples) {
    const char *p = reinterpret_cast<const char *>(samples.data());
    return std::vector<char>(p, p + 2 * samples.size());
}

std::vector<char> ReadFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(in), {});
}

void WriteFile(const std::string &path, const std::vector<char> &bytes) {
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<long>(bytes.size()));
}

template <typename T>
void Put(std::vector<char> &v, T x) {
    for (size_t i = 0; i < sizeof(T); ++i) v.push_back(static_cast<char>(x >> (8 * i)));
}

std::vector<char> Wav(const std::vector<int16_t> &samples, uint16_t channels) {
    const std::vector<char> data = Bytes(samples);
    std::vector<char> v;
    for (char c : std::string("RIFF....WAVEfmt ")) v.push_back(c);
    Put<uint32_t>(v, 16);
    Put<uint16_t>(v, 1);
    Put<uint16_t>(v, channels);
    Put<uint32_t>(v, 16000);
    Put<uint32_t>(v, 16000u * 2 * channels);
    Put<uint16_t>(v, static_cast<uint16_t>(2 * channels));
    Put<uint16_t>(v, 16);
    for (char c : std::string("data")) v.push_back(c);
    Put<uint32_t>(v, static_cast<uint32_t>(data.size()));
    v.insert(v.end(), data.begin(), data.end());
    const uint32_t riff_size = static_cast<uint32_t>(v.size() - 8);
    std::memcpy(&v[4], &riff_size, 4);
    return v;
}

// Size of the "data" chunk of a WAV file, -1 if there is none.
long WavDataSize(const std::vector<char> &wav) {
    for (size_t at = 12; at + 8 <= wav.size();) {
        uint32_t size = 0;
        std::memcpy(&size, &wav[at + 4], 4);
        if (std::memcmp(&wav[at], "data", 4) == 0) return size;
        at += 8 + size + (size & 1);
    }
    return -1;
}

int Tool(const std::string &arguments) {
    const std::string command = std::string(KIVBF_TOOL_PATH) + " " + arguments;
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::vector<int16_t> Samples(const std::vector<char> &bytes) {
    std::vector<int16_t> s(bytes.size() / 2);
    std::memcpy(s.data(), bytes.data(), 2 * s.size());
    return s;
}

}  // namespace

TEST(Tool, WavAndRawOutputsAreAsLongAsTheirInputs) {
    WriteFile(Scratch("in.wav"), Wav(StereoSine(), 2));
    WriteFile(Scratch("in.raw"), Bytes(StereoSine()));
    ASSERT_EQ(Tool("process " + Scratch("in.wav") + " " + Scratch("out.wav")), 0);
    EXPECT_EQ(WavDataSize(ReadFile(Scratch("out.wav"))), 2 * kFrames);
    for (const char *extra : {"", "--compensate-latency --mode 1"}) {
        ASSERT_EQ(Tool(std::string("process --rate 16000 ") + extra + " - - < " + Scratch("in.raw") +
                       " > " + Scratch("out.raw")),
                  0);
        EXPECT_EQ(ReadFile(Scratch("out.raw")).size(), 2u * kFrames) << extra;
    }
}

TEST(Tool, CompensatedOutputLinesUpWithTheInput) {
    WriteFile(Scratch("in.raw"), Bytes(StereoSine()));
    ASSERT_EQ(Tool("process --compensate-latency - - < " + Scratch("in.raw") + " > " +
                   Scratch("aligned.raw")),
              0);
    const std::vector<int16_t> in = StereoSine(), out = Samples(ReadFile(Scratch("aligned.raw")));
    ASSERT_EQ(out.size(), static_cast<size_t>(kFrames));
    // The first block only has half a window of history; the rest is the input.
    for (int n = 128; n < 7 * 128; ++n) ASSERT_NEAR(out[n], in[2 * n], 2) << n;
}

TEST(Tool, BadOptionsAndRefusedSettingsFail) {
    EXPECT_NE(Tool("process --no-such-option - - < /dev/null 2>/dev/null"), 0);
    EXPECT_NE(Tool("process --mode 9 - - < /dev/null 2>/dev/null"), 0);
    EXPECT_NE(Tool("process --dynamic-loading 1,2,3 - - < /dev/null 2>/dev/null"), 0);
    EXPECT_NE(Tool("process /nonexistent.wav - 2>/dev/null"), 0);
    const std::string log = Scratch("stderr.txt");
    EXPECT_NE(Tool("process --output-gain 2 - - < /dev/null 2> " + log), 0);
    const std::vector<char> text = ReadFile(log);
    EXPECT_NE(std::string(text.begin(), text.end()).find("KIVBF_ERR_OUTPUT_GAIN"), std::string::npos);
}
