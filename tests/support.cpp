#include "support.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace kivbf_test {

// Set before any test runs, so that a level file at the library's default
// path on this machine cannot change what the tests print.
[[maybe_unused]] const bool kDefaultLevel = setenv("DML_PATH", "/nonexistent/kivbf_level.json", 1) == 0;

WorkingBuffer::WorkingBuffer() : size_(KivBf_GetBufferSize()) {
    data_ = std::aligned_alloc(16, (size_ + 15u) & ~15u);
}

WorkingBuffer::~WorkingBuffer() { std::free(data_); }

AudioBfHandle MakeConfiguredHandle(WorkingBuffer &buffer, uint32_t geometry, uint32_t sample_rate,
                                   float distance_cm) {
    AudioBfInit init = DefaultInit(sample_rate, distance_cm);
    AudioBfHandle handle = KivBf_Init(buffer.data(), &init);
    EXPECT_NE(handle, nullptr);
    AudioBfConfig config = CurrentConfig(handle);
    config.temperature = 20;
    EXPECT_EQ(KivBf_SetConfig(handle, &config), KIVBF_OK);
    EXPECT_EQ(KivBf_SetShape(handle, geometry), KIVBF_OK);
    return handle;
}

AudioBfConfig CurrentConfig(AudioBfHandle handle) {
    AudioBfConfig config{};
    EXPECT_EQ(KivBf_GetConfig(handle, &config), KIVBF_OK);
    return config;
}

void CaptureStart() {
    std::fflush(stdout);
    testing::internal::CaptureStdout();
}

std::string CaptureStop() {
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

}  // namespace kivbf_test
