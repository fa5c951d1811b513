// Fuzz target: random sequences of API calls with random (often invalid)
// arguments, environment settings and PCM, on one working buffer. After every
// accepted block the handle's floating-point state must be finite.
#include <fuzzer/FuzzedDataProvider.h>
#include <sanitizer/asan_interface.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "AudioBfProcess.h"
#include "AudioBfProcess_internal.h"
#include "state_scan.h"

namespace {

constexpr size_t kSlack = 64;  // room to offset the buffer from its alignment
constexpr int kMaxOps = 64;
constexpr int kMaxBlocksPerRun = 96;

unsigned char *g_arena = nullptr;  // 64-byte aligned, buffer size + kSlack
size_t g_arena_size = 0;
uint32_t g_buffer_size = 0;
std::string g_dir;  // dump directory and level files

// The 16-byte aligned buffer last passed to Init and whether the state in it
// may hold open dump files.
struct Session {
    unsigned char *base = nullptr;
    AudioBfHandle handle = nullptr;
    bool initialised = false;
    uint32_t phase = 0;  // running sample index of the generated signals
};

// Makes the bytes past a working buffer that starts at `buffer` unaddressable.
void FenceBuffer(const unsigned char *buffer) {
    ASAN_UNPOISON_MEMORY_REGION(g_arena, g_arena_size);
    const unsigned char *end = buffer + g_buffer_size;
    ASAN_POISON_MEMORY_REGION(end, static_cast<size_t>(g_arena + g_arena_size - end));
}

// The library leaves dump files open across Reset and re-Init (their
// pointers go with the zero-fill); a careful integrator closes them first.
void CloseDumps(Session &session) {
    if (session.initialised) Bf_DumpCloseAll(*Bf_StateOf(session.base));
    session.initialised = false;
}

float PickFloat(FuzzedDataProvider &fdp) {
    constexpr float kSpecial[] = {0.0f, -0.0f, 1e-40f, -1e-40f, 1e30f, -1e30f,
                                  std::numeric_limits<float>::infinity(),
                                  -std::numeric_limits<float>::infinity(),
                                  std::numeric_limits<float>::quiet_NaN(), 5.0f, 90.0f, -90.0f};
    if (fdp.ConsumeBool()) return fdp.PickValueInArray(kSpecial);
    return fdp.ConsumeFloatingPointInRange(-400.0f, 400.0f);
}

AudioBfHandle PickHandle(FuzzedDataProvider &fdp, const Session &session) {
    switch (fdp.ConsumeIntegralInRange(0, 7)) {
        case 0: return nullptr;
        case 1: return session.base;  // possibly never initialised, or freed
        default: return session.handle != nullptr ? session.handle : session.base;
    }
}

void SetEnvironment(FuzzedDataProvider &fdp) {
    const std::string long_text(fdp.ConsumeIntegralInRange(100, 9000), '7');
    switch (fdp.ConsumeIntegralInRange(0, 2)) {
        case 0: {
            const char *values[] = {"0", "1", "2", "-1", "", "1x", "99999999999999999999"};
            const int pick = fdp.ConsumeIntegralInRange(0, 8);
            if (pick == 7) unsetenv("AUDIO_BF_DUMP");
            else setenv("AUDIO_BF_DUMP", pick == 8 ? long_text.c_str() : values[pick], 1);
            break;
        }
        case 1: {
            const std::string values[] = {g_dir, g_dir + "/missing", std::string(600, 'd'),
                                          long_text};
            const size_t pick = fdp.ConsumeIntegralInRange<size_t>(0, 4);
            if (pick == 4) unsetenv("AUDIO_DUMP_PATH");
            else setenv("AUDIO_DUMP_PATH", values[pick].c_str(), 1);
            break;
        }
        default: {
            const int pick = fdp.ConsumeIntegralInRange(0, 3);
            if (pick == 0) {
                unsetenv("DML_PATH");
            } else if (pick == 1) {
                setenv("DML_PATH", long_text.c_str(), 1);
            } else if (pick == 2) {
                setenv("DML_PATH", g_dir.c_str(), 1);  // a directory
            } else {
                const std::string path = g_dir + "/level.json";
                const std::string text = fdp.ConsumeRandomLengthString(256);
                if (FILE *file = std::fopen(path.c_str(), "wb")) {
                    std::fwrite(text.data(), 1, text.size(), file);
                    std::fclose(file);
                }
                setenv("DML_PATH", path.c_str(), 1);
            }
        }
    }
}

// One block of interleaved PCM of the chosen kind.
void MakeBlock(FuzzedDataProvider &fdp, int kind, int32_t a, int32_t b, Session &session,
               int16_t *pcm) {
    constexpr int32_t kSamples = 128;
    for (int32_t i = 0; i < kSamples; ++i, ++session.phase) {
        const double t = session.phase;
        int32_t left = 0;
        int32_t right = 0;
        switch (kind) {
            case 0: left = fdp.ConsumeIntegral<int16_t>(); right = fdp.ConsumeIntegral<int16_t>(); break;
            case 1: left = right = ((session.phase / (1 + (a & 63))) & 1) ? 32767 : -32768; break;
            case 2: left = a; right = b; break;                                  // DC
            case 3: break;                                                       // silence
            case 4: {                                                            // tone, skewed
                const double w = 0.001 + (a & 1023) * 0.003;
                left = static_cast<int32_t>(20000.0 * std::sin(w * t));
                right = static_cast<int32_t>(20000.0 * std::sin(w * (t - (b & 7))));
                break;
            }
            case 5: left = static_cast<int32_t>(30000.0 * std::sin(0.05 * t)); break;  // mic 1 dead
            case 6: left = right = (session.phase % (1 + (a & 255))) == 0 ? a : 0; break;
            case 7: left = (session.phase * 7919u) % 3 - 1; right = -left; break;  // LSB noise
            default: left = static_cast<int32_t>(1e6 * std::sin(0.3 * t));         // clipped
                     right = static_cast<int32_t>(1e6 * std::cos(0.2 * t));
        }
        pcm[2 * i] = static_cast<int16_t>(left < -32768 ? -32768 : (left > 32767 ? 32767 : left));
        pcm[2 * i + 1] =
            static_cast<int16_t>(right < -32768 ? -32768 : (right > 32767 ? 32767 : right));
    }
}

void RunBlocks(FuzzedDataProvider &fdp, Session &session) {
    const AudioBfHandle handle = PickHandle(fdp, session);
    const int blocks = fdp.ConsumeIntegralInRange(1, kMaxBlocksPerRun);
    const int kind = fdp.ConsumeIntegralInRange(0, 8);
    const int32_t a = fdp.ConsumeIntegral<int16_t>();
    const int32_t b = fdp.ConsumeIntegral<int16_t>();
    // Exactly sized heap blocks, offset by whole elements from malloc's
    // alignment, so that any access past either end is caught.
    const size_t in_offset = fdp.ConsumeIntegralInRange<size_t>(0, 3);
    const size_t out_offset = fdp.ConsumeIntegralInRange<size_t>(0, 3);
    std::unique_ptr<int16_t[]> input(new int16_t[256 + in_offset]);
    std::unique_ptr<int16_t[]> output(new int16_t[128 + out_offset]);
    std::unique_ptr<float> direction(new float(PickFloat(fdp)));
    const int nulls = fdp.ConsumeIntegralInRange(0, 15);
    for (int n = 0; n < blocks; ++n) {
        MakeBlock(fdp, kind, a, b, session, input.get() + in_offset);
        const uint32_t status =
            KivBf_Run(handle, nulls == 1 ? nullptr : input.get() + in_offset,
                      nulls == 2 ? nullptr : output.get() + out_offset,
                      nulls == 3 ? nullptr : direction.get());
        if (status != KIVBF_OK || handle == nullptr) continue;
        if (const char *field = kivbf_tools::FirstNonFiniteField(*Bf_StateOf(handle))) {
            std::fprintf(stderr, "non-finite state field: %s (mode %d)\n", field,
                         static_cast<int>(Bf_StateOf(handle)->mode));
            std::abort();
        }
    }
}

void InitOrReset(FuzzedDataProvider &fdp, Session &session, bool reset) {
    constexpr size_t kOffsets[] = {0, 0, 0, 16, 32, 1, 2, 4, 8};
    const size_t offset = fdp.PickValueInArray(kOffsets);
    AudioBfInit init{128, 16000, 5.0f, 2};
    if (fdp.ConsumeBool()) {
        constexpr uint32_t kRates[] = {8000, 16000, 32000, 48000, 44100, 0};
        init.sample_rate = fdp.PickValueInArray(kRates);
        init.point_number = fdp.ConsumeBool() ? 128 : fdp.ConsumeIntegral<uint32_t>();
        init.mic_number = fdp.ConsumeBool() ? 2 : fdp.ConsumeIntegral<uint32_t>();
        init.microphone_distance = PickFloat(fdp);
    }
    const bool null_init = fdp.ConsumeIntegralInRange(0, 15) == 0;
    unsigned char *buffer = g_arena + offset;
    if (offset % 16 == 0) {  // a misaligned buffer is refused untouched
        CloseDumps(session);
        session.base = buffer;
        FenceBuffer(buffer);
    }
    AudioBfHandle result;
    if (reset)
        result = KivBf_Reset(buffer, null_init ? nullptr : &init);
    else
        result = KivBf_Init(fdp.ConsumeIntegralInRange(0, 15) == 0 ? nullptr : buffer,
                            null_init ? nullptr : &init);
    if (result != nullptr) {
        session.handle = result;
        session.initialised = true;
    } else if (offset % 16 == 0) {
        session.handle = nullptr;  // the buffer is zeroed or as CloseDumps left it
    }
}

void OneCall(FuzzedDataProvider &fdp, Session &session) {
    enum Op { kInit, kReset, kFree, kSetConfig, kGetConfig, kSetShape, kArbitrary, kGetPosition,
              kSetMode, kIntensity, kLoading, kPfFlow, kCalibration, kRun, kEnv, kMisc, kOpCount };
    const int op = fdp.ConsumeIntegralInRange(0, kOpCount - 1);
    if (op == kInit || op == kReset) return InitOrReset(fdp, session, op == kReset);
    if (op == kRun) return RunBlocks(fdp, session);
    if (op == kEnv) return SetEnvironment(fdp);
    const AudioBfHandle h = PickHandle(fdp, session);
    const bool null_arg = fdp.ConsumeIntegralInRange(0, 7) == 0;
    switch (op) {
        case kFree:
            // Free checks neither flags nor marker: only a buffer that went
            // through Init is a handle to it.
            (void)KivBf_Free(h == session.base && !session.initialised ? nullptr : h);
            break;
        case kSetConfig: {
            AudioBfConfig config{20, -20, 0, 0.7f, 0, 10};
            if (fdp.ConsumeBool()) {
                config.temperature = fdp.ConsumeIntegral<uint32_t>();
                config.noise_threshold_db = fdp.ConsumeIntegral<int32_t>();
                config.Noise_estimation = fdp.ConsumeIntegralInRange<uint32_t>(0, 2);
                config.output_gain = PickFloat(fdp);
                config.vad_enable = fdp.ConsumeIntegralInRange<uint32_t>(0, 2);
                config.diagonal_loading = fdp.ConsumeIntegral<int32_t>();
            } else {
                config.Noise_estimation = fdp.ConsumeIntegralInRange<uint32_t>(0, 1);
                config.vad_enable = fdp.ConsumeIntegralInRange<uint32_t>(0, 1);
                config.output_gain = fdp.ConsumeFloatingPointInRange(0.01f, 1.0f);
            }
            (void)KivBf_SetConfig(h, null_arg ? nullptr : &config);
            break;
        }
        case kGetConfig: {
            std::unique_ptr<AudioBfConfig> config(new AudioBfConfig);
            (void)KivBf_GetConfig(h, null_arg ? nullptr : config.get());
            break;
        }
        case kSetShape: (void)KivBf_SetShape(h, fdp.ConsumeIntegralInRange<uint32_t>(0, 3)); break;
        case kArbitrary: {
            std::unique_ptr<float[]> pos(new float[4]);
            for (int i = 0; i < 4; ++i) pos[i] = PickFloat(fdp);
            (void)KivBf_SetArbitraryShape(h, null_arg ? nullptr : pos.get());
            break;
        }
        case kGetPosition: {
            std::unique_ptr<float[]> pos(new float[6]);
            (void)KivBf_GetArrayPosition(h, null_arg ? nullptr : pos.get());
            break;
        }
        case kSetMode:
            (void)KivBf_SetMode(h, fdp.ConsumeIntegralInRange<uint32_t>(0, 6), PickFloat(fdp));
            break;
        case kIntensity:
            (void)KivBf_SetAdaptiveIntensity(h, fdp.ConsumeIntegralInRange<int32_t>(-2, 6));
            break;
        case kLoading: {
            std::unique_ptr<int32_t[]> band(new int32_t[6]);
            std::unique_ptr<int32_t[]> factor(new int32_t[7]);
            const bool plausible = fdp.ConsumeBool();
            for (int i = 0; i < 6; ++i)
                band[i] = plausible ? 1 + 20 * i + fdp.ConsumeIntegralInRange(0, 19)
                                    : fdp.ConsumeIntegral<int32_t>();
            for (int i = 0; i < 7; ++i)
                factor[i] = plausible ? fdp.ConsumeIntegralInRange(1, 1000)
                                      : fdp.ConsumeIntegral<int32_t>();
            (void)KivBf_DynamicLoading(h, null_arg ? nullptr : band.get(),
                                       fdp.ConsumeBool() ? nullptr : factor.get(),
                                       fdp.ConsumeIntegralInRange<uint32_t>(0, 2));
            break;
        }
        case kPfFlow: (void)KivBf_SetPfFlow(h, fdp.ConsumeIntegralInRange<uint32_t>(0, 3)); break;
        case kCalibration:
            (void)KivBf_SetCalibration(h, fdp.ConsumeIntegralInRange<uint32_t>(0, 2));
            break;
        default: {
            uint16_t major = 0;
            uint16_t minor = 0;
            (void)KivBf_GetAPIVersion(&major, &minor);
            (void)KivBf_GetBufferSize();
            (void)KivBf_SetCallbackFunction(nullptr, h, nullptr, nullptr);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // The library reports on stdout; the fuzzer's own output is on stderr.
    if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
    char pattern[] = "/tmp/kivbf_fuzz_XXXXXX";
    if (mkdtemp(pattern) == nullptr) std::abort();
    g_dir = pattern;
    unsetenv("AUDIO_BF_DUMP");
    unsetenv("DML_PATH");
    setenv("AUDIO_DUMP_PATH", g_dir.c_str(), 1);
    g_buffer_size = KivBf_GetBufferSize();
    g_arena_size = (g_buffer_size + kSlack + 63) & ~size_t{63};
    g_arena = static_cast<unsigned char *>(std::aligned_alloc(64, g_arena_size));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzedDataProvider fdp(data, size);
    // A buffer of one repeated byte never looks like a live handle.
    ASAN_UNPOISON_MEMORY_REGION(g_arena, g_arena_size);
    std::memset(g_arena, fdp.ConsumeIntegral<uint8_t>(), g_arena_size);
    Session session;
    for (int op = 0; op < kMaxOps && fdp.remaining_bytes() > 0; ++op) OneCall(fdp, session);
    CloseDumps(session);
    unsetenv("AUDIO_BF_DUMP");
    unsetenv("DML_PATH");
    setenv("AUDIO_DUMP_PATH", g_dir.c_str(), 1);
    return 0;
}
