// Soak run: hours of synthetic 16 kHz audio through every mode, cycling
// speech-like bursts with clipping, digital silence, near-silent decay, DC and
// the loss of one microphone. Checks that the state stays finite, that the
// output level of the speech after each pathological stretch matches the
// first speech stretch, and that blocks do not get slower while signals decay
// (subnormal arithmetic).
//
//   kivbf_soak [hours per mode, default 1]
//
// Exits with 1 when a check fails.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include "AudioBfProcess.h"
#include "AudioBfProcess_internal.h"
#include "state_scan.h"

namespace {

constexpr int32_t kRate = 16000;
constexpr int32_t kHop = 128;
constexpr int32_t kBlocksPerSecond = kRate / kHop;  // 125
constexpr int32_t kScanEvery = 16;                   // blocks between state scans
constexpr double kRecoveryToleranceDb = 3.0;
// Decay blocks are all noise blocks and run the adaptive update every time, so
// they may cost somewhat more than speech; subnormal arithmetic costs several times.
constexpr double kSlowdownLimit = 2.0;
constexpr double kPi = 3.14159265358979;

enum class Kind { kSpeech, kClipping, kSilence, kDecay, kDc, kDropout };
const char *const kKindNames[] = {"speech", "clipping", "silence", "decay", "dc", "dropout"};

struct Stretch {
    Kind kind;
    int32_t seconds;
};

// One cycle: every pathological stretch is followed by speech, whose output
// level is compared with the first speech stretch of the run.
constexpr Stretch kCycle[] = {
    {Kind::kSpeech, 20}, {Kind::kClipping, 10}, {Kind::kSpeech, 20}, {Kind::kSilence, 120},
    {Kind::kSpeech, 20}, {Kind::kDecay, 120},   {Kind::kSpeech, 20}, {Kind::kDc, 10},
    {Kind::kSpeech, 20}, {Kind::kDropout, 20},
};
constexpr int32_t kRecoverySeconds = 5;  // the last seconds of a speech stretch are compared

struct Lcg {
    uint32_t state;
    // Uniform in [-1, 1).
    double Next() {
        state = state * 1664525u + 1013904223u;
        return static_cast<double>(state >> 8) / 8388608.0 - 1.0;
    }
};

int16_t Clip(double v) {
    return static_cast<int16_t>(v > 32767.0 ? 32767.0 : (v < -32768.0 ? -32768.0 : v));
}

// Vowel-like bursts from broadside: a pulse train at a gliding pitch through
// two formant resonators, syllable envelope with pauses, plus independent
// low-level noise on each microphone. Returns `seconds` of interleaved PCM
// as doubles (the pathological stretches are derived from it).
std::vector<double> SpeechLike(int32_t seconds) {
    const int32_t n = seconds * kRate;
    std::vector<double> pcm(2 * static_cast<size_t>(n));
    Lcg noise{12345u};
    struct Resonator {
        double a1, a2, y1 = 0.0, y2 = 0.0;
        Resonator(double hz, double bandwidth) {
            const double r = std::exp(-kPi * bandwidth / kRate);
            a1 = 2.0 * r * std::cos(2.0 * kPi * hz / kRate);
            a2 = -r * r;
        }
        double Step(double x) {
            const double y = x + a1 * y1 + a2 * y2;
            y2 = y1;
            y1 = y;
            return y;
        }
    } first(600.0, 90.0), second(1700.0, 120.0);
    double pitch_phase = 0.0;
    for (int32_t i = 0; i < n; ++i) {
        const double t = static_cast<double>(i) / kRate;
        const double pitch = 140.0 + 40.0 * std::sin(2.0 * kPi * 0.3 * t);
        pitch_phase += pitch / kRate;
        double pulse = 0.0;
        if (pitch_phase >= 1.0) {
            pitch_phase -= 1.0;
            pulse = 1.0;
        }
        const double syllable = std::pow(std::sin(kPi * 3.5 * t), 2.0);
        const bool talking = std::fmod(t, 4.0) < 2.8;
        const double voice = talking ? 900.0 * syllable * second.Step(first.Step(pulse)) : 0.0;
        pcm[2 * i] = voice + 150.0 * noise.Next();
        pcm[2 * i + 1] = voice + 150.0 * noise.Next();
    }
    return pcm;
}

std::vector<int16_t> Render(Kind kind, int32_t seconds, const std::vector<double> &speech) {
    const size_t samples = 2 * static_cast<size_t>(seconds) * kRate;
    std::vector<int16_t> pcm(samples, 0);
    Lcg dither{777u};
    for (size_t i = 0; i < samples; ++i) {
        const double v = speech[i % speech.size()];
        switch (kind) {
            case Kind::kSpeech: pcm[i] = Clip(v); break;
            case Kind::kClipping: pcm[i] = Clip(60.0 * v); break;
            case Kind::kSilence: break;
            case Kind::kDecay:  // one quiet tick per channel every 128 samples, above the gate
                pcm[i] = (i / 2) % kHop == 0 ? static_cast<int16_t>(dither.Next() < 0 ? -1 : 1) : 0;
                break;
            case Kind::kDc: pcm[i] = Clip(12000.0 + 0.2 * v); break;
            case Kind::kDropout: pcm[i] = i % 2 == 1 ? 0 : Clip(v); break;
        }
    }
    return pcm;
}

// CPU time of this thread: other load on the machine does not count.
double ThreadCpuNs() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

struct Timing {
    double ns = 0.0;
    int64_t blocks = 0;
    double Mean() const { return blocks > 0 ? ns / static_cast<double>(blocks) : 0.0; }
};

struct ModeResult {
    int64_t blocks = 0;
    const char *non_finite = nullptr;
    int64_t non_finite_block = -1;
    double worst_recovery_db = 0.0;
    const char *worst_recovery_after = "-";
    Timing per_kind[6];
    double worst_slowdown = 0.0;  // late / early mean within a silence or decay stretch
    size_t max_subnormals = 0;
    const char *subnormal_field = "-";
};

AudioBfHandle OpenHandle(void *buffer, uint32_t mode) {
    AudioBfInit init{128, kRate, 5.0f, 2};
    AudioBfHandle h = KivBf_Init(buffer, &init);
    if (h == nullptr) return nullptr;
    AudioBfConfig config{};
    (void)KivBf_GetConfig(h, &config);
    config.temperature = 20;
    config.vad_enable = 1;
    (void)KivBf_SetConfig(h, &config);
    (void)KivBf_SetShape(h, KIVBF_GEOMETRY_LINEAR);
    // Mode 4 is refused by SetMode but runs; it continues from mode 3.
    (void)KivBf_SetMode(h, mode == 4 ? 3 : mode, 0.0f);
    if (mode == 4) (void)KivBf_SetMode(h, 4, 0.0f);
    return h;
}

ModeResult SoakMode(uint32_t mode, double hours, const std::vector<int16_t> (&rendered)[6]) {
    ModeResult result;
    void *buffer = std::aligned_alloc(16, (KivBf_GetBufferSize() + 15u) & ~15u);
    AudioBfHandle h = OpenHandle(buffer, mode);
    const BfCoreState &state = *Bf_StateOf(h);
    const float direction = 0.0f;
    int16_t output[kHop];
    double baseline_rms = -1.0;
    const char *previous_kind = nullptr;
    double elapsed_seconds = 0.0;

    while (elapsed_seconds < hours * 3600.0) {
        for (const Stretch &stretch : kCycle) {
            const int32_t blocks = stretch.seconds * kBlocksPerSecond;
            const int16_t *input = rendered[static_cast<int>(stretch.kind)].data();
            const int32_t tenth = blocks / 10;
            Timing early, late;
            double tail_energy = 0.0;
            int64_t tail_samples = 0;
            for (int32_t b = 0; b < blocks; ++b, ++result.blocks) {
                const double start = ThreadCpuNs();
                (void)KivBf_Run(h, input + 2 * kHop * b, output, &direction);
                const double ns = ThreadCpuNs() - start;
                Timing &kind_timing = result.per_kind[static_cast<int>(stretch.kind)];
                kind_timing.ns += ns;
                ++kind_timing.blocks;
                if (b >= tenth && b < 2 * tenth) { early.ns += ns; ++early.blocks; }
                if (b >= blocks - tenth) { late.ns += ns; ++late.blocks; }
                if (b >= blocks - kRecoverySeconds * kBlocksPerSecond) {
                    for (int16_t v : output) tail_energy += static_cast<double>(v) * v;
                    tail_samples += kHop;
                }
                if (result.non_finite == nullptr && b % kScanEvery == 0) {
                    if (const char *field = kivbf_tools::FirstNonFiniteField(state)) {
                        result.non_finite = field;
                        result.non_finite_block = result.blocks;
                    }
                }
            }
            if (stretch.kind == Kind::kSilence || stretch.kind == Kind::kDecay) {
                if (early.Mean() > 0.0)
                    result.worst_slowdown = std::fmax(result.worst_slowdown, late.Mean() / early.Mean());
                const kivbf_tools::SubnormalCount sub = kivbf_tools::CountSubnormals(state);
                if (sub.total > result.max_subnormals) {
                    result.max_subnormals = sub.total;
                    result.subnormal_field = sub.worst_field;
                }
            }
            if (stretch.kind == Kind::kSpeech) {
                const double rms = std::sqrt(tail_energy / static_cast<double>(tail_samples));
                if (baseline_rms < 0.0) {
                    baseline_rms = rms;
                } else {
                    const double db = 20.0 * std::log10((rms + 1e-9) / (baseline_rms + 1e-9));
                    if (std::fabs(db) > std::fabs(result.worst_recovery_db)) {
                        result.worst_recovery_db = db;
                        result.worst_recovery_after = previous_kind;
                    }
                }
            }
            previous_kind = kKindNames[static_cast<int>(stretch.kind)];
            elapsed_seconds += stretch.seconds;
        }
    }
    (void)KivBf_Free(h);
    std::free(buffer);
    return result;
}

}  // namespace

