// kivbf demo: synthesises a two-microphone scene (a talker-like harmonic
// target from the look direction and a band of noise from the side), runs it
// through the library in every mode, and reports how much each mode takes
// off the interferer and what it does to the target.
#include <sndfile.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "commands.h"
#include "tool_common.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr uint32_t kModes[] = {0, 1, 2, 3, 4};
// Levels chosen around the default -20 dBFS noise gate: the quiet interferer
// alone counts as noise (the adaptive modes learn from it), the talker does not.
constexpr double kTargetRms = 0.2;
constexpr double kInterfererRms = 0.05;

struct DemoOptions {
    LibrarySettings library;
    std::string out_dir = "kivbf-demo";
    double seconds = 6.0;
    float interferer_direction = 60.0f;
};

struct Partial {
    double frequency;  // Hz
    double amplitude;
    double phase;  // radians
};

// Plane wave from `direction` (degrees, 0 = broadside) onto microphones at
// x = -d/2 and +d/2: each channel is the sum of the partials, advanced by the
// projection of its position on the arrival direction (a true fractional
// delay, exact at every frequency).
std::vector<int16_t> RenderSource(const std::vector<Partial> &partials, double rms,
                                  float direction, const LibrarySettings &settings,
                                  size_t frames) {
    const double c = 331.0 + 0.6 * settings.temperature;
    const double d = settings.spacing_cm / 100.0;
    const double arrival = (direction + 90.0) * kPi / 180.0;
    const double lead[2] = {-0.5 * d * std::cos(arrival) / c, 0.5 * d * std::cos(arrival) / c};
    const double fs = settings.sample_rate;

    double power = 0.0;
    for (const Partial &p : partials) power += 0.5 * p.amplitude * p.amplitude;
    const double scale = rms * 32768.0 / std::sqrt(power);

    std::vector<int16_t> interleaved(2 * frames);
    for (size_t n = 0; n < frames; ++n) {
        for (int m = 0; m < 2; ++m) {
            const double t = static_cast<double>(n) / fs + lead[m];
            double v = 0.0;
            for (const Partial &p : partials)
                v += p.amplitude * std::sin(2.0 * kPi * p.frequency * t + p.phase);
            interleaved[2 * n + static_cast<size_t>(m)] =
                static_cast<int16_t>(std::lround(std::fmax(-32768.0, std::fmin(32767.0, v * scale))));
        }
    }
    return interleaved;
}

// A voiced-speech stand-in: harmonics of 180 Hz up to 3.6 kHz.
std::vector<Partial> TargetPartials(std::mt19937 &rng) {
    std::uniform_real_distribution<double> phase(0.0, 2.0 * kPi);
    std::vector<Partial> partials;
    for (int k = 1; k <= 20; ++k) partials.push_back({180.0 * k, 1.0 / std::sqrt(k), phase(rng)});
    return partials;
}

// Band-limited noise, 250 Hz to 6 kHz, as many random-phase partials.
std::vector<Partial> InterfererPartials(std::mt19937 &rng) {
    std::uniform_real_distribution<double> phase(0.0, 2.0 * kPi);
    std::uniform_real_distribution<double> frequency(250.0, 6000.0);
    std::vector<Partial> partials;
    for (int k = 0; k < 240; ++k) partials.push_back({frequency(rng), 1.0, phase(rng)});
    return partials;
}

std::vector<int16_t> Mix(const std::vector<int16_t> &a, const std::vector<int16_t> &b) {
    std::vector<int16_t> sum(a.size());
    for (size_t i = 0; i < a.size(); ++i) {
        const int32_t v = a[i] + b[i];
        sum[i] = static_cast<int16_t>(v > 32767 ? 32767 : (v < -32768 ? -32768 : v));
    }
    return sum;
}

bool WriteWav(const std::string &path, const std::vector<int16_t> &samples, int channels,
              uint32_t rate) {
    SF_INFO info{};
    info.samplerate = static_cast<int>(rate);
    info.channels = channels;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE *file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (file == nullptr) {
        std::fprintf(stderr, "kivbf demo: cannot create %s\n", path.c_str());
        return false;
    }
    const auto count = static_cast<sf_count_t>(samples.size());
    const bool ok = sf_write_short(file, samples.data(), count) == count;
    sf_close(file);
    return ok;
}

// RMS of every `stride`-th sample from `first` on.
double Rms(const std::vector<int16_t> &samples, size_t stride, size_t first) {
    double sum = 0.0;
    size_t count = 0;
    for (size_t i = first * stride; i < samples.size(); i += stride, ++count)
        sum += static_cast<double>(samples[i]) * samples[i];
    return count == 0 ? 0.0 : std::sqrt(sum / static_cast<double>(count));
}

double Db(double ratio) { return ratio > 0.0 ? 20.0 * std::log10(ratio) : -INFINITY; }

void PrintHelp() {
    std::fprintf(stderr,
                 "usage: kivbf demo [--out DIR] [--seconds S] [--interferer DEG] [options]\n\n"
                 "Builds a two-channel scene (harmonic target from --direction, band noise\n"
                 "from --interferer degrees), runs it in modes 0 to 4 and prints, per mode,\n"
                 "the interferer attenuation and the target level change in dB, measured\n"
                 "after the first second. The scene and the outputs are written as WAV\n"
                 "files into DIR (./kivbf-demo).\n\noptions:\n%s"
                 "  (--mode is ignored: every mode is run)\n",
                 kLibraryOptionsHelp);
}

