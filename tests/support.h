// Helpers shared by the tests: a working buffer with the alignment malloc
// gives, a handle configured the usual way, block-by-block runs, stdout
// capture, the message-level file, bins of a spectrum and FNV-1a hashes.
// Every test starts at the default message level (support.cpp points
// DML_PATH at a file that does not exist).
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <complex>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "AudioBfProcess.h"

namespace kivbf_test {

// Owns one 16-byte aligned working buffer of KivBf_GetBufferSize() bytes.
class WorkingBuffer {
public:
    WorkingBuffer();
    ~WorkingBuffer();
    WorkingBuffer(const WorkingBuffer &) = delete;
    WorkingBuffer &operator=(const WorkingBuffer &) = delete;
    void *data() const { return data_; }
    uint32_t size() const { return size_; }

private:
    void *data_;
    uint32_t size_;
};

inline AudioBfInit DefaultInit(uint32_t sample_rate = 16000, float distance_cm = 5.0f) {
    return AudioBfInit{128, sample_rate, distance_cm, 2};
}

// Init, SetConfig (defaults with temperature 20), SetShape(geometry); asserts
// each succeeded. Does not call SetMode.
inline constexpr double kSpeedOfSound = 343.0;  // m/s at those 20 degrees C: 331 + 0.6 * 20
AudioBfHandle MakeConfiguredHandle(WorkingBuffer &buffer, uint32_t geometry = 0,
                                   uint32_t sample_rate = 16000, float distance_cm = 5.0f);

// Captures what is printed to stdout between Start and Stop.
void CaptureStart();
std::string CaptureStop();

// What `body` prints to stdout.
template <typename Body>
std::string Captured(Body &&body) {
    CaptureStart();
    body();
    return CaptureStop();
}

// Output of the interleaved `pcm` run block by block at `direction`; expects
// every block to succeed and calls `after_block(b)` after block b.
template <typename AfterBlock>
std::vector<int16_t> RunStream(AudioBfHandle handle, const std::vector<int16_t> &pcm, float direction,
                               AfterBlock &&after_block) {
    std::vector<int16_t> output(pcm.size() / 2);
    for (size_t at = 0; at + 256 <= pcm.size(); at += 256) {
        EXPECT_EQ(KivBf_Run(handle, &pcm[at], &output[at / 2], &direction), KIVBF_OK) << "block " << at / 256;
        after_block(at / 256);
    }
    return output;
}

inline std::vector<int16_t> RunStream(AudioBfHandle handle, const std::vector<int16_t> &pcm,
                                      float direction = 0.0f) {
    return RunStream(handle, pcm, direction, [](size_t) {});
}

// The handle's current configuration; expects GetConfig to succeed.
AudioBfConfig CurrentConfig(AudioBfHandle handle);

// Writes `contents` to a file of the test's own and points DML_PATH at it.
inline std::string SetLevelFile(const std::string &contents) {
    const std::string path = testing::TempDir() + "kivbf_level_" + std::to_string(getpid()) + ".json";
    std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
    setenv("DML_PATH", path.c_str(), 1);
    return path;
}

inline void SetMessageLevel(int level) {
    SetLevelFile("{\"debug_level\": " + std::to_string(level) + "}");
}

// Start of every error message of the beamformer.
inline const std::string kBfError = "[ALGO_MSG_ERR] [BF] ";

// Bin k of an interleaved complex spectrum (re, im, re, im, ...).
inline std::complex<double> BinOf(const float *spectrum, int k) { return {spectrum[2 * k], spectrum[2 * k + 1]}; }
inline void SetBinOf(float *spectrum, int k, std::complex<double> value) {
    spectrum[2 * k] = static_cast<float>(value.real());
    spectrum[2 * k + 1] = static_cast<float>(value.imag());
}

// FNV-1a 64 continued over the low `bytes` bytes of `bits`, least significant first.
inline constexpr uint64_t kFnv1aStart = 14695981039346656037ull;
inline uint64_t Fnv1a64(uint64_t hash, uint64_t bits, int bytes) {
    for (int b = 0; b < bytes; ++b) hash = (hash ^ ((bits >> (8 * b)) & 0xFFu)) * 1099511628211ull;
    return hash;
}

}  // namespace kivbf_test
