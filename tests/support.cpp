#include "support.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace kivbf_test {

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

std::vector<int16_t> RunStream(AudioBfHandle handle, const std::vector<int16_t> &pcm, float direction) {
    std::vector<int16_t> output(pcm.size() / 2);
    for (size_t at = 0; at + 256 <= pcm.size(); at += 256)
        EXPECT_EQ(KivBf_Run(handle, &pcm[at], &output[at / 2], &direction), KIVBF_OK) << "block " << at / 256;
    return output;
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
