// The peer: the nonlinear beamformer of libwebrtc-audio-processing 0.3,
// reached through AudioProcessing with only beamforming enabled. Kept behind
// this interface so that the WebRTC headers stay out of the benchmark.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kivbf_bench {

// An interleaved two-channel 16-bit scene as the peer takes it: one float
// array per microphone, in [-1, 1].
struct PeerChannels {
    explicit PeerChannels(const std::vector<int16_t> &interleaved);
    std::vector<float> mic0, mic1;
};

class PeerBeamformer {
public:
    // Two microphones on a line, `spacing_m` apart, looking at broadside.
    PeerBeamformer(int sample_rate, float spacing_m);
    // The same, looking `look_deg` degrees from broadside towards microphone 0
    // (the library's convention).
    PeerBeamformer(int sample_rate, float spacing_m, float look_deg);
    ~PeerBeamformer();
    PeerBeamformer(const PeerBeamformer &) = delete;
    PeerBeamformer &operator=(const PeerBeamformer &) = delete;

    bool ok() const { return processor_ != nullptr; }
    size_t frame_samples() const { return frame_samples_; }  // 10 ms per channel
    // One 10 ms frame: two channel arrays in [-1, 1] in, one channel out.
    // Returns WebRTC's status (0 is success).
    int Process(const float *mic0, const float *mic1, float *out);
    // Frame `index` of the scene, which repeats once its whole frames are used.
    int ProcessFrame(const PeerChannels &scene, size_t index, float *out);

private:
    void *processor_;
    int sample_rate_;
    size_t frame_samples_;
};

}  // namespace kivbf_bench
