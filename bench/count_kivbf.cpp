// Runs a fixed amount of work with counting switched on only around it, so
// that callgrind.sh (x86-64, callgrind) and qemu_count.sh (AArch64,
// insn_count_plugin.c under qemu-user) can divide the instruction count by
// the number of blocks (or calls). Outside either the switches do nothing.
//   count_kivbf run MODE GATE STREAM BLOCKS   GATE level|vad, STREAM mixed|noise|speech
//   count_kivbf fft BLOCKS                    the FFT floor: two forward + one inverse KissFFT per block
//   count_kivbf fft_own BLOCKS                the same three transforms through FFT_Rdft
//   count_kivbf setmode MODE CALLS
//   count_kivbf init CALLS
//   count_kivbf peer FRAMES                   the WebRTC beamformer, 10 ms frames
//   count_kivbf locate BLOCKS                 the direction finder's share of a block
//   count_kivbf buffer                        prints the working buffer's size in bytes
//   count_kivbf enhanced STREAM BLOCKS        the enhanced mode (kivbf_ext.h)
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "AudioBfProcess_internal.h"
#include "Beamformer_core.h"
#include "kiss_floor.h"
#include "kivbf_ext.h"
#include "peer_webrtc.h"
#include "scene.h"

using namespace kivbf_bench;

// Switches counting on or off: callgrind's client request, and a call the
// QEMU plugin recognises by this name. Kept out of line and free of
// branches for the plugin's sake.
extern "C" __attribute__((noinline)) void kivbf_count_toggle() {
    CALLGRIND_TOGGLE_COLLECT;
    asm volatile("" ::: "memory");
}

namespace {

int Usage() {
    std::fprintf(stderr,
                 "usage: count_kivbf run MODE level|vad mixed|noise|speech BLOCKS\n"
                 "       count_kivbf fft BLOCKS | fft_own BLOCKS | setmode MODE CALLS | init CALLS | peer FRAMES\n"
                 "       count_kivbf locate BLOCKS | buffer\n"
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
    kivbf_count_toggle();
    for (int b = 0; b < blocks; ++b) instance.Run(&scene[2 * kHop * (b % kStreamBlocks)], out.data());
    kivbf_count_toggle();
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
    kivbf_count_toggle();
    for (int b = 0; b < blocks; ++b) instance.Run(&scene[2 * kHop * (b % kStreamBlocks)], out.data());
    kivbf_count_toggle();
    return 0;
}

int CountFftFloor(int blocks) {
    Instance instance(1, 0);
    KissFloor floor(*Bf_StateOf(instance.handle()));
    kivbf_count_toggle();
    for (int i = 0; i < blocks; ++i) floor.Block();
    kivbf_count_toggle();
    return 0;
}

int CountFftOwn(int blocks) {
    Instance instance(1, 0);
    BfCoreState &s = *Bf_StateOf(instance.handle());
    alignas(16) float a[kivbf::kSpectrumFloats] = {}, b[kivbf::kSpectrumFloats] = {},
                      c[kivbf::kSpectrumFloats];
    const size_t window_bytes = sizeof(float) * kivbf::kFftSize;
    for (int i = 0; i < blocks; ++i) {
        std::memcpy(a, s.input_window[0], window_bytes);
        std::memcpy(b, s.input_window[1], window_bytes);
        std::memcpy(c, s.beam_output, sizeof c);
        kivbf_count_toggle();
        FFT_Rdft(&s.fft_record, kivbf::kFftSize, FFT_FORWARD, a, s.fft_work_ip, s.fft_work_w);
        FFT_Rdft(&s.fft_record, kivbf::kFftSize, FFT_FORWARD, b, s.fft_work_ip, s.fft_work_w);
        FFT_Rdft(&s.fft_record, kivbf::kFftSize, FFT_INVERSE, c, s.fft_work_ip, s.fft_work_w);
        kivbf_count_toggle();
    }
    return 0;
}

int CountSetMode(uint32_t mode, int calls) {
    Instance instance(mode, 0);
    kivbf_count_toggle();
    for (int i = 0; i < calls; ++i) KivBf_SetMode(instance.handle(), mode, kLookAngle);
    kivbf_count_toggle();
    return 0;
}

int CountInit(int calls) {
    const uint32_t size = KivBf_GetBufferSize();
    void *buffer = std::aligned_alloc(16, (size + 15) / 16 * 16);
    const AudioBfInit init{128, kSampleRate, kDistanceCm, 2};
    kivbf_count_toggle();
    for (int i = 0; i < calls; ++i) KivBf_Free(KivBf_Init(buffer, &init));
    kivbf_count_toggle();
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
    kivbf_count_toggle();
    for (int f = 0; f < frames; ++f)
        status |= peer.ProcessFrame(scene, 100 + static_cast<size_t>(f), out.data());
    kivbf_count_toggle();
    return status == 0 ? 0 : 1;
}

// The finder alone, on the spectra each block of the speech-burst stream
// leaves in the handle (mode 1 runs the rest, with the finder off).
int CountLocate(int blocks) {
    Instance instance(1, 0);
    BfCoreState &s = *Bf_StateOf(instance.handle());
    const std::vector<int16_t> scene = MakeScene(Talker::kBursts, kStreamBlocks);
    std::vector<int16_t> out(kHop);
    for (int b = 0; b < blocks; ++b) {
        instance.Run(&scene[2 * kHop * (b % kStreamBlocks)], out.data());
        kivbf_count_toggle();
        Bf_Locate(s);
        kivbf_count_toggle();
    }
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) return Usage();
    const std::string what = argv[1];
    if (what == "run" && argc == 6)
        return CountRun(static_cast<uint32_t>(std::atoi(argv[2])), argv[3], argv[4], std::atoi(argv[5]));
    if (what == "fft" && argc == 3) return CountFftFloor(std::atoi(argv[2]));
    if (what == "fft_own" && argc == 3) return CountFftOwn(std::atoi(argv[2]));
    if (what == "setmode" && argc == 4)
        return CountSetMode(static_cast<uint32_t>(std::atoi(argv[2])), std::atoi(argv[3]));
    if (what == "init" && argc == 3) return CountInit(std::atoi(argv[2]));
    if (what == "peer" && argc == 3) return CountPeer(std::atoi(argv[2]));
    if (what == "locate" && argc == 3) return CountLocate(std::atoi(argv[2]));
    if (what == "buffer" && argc == 2) return std::printf("%u\n", KivBf_GetBufferSize()) > 0 ? 0 : 1;
    if (what == "enhanced" && argc == 4) return CountEnhanced(argv[2], std::atoi(argv[3]));
    return Usage();
}