int main(int argc, char **argv) {
    const double hours = argc > 1 ? std::atof(argv[1]) : 1.0;
    if (!(hours > 0.0)) {
        std::fprintf(stderr, "usage: %s [hours per mode]\n", argv[0]);
        return 2;
    }
    int32_t longest = 0;
    for (const Stretch &s : kCycle) longest = s.seconds > longest ? s.seconds : longest;
    const std::vector<double> speech = SpeechLike(20);
    std::vector<int16_t> rendered[6];
    for (int k = 0; k < 6; ++k) rendered[k] = Render(static_cast<Kind>(k), longest, speech);

    std::printf("mode  audio_h  blocks   non-finite  recovery_dB(after)  ns/block speech  silence  "
                "decay  decay/speech  late/early  max_subnormals\n");
    bool ok = true;
    for (uint32_t mode = 0; mode <= 4; ++mode) {
        const ModeResult r = SoakMode(mode, hours, rendered);
        const double speech_ns = r.per_kind[static_cast<int>(Kind::kSpeech)].Mean();
        const double decay_ns = r.per_kind[static_cast<int>(Kind::kDecay)].Mean();
        const double decay_ratio = decay_ns / speech_ns;
        std::printf("%4u  %7.2f  %7lld  %-10s  %+6.2f (%-8s)  %15.0f  %7.0f  %5.0f  %12.2f  %10.2f  %zu (%s)\n",
                    mode, static_cast<double>(r.blocks) / kBlocksPerSecond / 3600.0,
                    static_cast<long long>(r.blocks), r.non_finite ? r.non_finite : "none",
                    r.worst_recovery_db, r.worst_recovery_after, speech_ns,
                    r.per_kind[static_cast<int>(Kind::kSilence)].Mean(), decay_ns, decay_ratio,
                    r.worst_slowdown, r.max_subnormals, r.subnormal_field);
        std::fflush(stdout);
        ok = ok && r.non_finite == nullptr && std::fabs(r.worst_recovery_db) <= kRecoveryToleranceDb &&
             decay_ratio <= kSlowdownLimit && r.worst_slowdown <= kSlowdownLimit;
    }
    std::printf("soak: %s\n", ok ? "PASS" : "FAIL");
    return ok ? 0 : 1;
}
