// Helpers shared by the tests: a working buffer with the alignment malloc
// gives, a handle configured the usual way, stdout capture and the
// message-level file.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

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
// every block to succeed.
std::vector<int16_t> RunStream(AudioBfHandle handle, const std::vector<int16_t> &pcm, float direction = 0.0f);

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

}  // namespace kivbf_test
