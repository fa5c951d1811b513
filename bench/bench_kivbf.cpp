// Cost of the beamformer: whole blocks per mode, the stages one by one, the
// FFT floor they are measured against (KissFFT) and the library's own FFT, the set-up calls, and the WebRTC
// nonlinear beamformer as a peer, all in one run. After Google Benchmark's
// own table a summary prints the medians (CPU time) as ratios:
// block / FFT floor and peer / ours per second of audio.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <unistd.h>

#include "AudioBfProcess_internal.h"
#include "AudioVadProcess.h"
#include "Beamformer_core.h"
#include "kiss_floor.h"
#include "peer_webrtc.h"
#include "scene.h"
#include "vector_kernels.h"

using namespace kivbf_bench;

namespace {

constexpr double kBlocksPerSecond = static_cast<double>(kSampleRate) / kHop;  // 125
constexpr double kPeerFramesPerSecond = 100.0;                                // 10 ms frames

const char *const kStreamNames[] = {"mixed", "noise", "speech"};
const Talker kStreamTalkers[] = {Talker::kBursts, Talker::kNever, Talker::kAlways};

const std::vector<int16_t> &Stream(int index) {
    static const std::vector<int16_t> streams[3] = {
        MakeScene(kStreamTalkers[0], kStreamBlocks), MakeScene(kStreamTalkers[1], kStreamBlocks),
        MakeScene(kStreamTalkers[2], kStreamBlocks)};
    return streams[index];
}

// Whether the adaptive stages took the block as noise (the rule of KivBf_Run).
bool WasNoiseBlock(AudioBfHandle handle) {
    const BfCoreState &s = *Bf_StateOf(handle);
    if (s.vad_enable == 1) return s.vad_decision == 0;
    return s.input_rms * 32768.0f < static_cast<float>(s.noise_threshold_q15);
}

// --- Whole blocks ---------------------------------------------------------------------

void BM_Block(benchmark::State &state, uint32_t mode, uint32_t vad_enable, int stream) {
    Instance instance(mode, vad_enable);
    const std::vector<int16_t> &scene = Stream(stream);
    std::vector<int16_t> out(kHop);
    int block = 0;
    int64_t noise_blocks = 0, blocks = 0;
    for (auto _ : state) {
        instance.Run(&scene[2 * kHop * block], out.data());
        benchmark::DoNotOptimize(out.data());
        noise_blocks += WasNoiseBlock(instance.handle()) ? 1 : 0;
        ++blocks;
        if (++block == kStreamBlocks) block = 0;
    }
    state.counters["noise_share"] = static_cast<double>(noise_blocks) / std::max<int64_t>(blocks, 1);
}

// --- Stages ---------------------------------------------------------------------------

// A stage runs on the state a real block left behind, in the mode that uses it.
void BM_Stage(benchmark::State &state, uint32_t mode, void (*stage)(BfCoreState &)) {
    Instance instance(mode, 0);
    BfCoreState &s = *Bf_StateOf(instance.handle());
    for (auto _ : state) {
        stage(s);
        benchmark::ClobberMemory();
    }
}

void StageAnalysis(BfCoreState &s) { Bf_Analysis(s); }
void StageSteering(BfCoreState &s) {
    Bf_Calibrate(s);
    Bf_TargetSteering(s);
}
void StageNoiseEstimate(BfCoreState &s) { Bf_NoiseEstimate(s); }
void StageCovarianceWeights(BfCoreState &s) {
    Bf_NoiseCovarianceUpdate(s);
    Bf_AdaptiveWeights(s);
}
void StageDirection(BfCoreState &s) {
    Bf_SpectraAverage(s);
    Bf_CoherenceDetect(s);
    Bf_DirectionScore(s);
    Bf_DirectionWeight(s);
}
void StageBandWeighting(BfCoreState &s) { Bf_BandWeighting(s); }
void StageBeamSum(BfCoreState &s) { Bf_BeamSum(s); }
void StageCanceller(BfCoreState &s) { Bf_Canceller(s); }
void StagePostFilter(BfCoreState &s) {
    vec_fill(s.pf_gain, 1.0f, kivbf::kBins);
    Bf_PostFilterGain(s);
    Bf_PostFilterApply(s);
}
void StageSynthesis(BfCoreState &s) { Bf_Synthesis(s, s.beam_output, s.synth_frame); }
void StageOutput(BfCoreState &s) {
    int16_t out[kHop];
    Bf_OutputStage(s, out);
    benchmark::DoNotOptimize(out);
}
void StageInputLevel(BfCoreState &s) { Bf_InputLevel(s); }
void StageVad(BfCoreState &s) {
    benchmark::DoNotOptimize(KivVad_Run(s.vad_instance, s.staging_block[0]));
}

// --- FFT floor and the library's FFT ---------------------------------------------------

// Two forward and one inverse transform, as one block needs them: the floor
// with KissFFT called directly (kiss_floor.h), and the library's own FFT
// through FFT_Rdft. The own FFT works in place, so its forward inputs are
// restored from the analysis windows each time (two 1 KiB copies) and its
// inverse input from the beam spectrum (1 KiB), which keeps the figures finite.
void BM_FftFloor(benchmark::State &state) {
    Instance instance(1, 0);
    KissFloor floor(*Bf_StateOf(instance.handle()));
    for (auto _ : state) {
        floor.Block();
        benchmark::ClobberMemory();
    }
}

void BM_FftOwn(benchmark::State &state) {
    Instance instance(1, 0);
    BfCoreState &s = *Bf_StateOf(instance.handle());
    alignas(16) float a[kivbf::kSpectrumFloats] = {};
    alignas(16) float b[kivbf::kSpectrumFloats] = {};
    alignas(16) float c[kivbf::kSpectrumFloats];
    std::memcpy(c, s.beam_output, sizeof c);
    const size_t window_bytes = sizeof(float) * kivbf::kFftSize;
    for (auto _ : state) {
        std::memcpy(a, s.input_window[0], window_bytes);
        std::memcpy(b, s.input_window[1], window_bytes);
        FFT_Rdft(&s.fft_record, kivbf::kFftSize, FFT_FORWARD, a, s.fft_work_ip, s.fft_work_w);
        FFT_Rdft(&s.fft_record, kivbf::kFftSize, FFT_FORWARD, b, s.fft_work_ip, s.fft_work_w);
        FFT_Rdft(&s.fft_record, kivbf::kFftSize, FFT_INVERSE, c, s.fft_work_ip, s.fft_work_w);
        std::memcpy(c, s.beam_output, sizeof c);
        benchmark::ClobberMemory();
    }
}

// --- Set-up calls ---------------------------------------------------------------------

void BM_SetMode(benchmark::State &state, uint32_t mode) {
    Instance instance(mode, 0);
    for (auto _ : state) benchmark::DoNotOptimize(KivBf_SetMode(instance.handle(), mode, kLookAngle));
}

void BM_Init(benchmark::State &state) {
    const uint32_t size = KivBf_GetBufferSize();
    void *buffer = std::aligned_alloc(16, (size + 15) / 16 * 16);
    const AudioBfInit init{128, kSampleRate, kDistanceCm, 2};
    for (auto _ : state) {
        AudioBfHandle handle = KivBf_Init(buffer, &init);
        benchmark::DoNotOptimize(handle);
        KivBf_Free(handle);
    }
    state.counters["buffer_bytes"] = size;
    std::free(buffer);
}

// --- Peer -----------------------------------------------------------------------------

void BM_Peer(benchmark::State &state, int stream) {
    PeerBeamformer peer(static_cast<int>(kSampleRate), kDistanceCm / 100.0f);
    if (!peer.ok()) {
        state.SkipWithError("AudioProcessing::Create failed");
        return;
    }
    const PeerChannels scene(Stream(stream));
    std::vector<float> out(peer.frame_samples());
    for (size_t f = 0; f < 100; ++f) peer.ProcessFrame(scene, f, out.data());
    size_t frame = 0;
    for (auto _ : state) {
        if (peer.ProcessFrame(scene, frame++, out.data()) != 0) {
            state.SkipWithError("ProcessStream failed");
            break;
        }
        benchmark::DoNotOptimize(out.data());
    }
}

// --- Summary --------------------------------------------------------------------------

// Keeps each benchmark's median CPU time: the "median" aggregate when
// repetitions produce one, else the median of the runs it saw.
class CollectingReporter : public benchmark::ConsoleReporter {
public:
    explicit CollectingReporter(OutputOptions options) : ConsoleReporter(options) {}
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs) {
            if (run.error_occurred) continue;
            const std::string name = run.run_name.str();
            if (run.run_type == Run::RT_Iteration)
                times_[name].push_back(run.GetAdjustedCPUTime());
            else if (run.aggregate_name == "median")
                medians_[name] = run.GetAdjustedCPUTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }
    double Median(const std::string &name) const {
        const auto median = medians_.find(name);
        if (median != medians_.end()) return median->second;
        const auto it = times_.find(name);
        if (it == times_.end() || it->second.empty()) return 0.0;
        std::vector<double> t = it->second;
        std::sort(t.begin(), t.end());
        const size_t m = t.size() / 2;
        return t.size() % 2 ? t[m] : 0.5 * (t[m - 1] + t[m]);
    }
    std::vector<std::string> names() const {
        std::vector<std::string> all;
        for (const auto &entry : times_) all.push_back(entry.first);
        for (const auto &entry : medians_)
            if (times_.count(entry.first) == 0) all.push_back(entry.first);
        std::sort(all.begin(), all.end());
        return all;
    }

private:
    std::map<std::string, std::vector<double>> times_;
    std::map<std::string, double> medians_;
};

