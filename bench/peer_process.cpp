// The WebRTC peer over a whole recording, for the quality comparison on the
// room benchmark (peer_quality.py): interleaved two-channel 16-bit PCM on
// standard input, the peer's channel as 32-bit floats on standard output.
// The peer works in 10 ms frames; a last partial frame is padded with
// silence and its output cut to the input's length.
//
// usage: peer_process RATE SPACING_CM LOOK_DEG
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "peer_webrtc.h"

int main(int argc, char **argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: peer_process RATE SPACING_CM LOOK_DEG < pcm > floats\n");
        return 2;
    }
    const int rate = std::atoi(argv[1]);
    const float spacing_m = static_cast<float>(std::atof(argv[2])) / 100.0f;
    const float look_deg = static_cast<float>(std::atof(argv[3]));
    std::vector<int16_t> pcm;
    int16_t buffer[4096];
    size_t got;
    while ((got = std::fread(buffer, sizeof buffer[0], 4096, stdin)) > 0) pcm.insert(pcm.end(), buffer, buffer + got);
    const size_t frames = pcm.size() / 2;

    kivbf_bench::PeerBeamformer peer(rate, spacing_m, look_deg);
    if (!peer.ok()) {
        std::fprintf(stderr, "peer_process: WebRTC's AudioProcessing did not start\n");
        return 1;
    }
    const size_t step = peer.frame_samples();
    pcm.resize(2 * ((frames + step - 1) / step) * step, 0);
    const kivbf_bench::PeerChannels channels(pcm);
    std::vector<float> out(channels.mic0.size());
    for (size_t frame = 0; frame < out.size() / step; ++frame) {
        const int status = peer.ProcessFrame(channels, frame, &out[frame * step]);
        if (status != 0) {
            std::fprintf(stderr, "peer_process: ProcessStream returned %d\n", status);
            return 1;
        }
    }
    std::fwrite(out.data(), sizeof(float), frames, stdout);
    return 0;
}
