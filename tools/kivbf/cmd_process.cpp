// kivbf process: beamforms a two-channel recording (WAV, or raw s16le on
// stdin) into one channel (WAV, or raw s16le on stdout), block by block, so
// that it can sit in a live pipe between arecord and aplay.
#include <sndfile.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "commands.h"
#include "resample.h"
#include "tool_common.h"

namespace {

constexpr int32_t kBlock = static_cast<int32_t>(KIVBF_POINT_NUMBER);

void PrintHelp() {
    std::fprintf(stderr,
                 "usage: kivbf process [options] [in.wav|-] [out.wav|-]\n\n"
                 "Reads a 2-channel WAV file, or raw interleaved s16le from stdin ('-', the\n"
                 "default; give --rate), and writes the beamformed mono signal as a 16-bit WAV\n"
                 "file or as raw s16le on stdout ('-', the default). The output is as long as\n"
                 "the input. Other rates than the library's are converted to the nearest one\n"
                 "and back (the whole input is read first).\n\noptions:\n%s"
                 "  --compensate-latency    drop the first block so output aligns with input\n"
                 "  --help                  this text\n",
                 kLibraryOptionsHelp);
}

// Where the two-channel input comes from.
class Source {
public:
    ~Source() {
        if (file_ != nullptr) sf_close(file_);
    }
    // For a raw stream, *rate is kept; for a WAV file it is set from the file.
    bool Open(const char *path, uint32_t *rate, bool rate_given) {
        if (std::strcmp(path, "-") == 0) return true;
        SF_INFO info{};
        file_ = sf_open(path, SFM_READ, &info);
        if (file_ == nullptr) {
            std::fprintf(stderr, "kivbf process: cannot open %s: %s\n", path, sf_strerror(nullptr));
            return false;
        }
        if (info.channels != 2) {
            std::fprintf(stderr, "kivbf process: %s has %d channels, 2 needed\n", path,
                         info.channels);
            return false;
        }
        if (rate_given && static_cast<uint32_t>(info.samplerate) != *rate) {
            std::fprintf(stderr, "kivbf process: %s is at %d Hz, not the --rate given\n", path,
                         info.samplerate);
            return false;
        }
        *rate = static_cast<uint32_t>(info.samplerate);
        return true;
    }
    // Up to one block of frames; 0 at the end.
    int32_t Read(int16_t *interleaved) {
        if (file_ != nullptr)
            return static_cast<int32_t>(sf_readf_short(file_, interleaved, kBlock));
        // A pipe may deliver a block in pieces; gather whole frames.
        size_t got = 0;
        const size_t wanted = sizeof(int16_t) * 2 * kBlock;
        auto *bytes = reinterpret_cast<unsigned char *>(interleaved);
        while (got < wanted) {
            const size_t n = std::fread(bytes + got, 1, wanted - got, stdin);
            if (n == 0) break;
            got += n;
        }
        return static_cast<int32_t>(got / (sizeof(int16_t) * 2));
    }

private:
    SNDFILE *file_ = nullptr;
};

// Where the mono output goes. Raw output on stdout uses a duplicate of the
// original descriptor, since stdout itself is handed to the library's
// messages (see MoveLibraryMessagesToStderr).
class Sink {
public:
    ~Sink() {
        if (file_ != nullptr) sf_close(file_);
        if (raw_ != nullptr) std::fclose(raw_);
    }
    bool Open(const char *path, uint32_t rate) {
        if (std::strcmp(path, "-") == 0) {
            std::fflush(stdout);
            const int fd = dup(STDOUT_FILENO);
            raw_ = fd < 0 ? nullptr : fdopen(fd, "wb");
            return raw_ != nullptr;
        }
        SF_INFO info{};
        info.samplerate = static_cast<int>(rate);
        info.channels = 1;
        info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
        file_ = sf_open(path, SFM_WRITE, &info);
        if (file_ == nullptr)
            std::fprintf(stderr, "kivbf process: cannot create %s: %s\n", path,
                         sf_strerror(nullptr));
        return file_ != nullptr;
    }
    bool Write(const std::vector<int16_t> &samples) {
        if (samples.empty()) return true;
        if (file_ != nullptr)
            return sf_write_short(file_, samples.data(), static_cast<sf_count_t>(samples.size())) ==
                   static_cast<sf_count_t>(samples.size());
        const bool ok = std::fwrite(samples.data(), sizeof(int16_t), samples.size(), raw_) ==
                        samples.size();
        return ok && std::fflush(raw_) == 0;
    }

private:
    SNDFILE *file_ = nullptr;
    FILE *raw_ = nullptr;
};

struct ProcessOptions {
    LibrarySettings library;
    bool rate_given = false;
    bool compensate_latency = false;
    const char *input = "-";
    const char *output = "-";
};

// 0 to go on (also after --help, which sets *help), otherwise the exit status.
int ParseOptions(int argc, char **argv, ProcessOptions *options, bool *help) {
    int positional = 0;
    for (int i = 0; i < argc; ++i) {
        const char *arg = argv[i];
        if (std::strcmp(arg, "--help") == 0) {
            *help = true;
            return 0;
        }
        if (std::strcmp(arg, "--compensate-latency") == 0) {
            options->compensate_latency = true;
            continue;
        }
        if (std::strcmp(arg, "--rate") == 0) options->rate_given = true;
        switch (ParseLibraryOption(argc, argv, &i, &options->library)) {
        case OptionResult::kConsumed:
            continue;
        case OptionResult::kBad:
            return 2;
        case OptionResult::kNotMine:
            break;
        }
        if (arg[0] == '-' && arg[1] != '\0') {
            std::fprintf(stderr, "kivbf process: unknown option %s (see --help)\n", arg);
            return 2;
        }
        if (positional == 0)
            options->input = arg;
        else if (positional == 1)
            options->output = arg;
        else {
            std::fprintf(stderr, "kivbf process: too many file arguments\n");
            return 2;
        }
        ++positional;
    }
    return 0;
}

// The library prints its diagnostics on stdout; here they go to stderr, so
// that stdout carries nothing but audio.
bool MoveLibraryMessagesToStderr() {
    std::fflush(stdout);
    return dup2(STDERR_FILENO, STDOUT_FILENO) >= 0;
}

class Progress {
public:
    explicit Progress(uint32_t rate) : rate_(rate), shown_(isatty(STDERR_FILENO) != 0) {}
    void Update(uint64_t frames) {
        if (!shown_ || frames < next_) return;
        std::fprintf(stderr, "\rkivbf process: %.1f s", static_cast<double>(frames) / rate_);
        next_ = frames + rate_;
    }
    void Done(uint64_t frames) {
        if (shown_)
            std::fprintf(stderr, "\rkivbf process: %.1f s done\n",
                         static_cast<double>(frames) / rate_);
    }

private:
    uint32_t rate_;
    bool shown_;
    uint64_t next_ = 0;
};

int Fail(const char *call, uint32_t status) {
    std::fprintf(stderr, "kivbf process: %s failed: 0x%08X %s\n", call, status,
                 StatusName(status));
    return 1;
}

// A file at a rate the library does not run at: read whole, converted to the
// nearest supported rate, beamformed, converted back and cut to the input's
// length.
int ProcessResampled(const ProcessOptions &options, Source &source, Sink &sink) {
    const uint32_t file_rate = options.library.sample_rate;
    const uint32_t run_rate = NearestSupportedRate(file_rate);
    if (!ResamplerAvailable()) {
        std::fprintf(stderr,
                     "kivbf process: %u Hz is not supported (8000, 16000, 32000 or 48000 Hz) and "
                     "this build has no resampler (libsoxr)\n",
                     file_rate);
        return 1;
    }
    std::fprintf(stderr, "kivbf process: resampling %u Hz to %u Hz and back\n", file_rate,
                 run_rate);
    std::vector<int16_t> input;
    int16_t block[2 * kBlock];
    for (int32_t got; (got = source.Read(block)) > 0;) input.insert(input.end(), block, block + 2 * got);
    std::vector<int16_t> converted, mono, output;
    if (!Resample(input, 2, file_rate, run_rate, &converted)) return 1;
    LibrarySettings settings = options.library;
    settings.sample_rate = run_rate;
    Beamformer bf(settings);
    if (!bf.Ok()) {
        std::fprintf(stderr, "kivbf process: %s\n", bf.Error().c_str());
        return 1;
    }
    if (const uint32_t status = ProcessSignal(bf, converted, options.compensate_latency, &mono);
        status != KIVBF_OK)
        return Fail("KivBf_Run", status);
    if (!Resample(mono, 1, run_rate, file_rate, &output)) return 1;
    output.resize(input.size() / 2, 0);
    if (!sink.Write(output)) {
        std::fprintf(stderr, "kivbf process: write failed\n");
        return 1;
    }
    return 0;
}

}  // namespace

