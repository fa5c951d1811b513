// kivbf info: the library's version, the working buffer's layout and the
// configuration a fresh handle starts from.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "AudioBfProcess.h"
#include "AudioBfProcess_internal.h"
#include "debug_msglevel.h"
#include "commands.h"

namespace {

// The library prints its own diagnostics to stdout; the report keeps them out
// unless asked for.
class QuietStdout {
public:
    explicit QuietStdout(bool quiet) {
        if (!quiet) return;
        std::fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        const int null_fd = open("/dev/null", O_WRONLY);
        if (saved_ < 0 || null_fd < 0 || dup2(null_fd, STDOUT_FILENO) < 0) Restore();
        if (null_fd >= 0) close(null_fd);
    }
    ~QuietStdout() { Restore(); }
    QuietStdout(const QuietStdout &) = delete;
    QuietStdout &operator=(const QuietStdout &) = delete;

private:
    void Restore() {
        if (saved_ < 0) return;
        std::fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
        saved_ = -1;
    }
    int saved_ = -1;
};

struct Facts {
    uint16_t major = 0, minor = 0;
    uint32_t buffer_size = 0;
    size_t vad_offset = 0, fft_offset = 0;
    AudioBfConfig config{};
    bool initialised = false;
};

Facts Gather() {
    Facts f;
    KivBf_GetAPIVersion(&f.major, &f.minor);
    f.buffer_size = KivBf_GetBufferSize();
    void *buffer = std::aligned_alloc(16, (f.buffer_size + 15u) & ~15u);
    if (buffer == nullptr) return f;
    AudioBfInit init = {KIVBF_POINT_NUMBER, 16000, 5.0f, 2};
    AudioBfHandle handle = KivBf_Init(buffer, &init);
    if (handle != nullptr && KivBf_GetConfig(handle, &f.config) == KIVBF_OK) {
        // Read the region addresses back from the handle rather than
        // recomputing the layout here.
        const BfCoreState &s = *Bf_StateOf(handle);
        const auto *base = static_cast<const unsigned char *>(buffer);
        f.vad_offset = static_cast<size_t>(static_cast<const unsigned char *>(s.vad_instance) - base);
        f.fft_offset = static_cast<size_t>(
            static_cast<const unsigned char *>(s.fft_record.fft_Ne10_cfg) - base);
        f.initialised = true;
    }
    if (handle != nullptr) KivBf_Free(handle);
    std::free(buffer);
    return f;
}

void PrintRegion(const char *name, size_t offset, size_t size) {
    std::printf("  %-12s offset %6zu  size %6zu bytes\n", name, offset, size);
}

}  // namespace

int Command_Info(int argc, char **argv) {
    bool show_messages = false;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--messages") == 0) {
            show_messages = true;
        } else {
            std::fprintf(stderr,
                         "usage: kivbf info [--messages]\n"
                         "  --messages  also show the library's own diagnostics\n");
            return std::strcmp(argv[i], "--help") == 0 ? 0 : 2;
        }
    }

    Facts f;
    {
        QuietStdout quiet(!show_messages);
        f = Gather();
    }
    if (!f.initialised) {
        std::fprintf(stderr, "kivbf info: KivBf_Init failed\n");
        return 1;
    }
    const char *level_path = std::getenv("DML_PATH");
    std::printf("kivbf API %u.%u, %u samples per block, message level %d (%s)\n",
                static_cast<unsigned>(f.major), static_cast<unsigned>(f.minor),
                static_cast<unsigned>(KIVBF_POINT_NUMBER), static_cast<int>(DebugMsgLevel_Read()),
                level_path != nullptr ? level_path : "/config/audioAlgo.json");

    std::printf("\nworking buffer: %u bytes\n", static_cast<unsigned>(f.buffer_size));
    PrintRegion("core state", 0, f.vad_offset);
    PrintRegion("VAD", f.vad_offset, f.fft_offset - f.vad_offset);
    PrintRegion("FFT", f.fft_offset, f.buffer_size - f.fft_offset);

    const AudioBfConfig &c = f.config;
    std::printf("\ndefault configuration (KivBf_GetConfig after KivBf_Init):\n");
    std::printf("  temperature         %u C (speed of sound set by KivBf_SetConfig)\n",
                static_cast<unsigned>(c.temperature));
    std::printf("  noise_threshold_db  %d dBFS\n", static_cast<int>(c.noise_threshold_db));
    std::printf("  Noise_estimation    %u\n", static_cast<unsigned>(c.Noise_estimation));
    std::printf("  output_gain         %.2f\n", static_cast<double>(c.output_gain));
    std::printf("  vad_enable          %u\n", static_cast<unsigned>(c.vad_enable));
    std::printf("  diagonal_loading    %d (x 0.0001)\n", static_cast<int>(c.diagonal_loading));
    return 0;
}
