// Runs a fixed amount of work with callgrind's collection switched on only
// around it, so that callgrind.sh can divide the instruction count by the
// number of blocks (or calls). Outside valgrind the switches do nothing.
//   count_kivbf run MODE GATE STREAM BLOCKS   GATE level|vad, STREAM mixed|noise|speech
//   count_kivbf fft BLOCKS                    two forward + one inverse FFT per block
//   count_kivbf setmode MODE CALLS
//   count_kivbf init CALLS
//   count_kivbf peer FRAMES                   the WebRTC beamformer, 10 ms frames
//   count_kivbf enhanced STREAM BLOCKS        the enhanced mode (kivbf_ext.h)
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "AudioBfProcess_internal.h"
#include "Beamformer_core.h"
#include "kivbf_ext.h"
#include "peer_webrtc.h"
#include "scene.h"

using namespace kivbf_bench;

namespace {

int Usage() {
    std::fprintf(stderr,
                 "usage: count_kivbf run MODE level|vad mixed|noise|speech BLOCKS\n"
                 "       count_kivbf fft BLOCKS | setmode MODE CALLS | init CALLS | peer FRAMES\n"
                 "       count_kivbf enhanced mixed|noise|speech BLOCKS\n");
    return 2;
}

int CountRun(uint32_t mode, const std::string &gate, const std::string &stream, int blocks) {
    Talker talker = Talker::kBursts;
    if (stream == "noise") talker = Talker::kNever;
    else if (stream == "speech") talker = Talker::kAlways;
    else if (stream != "mixed") return Usage();
    if (gate != "level" && gate != "vad") return Usage();
    Instance instance(mode, gate == "vad" ? 1 : 0);
    const std::vector<int16_t> scene = MakeScene(talker, kStreamBlocks);
    std::vector<int16_t> out(kHop);
    CALLGRIND_TOGGLE_COLLECT;
    for (int b = 0; b < blocks; ++b) instance.Run(&scene[2 * kHop * (b % kStreamBlocks)], out.data());
    CALLGRIND_TOGGLE_COLLECT;
    return 0;
}

int CountEnhanced(const std::string &stream, int blocks) {
    Talker talker = Talker::kBursts;
    if (stream == "noise") talker = Talker::kNever;
    else if (stream == "speech") talker = Talker::kAlways;
    else if (stream != "mixed") return Usage();
    Instance instance(1, 1);
    if (KivBfExt_SetEnhancedMode(instance.handle(), 1) != KIVBF_OK) return 1;
    const std::vector<int16_t> scene = MakeScene(talker, kStreamBlocks);
    std::vector<int16_t> out(kHop);
    for (int b = 0; b < kWarmUpBlocks; ++b) instance.Run(&scene[2 * kHop * (b % kStreamBlocks)], out.data());
    CALLGRIND_TOGGLE_COLLECT;
    for (int b = 0; b < blocks; ++b) instance.Run(&scene[2 * kHop * (b % kStreamBlocks)], out.data());
    CALLGRIND_TOGGLE_COLLECT;
    return 0;
}

int CountFft(int blocks) {
    Instance instance(1, 0);
    BfCoreState &s = *Bf_StateOf(instance.handle());
    alignas(16) float a[kivbf::kSpectrumFloats] = {}, b[kivbf::kSpectrumFloats] = {},
                      c[kivbf::kSpectrumFloats];
    const size_t window_bytes = sizeof(float) * kivbf::kFftSize;
    for (int i = 0; i < blocks; ++i) {
        std::memcpy(a, s.input_window[0], window_bytes);
        std::memcpy(b, s.input_window[1], window_bytes);
        std::memcpy(c, s.beam_output, sizeof c);
        CALLGRIND_TOGGLE_COLLECT;
        FFT_Rdft(&s.fft_record, kivbf::kFftSize, FFT_FORWARD, a, s.fft_work_ip, s.fft_work_w);
        FFT_Rdft(&s.fft_record, kivbf::kFftSize, FFT_FORWARD, b, s.fft_work_ip, s.fft_work_w);
        FFT_Rdft(&s.fft_record, kivbf::kFftSize, FFT_INVERSE, c, s.fft_work_ip, s.fft_work_w);
        CALLGRIND_TOGGLE_COLLECT;
    }
    return 0;
}

int CountSetMode(uint32_t mode, int calls) {
    Instance instance(mode, 0);
    CALLGRIND_TOGGLE_COLLECT;
    for (int i = 0; i < calls; ++i) KivBf_SetMode(instance.handle(), mode, kLookAngle);
    CALLGRIND_TOGGLE_COLLECT;
    return 0;
}

int CountInit(int calls) {
    const uint32_t size = KivBf_GetBufferSize();
    void *buffer = std::aligned_alloc(16, (size + 15) / 16 * 16);
    const AudioBfInit init{128, kSampleRate, kDistanceCm, 2};
    CALLGRIND_TOGGLE_COLLECT;
    for (int i = 0; i < calls; ++i) KivBf_Free(KivBf_Init(buffer, &init));
    CALLGRIND_TOGGLE_COLLECT;
    std::free(buffer);
    return 0;
}

int CountPeer(int frames) {
    PeerBeamformer peer(static_cast<int>(kSampleRate), kDistanceCm / 100.0f);
    if (!peer.ok()) return 1;
    const PeerChannels scene(MakeScene(Talker::kBursts, kStreamBlocks));
    std::vector<float> out(peer.frame_samples());
    for (size_t f = 0; f < 100; ++f) peer.ProcessFrame(scene, f, out.data());
    int status = 0;
    CALLGRIND_TOGGLE_COLLECT;
    for (int f = 0; f < frames; ++f)
        status |= peer.ProcessFrame(scene, 100 + static_cast<size_t>(f), out.data());
    CALLGRIND_TOGGLE_COLLECT;
    return status == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) return Usage();
    const std::string what = argv[1];
    if (what == "run" && argc == 6)
        return CountRun(static_cast<uint32_t>(std::atoi(argv[2])), argv[3], argv[4], std::atoi(argv[5]));
    if (what == "fft" && argc == 3) return CountFft(std::atoi(argv[2]));
    if (what == "setmode" && argc == 4)
        return CountSetMode(static_cast<uint32_t>(std::atoi(argv[2])), std::atoi(argv[3]));
    if (what == "init" && argc == 3) return CountInit(std::atoi(argv[2]));
    if (what == "peer" && argc == 3) return CountPeer(std::atoi(argv[2]));
    if (what == "enhanced" && argc == 4) return CountEnhanced(argv[2], std::atoi(argv[3]));
    return Usage();
}