int Command_Process(int argc, char **argv) {
    ProcessOptions options;
    bool help = false;
    if (const int status = ParseOptions(argc, argv, &options, &help); status != 0) return status;
    if (help) {
        PrintHelp();
        return 0;
    }
    Source source;
    if (!source.Open(options.input, &options.library.sample_rate, options.rate_given)) return 1;
    Sink sink;
    if (!sink.Open(options.output, options.library.sample_rate) || !MoveLibraryMessagesToStderr())
        return 1;
    if (NearestSupportedRate(options.library.sample_rate) != options.library.sample_rate)
        return ProcessResampled(options, source, sink);

    Beamformer bf(options.library);
    if (!bf.Ok()) {
        std::fprintf(stderr, "kivbf process: %s\n", bf.Error().c_str());
        return 1;
    }
    if (!bf.Note().empty()) std::fprintf(stderr, "kivbf process: %s\n", bf.Note().c_str());

    BlockStream stream(bf, options.compensate_latency);
    Progress progress(options.library.sample_rate);
    int16_t block[2 * kBlock];
    std::vector<int16_t> out;
    uint64_t frames = 0;
    for (int32_t got; (got = source.Read(block)) > 0;) {
        out.clear();
        if (const uint32_t status = stream.Feed(block, got, &out); status != KIVBF_OK)
            return Fail("KivBf_Run", status);
        if (!sink.Write(out)) {
            std::fprintf(stderr, "kivbf process: write failed\n");
            return 1;
        }
        frames += static_cast<uint64_t>(got);
        progress.Update(frames);
    }
    out.clear();
    if (const uint32_t status = stream.Finish(&out); status != KIVBF_OK)
        return Fail("KivBf_Run", status);
    if (!sink.Write(out)) return 1;
    progress.Done(frames);
    return 0;
}
