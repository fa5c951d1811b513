// The peer: the nonlinear beamformer of libwebrtc-audio-processing 0.3,
// reached through AudioProcessing with only beamforming enabled. Kept behind
// this interface so that the WebRTC headers stay out of the benchmark.
#pragma once

#include <cstddef>

namespace kivbf_bench {

class PeerBeamformer {
public:
    // Two microphones on a line, `spacing_m` apart, looking at broadside.
    PeerBeamformer(int sample_rate, float spacing_m);
    ~PeerBeamformer();
    PeerBeamformer(const PeerBeamformer &) = delete;
    PeerBeamformer &operator=(const PeerBeamformer &) = delete;

    bool ok() const { return processor_ != nullptr; }
    size_t frame_samples() const { return frame_samples_; }  // 10 ms per channel
    // One 10 ms frame: two channel arrays in [-1, 1] in, one channel out.
    // Returns WebRTC's status (0 is success).
    int Process(const float *mic0, const float *mic1, float *out);

private:
    void *processor_;
    int sample_rate_;
    size_t frame_samples_;
};

}  // namespace kivbf_bench