// The peer's CPU time per second of audio on the stream of block case `name`
// (run/MODE/GATE/STREAM).
double PeerPerSecond(const CollectingReporter &reporter, const std::string &name) {
    return reporter.Median("peer/" + name.substr(name.rfind('/') + 1)) * kPeerFramesPerSecond;
}

// The worst case of each target over the blocks measured in this run, in
// wall clock (the binding figures are instructions: scripts/bench-targets.sh).
// The peer is compared on the same stream as each block.
void PrintTargets(const CollectingReporter &reporter, double floor, uint32_t bytes) {
    double mode1 = 0.0, mode3_noise = 0.0, peer_mode1 = 0.0, peer_any = 0.0;
    bool any_block = false, any_mode1 = false;
    for (const std::string &name : reporter.names()) {
        if (name.rfind("run/", 0) != 0 || name.rfind("run/mode4/", 0) == 0) continue;
        const double t = reporter.Median(name);
        const double peer = PeerPerSecond(reporter, name);
        if (t <= 0.0 || floor <= 0.0 || peer <= 0.0) continue;
        const double ratio = peer / (t * kBlocksPerSecond);
        peer_any = any_block ? std::min(peer_any, ratio) : ratio;
        any_block = true;
        if (name.rfind("run/mode1/", 0) == 0) {
            mode1 = std::max(mode1, t / floor);
            peer_mode1 = any_mode1 ? std::min(peer_mode1, ratio) : ratio;
            any_mode1 = true;
        }
        if (name.rfind("run/mode3/", 0) == 0 && name.find("/noise") != std::string::npos)
            mode3_noise = std::max(mode3_noise, t / floor);
    }
    const auto row = [](const char *target, double value, bool met) {
        std::printf("  %-44s %8.2f  %s\n", target, value, met ? "met" : "NOT met");
    };
    std::printf("\nTargets in wall clock (worst case of this run)\n");
    if (mode1 > 0.0) row("mode 1 <= 0.55 x floor", mode1, mode1 <= 0.55);
    if (mode3_noise > 0.0) row("mode 3 noise blocks <= 1.5 x floor", mode3_noise, mode3_noise <= 1.5);
    if (any_mode1) row("peer / ours per second >= 5, mode 1", peer_mode1, peer_mode1 >= 5.0);
    if (any_block) row("peer / ours per second >= 2, modes 0-3", peer_any, peer_any >= 2.0);
    row("working buffer <= 64 KiB (KiB)", bytes / 1024.0, bytes <= 65536);
}

