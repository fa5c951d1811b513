// kivbf pattern: the fixed beam's response over direction and frequency, its
// directivity index and white-noise gain, as CSV tables and a picture.
//
// The beam is designed by the library itself (KivBf_SetMode 1); the response
// to a far-field plane wave is then evaluated from the designed weights.
// Microphone m sees such a wave from azimuth theta as exp(j f tau_m(theta)),
// tau_m = 2 pi (x_m cos theta + y_m sin theta) / c, and the beam sum applies
// the stored weights without conjugation, so the response is
// sum_m W_m exp(j f tau_m(theta)) and equals 1 in the look direction.
#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "AudioBfProcess_internal.h"
#include "Beamformer_core.h"
#include "commands.h"
#include "plot_script.h"
#include "tool_common.h"

namespace {

using Complex = std::complex<double>;

constexpr int kDirectionStep = 1;  // degrees between rows of the response table
constexpr double kGainFloorDb = -120.0;

struct PatternOptions {
    LibrarySettings settings;
    std::string out_dir = "kivbf-pattern";
    std::string format = "png";
    bool plot = true;
};

struct Pattern {
    std::vector<double> frequency;              // Hz, one per bin
    std::vector<int> direction;                 // degrees as given to KivBf_SetMode
    std::vector<std::vector<double>> gain_db;   // [bin][direction]
    std::vector<double> directivity_db;         // per bin
    std::vector<double> white_noise_gain_db;    // per bin
    double look_error = 0.0;                    // largest |response - 1| in the look direction
};

double PowerDb(double power) {
    return power > 0.0 ? std::max(10.0 * std::log10(power), kGainFloorDb) : kGainFloorDb;
}

// Weights of bin k as complex numbers, one per microphone.
std::vector<Complex> WeightsOf(const BfCoreState &s, int32_t k) {
    std::vector<Complex> w(kivbf::kMics);
    for (int32_t m = 0; m < kivbf::kMics; ++m)
        w[static_cast<size_t>(m)] = Complex(s.beam_weights[m][2 * k], s.beam_weights[m][2 * k + 1]);
    return w;
}

// Beam response at frequency f (Hz) to a plane wave from physical azimuth
// `radians` (measured from +x, where the library's angle + 90 points).
Complex Response(const BfCoreState &s, const std::vector<Complex> &w, double f, double radians) {
    Complex sum = 0.0;
    for (int32_t m = 0; m < kivbf::kMics; ++m) {
        const double projection =
            s.mic_position[m][0] * std::cos(radians) + s.mic_position[m][1] * std::sin(radians);
        const double tau = kivbf::kTwoPi * projection / s.speed_of_sound;
        sum += w[static_cast<size_t>(m)] * std::polar(1.0, f * tau);
    }
    return sum;
}

// Output power of the beam in a diffuse (spherically isotropic) field of unit
// power per microphone: W Gamma W^H with Gamma_ij = sinc(2 pi f d_ij / c).
double DiffusePower(const BfCoreState &s, const std::vector<Complex> &w, double f) {
    double power = 0.0;
    for (int32_t i = 0; i < kivbf::kMics; ++i) {
        for (int32_t j = 0; j < kivbf::kMics; ++j) {
            const double x = kivbf::kTwoPi * f * s.mic_distance_matrix[i][j] / s.speed_of_sound;
            const double coherence = x == 0.0 ? 1.0 : std::sin(x) / x;
            power += (w[static_cast<size_t>(i)] * coherence * std::conj(w[static_cast<size_t>(j)])).real();
        }
    }
    return power;
}

Pattern Evaluate(const BfCoreState &s) {
    Pattern p;
    for (int d = -180; d <= 180; d += kDirectionStep) p.direction.push_back(d);
    const double look = static_cast<double>(s.steering_angle) * kivbf::kPi / 180.0;
    for (int32_t k = 0; k < kivbf::kBins; ++k) {
        const double f = s.bin_frequency[k];
        const std::vector<Complex> w = WeightsOf(s, k);
        std::vector<double> row;
        row.reserve(p.direction.size());
        for (int d : p.direction) {
            const double radians = (d + 90.0) * kivbf::kPi / 180.0;
            row.push_back(PowerDb(std::norm(Response(s, w, f, radians))));
        }
        const Complex on_axis = Response(s, w, f, look);
        double weight_power = 0.0;
        for (const Complex &weight : w) weight_power += std::norm(weight);
        p.frequency.push_back(f);
        p.gain_db.push_back(std::move(row));
        p.directivity_db.push_back(PowerDb(std::norm(on_axis) / DiffusePower(s, w, f)));
        p.white_noise_gain_db.push_back(PowerDb(std::norm(on_axis) / weight_power));
        p.look_error = std::max(p.look_error, std::abs(on_axis - 1.0));
    }
    return p;
}

bool WriteTables(const Pattern &p, const std::string &dir) {
    FILE *metrics = std::fopen((dir + "/pattern_metrics.csv").c_str(), "w");
    FILE *response = std::fopen((dir + "/pattern_response.csv").c_str(), "w");
    bool ok = metrics != nullptr && response != nullptr;
    if (ok) {
        std::fprintf(metrics, "frequency_hz,directivity_index_db,white_noise_gain_db\n");
        std::fprintf(response, "frequency_hz");
        for (int d : p.direction) std::fprintf(response, ",%d", d);
        std::fprintf(response, "\n");
        for (size_t k = 0; k < p.frequency.size(); ++k) {
            std::fprintf(metrics, "%.3f,%.4f,%.4f\n", p.frequency[k], p.directivity_db[k],
                         p.white_noise_gain_db[k]);
            std::fprintf(response, "%.3f", p.frequency[k]);
            for (double g : p.gain_db[k]) std::fprintf(response, ",%.4f", g);
            std::fprintf(response, "\n");
        }
    }
    if (metrics != nullptr) ok = std::fclose(metrics) == 0 && ok;
    if (response != nullptr) ok = std::fclose(response) == 0 && ok;
    return ok;
}

// One line naming the settings, shown as the picture's title.
std::string Describe(const LibrarySettings &s) {
    char text[256];
    std::snprintf(text, sizeof text,
                  "%s array, %.3g cm, %u Hz, look %.3g deg, %u C, loading %d x 1e-4%s",
                  s.shape == KIVBF_GEOMETRY_LINEAR ? "linear" : "circular",
                  static_cast<double>(s.spacing_cm), static_cast<unsigned>(s.sample_rate),
                  static_cast<double>(s.angle), static_cast<unsigned>(s.temperature),
                  static_cast<int>(s.diagonal_loading),
                  s.has_dynamic_loading ? " (per band)" : "");
    return text;
}

int Plot(const PatternOptions &o) {
    if (!RunPlotScript("plot_pattern.py",
                       {o.out_dir, "--format", o.format, "--title", Describe(o.settings)})) {
        std::fprintf(stderr, "kivbf pattern: the CSV tables are written all the same\n");
        return 1;
    }
    std::printf("picture: %s/pattern.%s\n", o.out_dir.c_str(), o.format.c_str());
    return 0;
}

void PrintSummary(const Pattern &p) {
    std::printf("%10s %10s %10s\n", "freq Hz", "DI dB", "WNG dB");
    const double nyquist = p.frequency.back();
    for (double target = 250.0; target < nyquist; target *= 2.0) {
        size_t k = 0;
        while (k + 1 < p.frequency.size() && p.frequency[k + 1] <= target) ++k;
        std::printf("%10.0f %10.2f %10.2f\n", p.frequency[k], p.directivity_db[k],
                    p.white_noise_gain_db[k]);
    }
    std::printf("look-direction response within %.1e of 1 at every bin\n", p.look_error);
}

int Usage(int status) {
    std::fprintf(stderr,
                 "usage: kivbf pattern [--out DIR] [--format png|svg] [--no-plot] [options]\n\n"
                 "Designs the fixed beam (mode 1) for the given array and evaluates its\n"
                 "response to plane waves from every direction at every FFT bin. Writes\n"
                 "DIR/pattern_response.csv (gain in dB, one row per frequency, one column per\n"
                 "direction in degrees, 0 = broadside as KivBf_SetMode counts it),\n"
                 "DIR/pattern_metrics.csv (directivity index and white-noise gain in dB per\n"
                 "frequency) and DIR/pattern.png (polar plots, a direction-frequency map and\n"
                 "the two metrics). DIR defaults to ./kivbf-pattern.\n\noptions:\n%s"
                 "  (--mode is ignored: the fixed beam is shown)\n",
                 kLibraryOptionsHelp);
    return status;
}

bool ParseArguments(int argc, char **argv, PatternOptions *o, int *exit_status) {
    for (int i = 0; i < argc; ++i) {
        const char *arg = argv[i];
        const char *value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (std::strcmp(arg, "--help") == 0) {
            *exit_status = Usage(0);
            return false;
        }
        if (std::strcmp(arg, "--no-plot") == 0) {
            o->plot = false;
            continue;
        }
        if (std::strcmp(arg, "--out") == 0 && value != nullptr) {
            o->out_dir = value;
            ++i;
            continue;
        }
        if (std::strcmp(arg, "--format") == 0 && value != nullptr &&
            (std::strcmp(value, "png") == 0 || std::strcmp(value, "svg") == 0)) {
            o->format = value;
            ++i;
            continue;
        }
        const OptionResult parsed = ParseLibraryOption(argc, argv, &i, &o->settings);
        if (parsed == OptionResult::kConsumed) continue;
        if (parsed == OptionResult::kNotMine)
            std::fprintf(stderr, "kivbf pattern: unknown or incomplete option %s (see --help)\n", arg);
        *exit_status = 2;
        return false;
    }
    o->settings.mode = KIVBF_MODE_FIXED;
    return true;
}

}  // namespace

int Command_Pattern(int argc, char **argv) {
    PatternOptions options;
    int exit_status = 0;
    if (!ParseArguments(argc, argv, &options, &exit_status)) return exit_status;

    Pattern pattern;
    {
        Beamformer bf(options.settings);
        if (!bf.Ok()) {
            std::fprintf(stderr, "kivbf pattern: %s\n", bf.Error().c_str());
            return 1;
        }
        pattern = Evaluate(*Bf_StateOf(bf.Handle()));
    }

    std::error_code ec;
    std::filesystem::create_directories(options.out_dir, ec);
    if (ec || !WriteTables(pattern, options.out_dir)) {
        std::fprintf(stderr, "kivbf pattern: cannot write the tables into %s\n",
                     options.out_dir.c_str());
        return 1;
    }
    PrintSummary(pattern);
    std::printf("tables: %s/pattern_metrics.csv, %s/pattern_response.csv\n",
                options.out_dir.c_str(), options.out_dir.c_str());
    return options.plot ? Plot(options) : 0;
}