int ParseOptions(int argc, char **argv, DemoOptions *options, bool *help) {
    for (int i = 0; i < argc; ++i) {
        const char *arg = argv[i];
        const char *value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (std::strcmp(arg, "--help") == 0) {
            *help = true;
            return 0;
        }
        if (std::strcmp(arg, "--out") == 0 && value != nullptr) {
            options->out_dir = value;
            ++i;
            continue;
        }
        if (std::strcmp(arg, "--seconds") == 0 && value != nullptr) {
            options->seconds = std::atof(value);
            ++i;
            if (options->seconds > 1.5 && options->seconds <= 600.0) continue;
            std::fprintf(stderr, "kivbf demo: --seconds must be in (1.5, 600]\n");
            return 2;
        }
        if (std::strcmp(arg, "--interferer") == 0 && value != nullptr) {
            options->interferer_direction = static_cast<float>(std::atof(value));
            ++i;
            continue;
        }
        switch (ParseLibraryOption(argc, argv, &i, &options->library)) {
        case OptionResult::kConsumed:
            continue;
        case OptionResult::kBad:
            return 2;
        case OptionResult::kNotMine:
            std::fprintf(stderr, "kivbf demo: unknown option %s (see --help)\n", arg);
            return 2;
        }
    }
    return 0;
}

// Every handle's Init prints an informational warning; unless the caller
// chose a message-level file, point the library at one that keeps errors only.
void QuietLibrary(const std::string &dir) {
    if (std::getenv("DML_PATH") != nullptr) return;
    const std::string path = dir + "/message_level.json";
    if (FILE *file = std::fopen(path.c_str(), "w")) {
        std::fputs("{\"debug_level\": 1}\n", file);
        std::fclose(file);
        setenv("DML_PATH", path.c_str(), 1);
    }
}

struct SceneRun {
    const char *name;
    const std::vector<int16_t> *input;
    std::vector<int16_t> output;
};

}  // namespace

int Command_Demo(int argc, char **argv) {
    DemoOptions options;
    bool help = false;
    if (const int status = ParseOptions(argc, argv, &options, &help); status != 0) return status;
    if (help) {
        PrintHelp();
        return 0;
    }
    LibrarySettings &settings = options.library;
    settings.angle = settings.direction;  // the fixed beams look at the talker
    std::error_code ec;
    std::filesystem::create_directories(options.out_dir, ec);
    if (ec) {
        std::fprintf(stderr, "kivbf demo: cannot create %s: %s\n", options.out_dir.c_str(),
                     ec.message().c_str());
        return 1;
    }

    QuietLibrary(options.out_dir);

    const auto frames = static_cast<size_t>(options.seconds * settings.sample_rate);
    std::mt19937 rng(20240521u);
    const std::vector<int16_t> target =
        RenderSource(TargetPartials(rng), kTargetRms, settings.direction, settings, frames);
    const std::vector<int16_t> interferer = RenderSource(
        InterfererPartials(rng), kInterfererRms, options.interferer_direction, settings, frames);
    const std::vector<int16_t> mix = Mix(target, interferer);
    const std::string dir = options.out_dir + "/";
    if (!WriteWav(dir + "scene_target.wav", target, 2, settings.sample_rate) ||
        !WriteWav(dir + "scene_interferer.wav", interferer, 2, settings.sample_rate) ||
        !WriteWav(dir + "scene_mix.wav", mix, 2, settings.sample_rate))
        return 1;

    const size_t skip = settings.sample_rate;  // the first second is adaptation
    const double target_in = Rms(target, 2, skip);
    const double interferer_in = Rms(interferer, 2, skip);
    std::printf("scene: %.1f s at %u Hz, %.1f cm spacing; target at %.0f deg, interferer at "
                "%.0f deg (0 = broadside)\n",
                options.seconds, settings.sample_rate, settings.spacing_cm, settings.direction,
                options.interferer_direction);
    std::printf("%-6s %18s %18s %14s\n", "mode", "interferer atten.", "target change",
                "SIR gain");

    int failures = 0;
    for (uint32_t mode : kModes) {
        settings.mode = mode;
        SceneRun runs[] = {{"target", &target, {}}, {"interferer", &interferer, {}},
                           {"mix", &mix, {}}};
        bool ok = true;
        for (SceneRun &run : runs) {
            Beamformer bf(settings);  // a fresh, identically configured handle per scene
            if (!bf.Ok()) {
                std::printf("%-6u %s\n", mode, bf.Error().c_str());
                ok = false;
                break;
            }
            if (const uint32_t status = ProcessSignal(bf, *run.input, true, &run.output);
                status != KIVBF_OK) {
                std::printf("%-6u KivBf_Run failed: 0x%08X %s\n", mode, status, StatusName(status));
                ok = false;
                break;
            }
            const std::string name = dir + "mode" + std::to_string(mode) + "_" + run.name + ".wav";
            if (!WriteWav(name, run.output, 1, settings.sample_rate)) ok = false;
        }
        if (!ok) {
            ++failures;
            continue;
        }
        const double target_change = Db(Rms(runs[0].output, 1, skip) / target_in);
        const double attenuation = -Db(Rms(runs[1].output, 1, skip) / interferer_in);
        std::printf("%-6u %15.1f dB %15.1f dB %11.1f dB%s\n", mode, attenuation, target_change,
                    attenuation + target_change, mode == 4 ? "  (refused by SetMode, runs)" : "");
    }
    std::printf("files written to %s\n", options.out_dir.c_str());
    return failures == 0 ? 0 : 1;
}