void PrintSummary(const CollectingReporter &reporter) {
    const double floor = reporter.Median("fft_floor");
    std::printf("\nSummary: median CPU time; floor = fft_floor = %.0f ns; peer on the same stream\n", floor);
    std::printf("%-34s %12s %10s %14s %12s\n", "benchmark", "ns", "x floor", "us per s audio",
                "peer / ours");
    for (const std::string &name : reporter.names()) {
        const double t = reporter.Median(name);
        const bool block = name.rfind("run/", 0) == 0;
        std::printf("%-34s %12.0f %10.2f", name.c_str(), t, floor > 0 ? t / floor : 0.0);
        if (block) {
            const double per_second = t * kBlocksPerSecond;
            const double peer = PeerPerSecond(reporter, name);
            std::printf(" %14.1f %12.2f", per_second / 1000.0, per_second > 0 ? peer / per_second : 0.0);
        } else if (name.rfind("peer/", 0) == 0) {
            std::printf(" %14.1f %12s", t * kPeerFramesPerSecond / 1000.0, "1.00");
        }
        std::printf("\n");
    }
    const uint32_t bytes = KivBf_GetBufferSize();
    std::printf("working buffer: %u bytes\n", bytes);
    PrintTargets(reporter, floor, bytes);
}

void RegisterAll() {
    const auto ns = benchmark::kNanosecond;
    const char *const gates[] = {"level", "vad"};
    for (uint32_t mode = 0; mode <= 4; ++mode)
        for (uint32_t vad = 0; vad <= 1; ++vad)
            for (int stream = 0; stream < 3; ++stream) {
                const std::string name = "run/mode" + std::to_string(mode) + "/" + gates[vad] +
                                         "/" + kStreamNames[stream];
                benchmark::RegisterBenchmark(name.c_str(), BM_Block, mode, vad, stream)->Unit(ns);
            }

    struct StageCase {
        const char *name;
        uint32_t mode;
        void (*stage)(BfCoreState &);
    };
    const StageCase stages[] = {
        {"stage/input_level", 3, StageInputLevel},
        {"stage/vad", 3, StageVad},
        {"stage/analysis", 3, StageAnalysis},
        {"stage/steering", 3, StageSteering},
        {"stage/noise_estimate", 3, StageNoiseEstimate},
        {"stage/covariance_weights", 0, StageCovarianceWeights},
        {"stage/coherence_direction", 3, StageDirection},
        {"stage/band_weighting", 3, StageBandWeighting},
        {"stage/beam_sum", 3, StageBeamSum},
        {"stage/canceller", 2, StageCanceller},
        {"stage/post_filter", 3, StagePostFilter},
        {"stage/synthesis", 3, StageSynthesis},
        {"stage/output", 3, StageOutput},
    };
    for (const StageCase &c : stages)
        benchmark::RegisterBenchmark(c.name, BM_Stage, c.mode, c.stage)->Unit(ns);

    benchmark::RegisterBenchmark("fft_floor", BM_FftFloor)->Unit(ns);
    benchmark::RegisterBenchmark("fft_own", BM_FftOwn)->Unit(ns);
    benchmark::RegisterBenchmark("setmode/mode1", BM_SetMode, 1u)->Unit(ns);
    benchmark::RegisterBenchmark("setmode/mode3", BM_SetMode, 3u)->Unit(ns);
    benchmark::RegisterBenchmark("init", BM_Init)->Unit(ns);
    for (int stream = 0; stream < 3; ++stream) {
        const std::string name = std::string("peer/") + kStreamNames[stream];
        benchmark::RegisterBenchmark(name.c_str(), BM_Peer, stream)->Unit(ns);
    }
}

}  // namespace

int main(int argc, char **argv) {
    RegisterAll();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    CollectingReporter reporter(isatty(STDOUT_FILENO) ? benchmark::ConsoleReporter::OO_ColorTabular
                                                      : benchmark::ConsoleReporter::OO_Tabular);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    PrintSummary(reporter);
    benchmark::Shutdown();
    return 0;
}
