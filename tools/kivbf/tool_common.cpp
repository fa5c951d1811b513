#include "tool_common.h"

#include "kivbf_ext.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "resample.h"

namespace {

struct StatusEntry {
    uint32_t code;
    const char *name;
};

constexpr StatusEntry kStatusNames[] = {
    {KIVBF_OK, "KIVBF_OK"},
    {KIVBFEXT_ERR_AUTO_STEER, "KIVBFEXT_ERR_AUTO_STEER"},
    {KIVBFEXT_ERR_SEARCH_WINDOW, "KIVBFEXT_ERR_SEARCH_WINDOW"},
    {KIVBF_ERR_NOT_INITIALISED, "KIVBF_ERR_NOT_INITIALISED"},
    {KIVBF_ERR_NULL_CONFIG, "KIVBF_ERR_NULL_CONFIG"},
    {KIVBF_ERR_HANDLE, "KIVBF_ERR_HANDLE"},
    {KIVBF_ERR_NOISE_ESTIMATION, "KIVBF_ERR_NOISE_ESTIMATION"},
    {KIVBF_ERR_VAD_ENABLE, "KIVBF_ERR_VAD_ENABLE"},
    {KIVBF_ERR_OUTPUT_GAIN, "KIVBF_ERR_OUTPUT_GAIN"},
    {KIVBF_ERR_NULL_POINTER, "KIVBF_ERR_NULL_POINTER"},
    {KIVBF_ERR_SAMPLE_RATE, "KIVBF_ERR_SAMPLE_RATE"},
    {KIVBF_ERR_POINT_NUMBER, "KIVBF_ERR_POINT_NUMBER"},
    {KIVBF_ERR_MIC_NUMBER, "KIVBF_ERR_MIC_NUMBER"},
    {KIVBF_ERR_PREREQUISITE, "KIVBF_ERR_PREREQUISITE"},
    {KIVBF_ERR_SHAPE_AFTER_RUN, "KIVBF_ERR_SHAPE_AFTER_RUN"},
    {KIVBF_ERR_ARRAY_GEOMETRY, "KIVBF_ERR_ARRAY_GEOMETRY"},
    {KIVBF_ERR_MIC_DISTANCE, "KIVBF_ERR_MIC_DISTANCE"},
    {KIVBF_ERR_DYNAMIC_LOADING, "KIVBF_ERR_DYNAMIC_LOADING"},
    {KIVBF_ERR_MODE, "KIVBF_ERR_MODE"},
    {KIVBF_ERR_NO_SHAPE, "KIVBF_ERR_NO_SHAPE"},
    {KIVBF_ERR_ADAPTIVE_INTENSITY, "KIVBF_ERR_ADAPTIVE_INTENSITY"},
    {KIVBF_ERR_PF_FLOW, "KIVBF_ERR_PF_FLOW"},
    {KIVBF_ERR_CALIBRATION, "KIVBF_ERR_CALIBRATION"},
    {KIVBF_ERR_DUMP_OPEN, "KIVBF_ERR_DUMP_OPEN"},
    {KIVBFEXT_ERR_ENHANCED_SWITCH, "KIVBFEXT_ERR_ENHANCED_SWITCH"},
};

bool ParseLong(const char *text, long low, long high, long *value) {
    if (text == nullptr || *text == '\0') return false;
    char *end = nullptr;
    errno = 0;
    const long parsed = std::strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || parsed < low || parsed > high) return false;
    *value = parsed;
    return true;
}

bool ParseFloat(const char *text, float *value) {
    if (text == nullptr || *text == '\0') return false;
    char *end = nullptr;
    errno = 0;
    const float parsed = std::strtof(text, &end);
    if (errno != 0 || *end != '\0') return false;
    *value = parsed;
    return true;
}

// "a,b,c" into exactly `count` integers.
bool ParseList(const char *text, int32_t *values, int count) {
    for (int i = 0; i < count; ++i) {
        char *end = nullptr;
        errno = 0;
        const long parsed = std::strtol(text, &end, 10);
        if (errno != 0 || end == text) return false;
        values[i] = static_cast<int32_t>(parsed);
        const char expected = i + 1 < count ? ',' : '\0';
        if (*end != expected) return false;
        text = end + 1;
    }
    return true;
}

bool ParseDynamicLoading(const char *text, LibrarySettings *settings) {
    if (text == nullptr) return false;
    const char *colon = std::strchr(text, ':');
    if (colon == nullptr) return false;
    const std::string bands(text, colon);
    return ParseList(bands.c_str(), settings->bands, 6) &&
           ParseList(colon + 1, settings->band_intensity, 7);
}

// Parses the value of option `name` into *s; false for a missing or bad value.
bool ParseValue(const char *name, const char *text, LibrarySettings *s) {
    long v = 0;
    if (std::strcmp(name, "--rate") == 0) {
        if (!ParseLong(text, 1, 1000000, &v)) return false;
        s->sample_rate = static_cast<uint32_t>(v);
    } else if (std::strcmp(name, "--spacing") == 0) {
        return ParseFloat(text, &s->spacing_cm);
    } else if (std::strcmp(name, "--shape") == 0) {
        if (text == nullptr) return false;
        if (std::strcmp(text, "linear") == 0)
            s->shape = KIVBF_GEOMETRY_LINEAR;
        else if (std::strcmp(text, "circular") == 0)
            s->shape = KIVBF_GEOMETRY_CIRCULAR;
        else
            return false;
    } else if (std::strcmp(name, "--mode") == 0) {
        if (!ParseLong(text, 0, 4, &v)) return false;
        s->mode = static_cast<uint32_t>(v);
    } else if (std::strcmp(name, "--angle") == 0) {
        return ParseFloat(text, &s->angle);
    } else if (std::strcmp(name, "--direction") == 0) {
        return ParseFloat(text, &s->direction);
    } else if (std::strcmp(name, "--temperature") == 0) {
        if (!ParseLong(text, 0, 100, &v)) return false;
        s->temperature = static_cast<uint32_t>(v);
    } else if (std::strcmp(name, "--threshold-db") == 0) {
        if (!ParseLong(text, -1000, 1000, &v)) return false;
        s->threshold_db = static_cast<int32_t>(v);
    } else if (std::strcmp(name, "--noise-estimation") == 0) {
        if (!ParseLong(text, 0, 1, &v)) return false;
        s->noise_estimation = static_cast<uint32_t>(v);
    } else if (std::strcmp(name, "--output-gain") == 0) {
        return ParseFloat(text, &s->output_gain);
    } else if (std::strcmp(name, "--vad") == 0) {
        if (!ParseLong(text, 0, 1, &v)) return false;
        s->vad_enable = static_cast<uint32_t>(v);
    } else if (std::strcmp(name, "--loading") == 0) {
        if (!ParseLong(text, -100000, 100000, &v)) return false;
        s->diagonal_loading = static_cast<int32_t>(v);
    } else if (std::strcmp(name, "--calibration") == 0) {
        if (!ParseLong(text, 0, 1, &v)) return false;
        s->calibration = static_cast<uint32_t>(v);
    } else if (std::strcmp(name, "--intensity") == 0) {
        if (!ParseLong(text, 0, 4, &v)) return false;
        s->intensity = static_cast<int32_t>(v);
        s->has_intensity = true;
    } else if (std::strcmp(name, "--pf-flow") == 0) {
        if (!ParseLong(text, 0, 2, &v)) return false;
        s->pf_flow = static_cast<uint32_t>(v);
        s->has_pf_flow = true;
    } else if (std::strcmp(name, "--dynamic-loading") == 0) {
        if (!ParseDynamicLoading(text, s)) return false;
        s->has_dynamic_loading = true;
    } else if (std::strcmp(name, "--window") == 0) {
        char tail = 0;
        if (std::sscanf(text, "%f,%f%c", &s->window_centre, &s->window_half_width, &tail) != 2) return false;
        s->has_window = true;
    }
    return true;
}

constexpr const char *kValueOptions[] = {
    "--rate",      "--spacing",     "--shape",        "--mode",      "--angle",
    "--direction", "--temperature", "--threshold-db", "--noise-estimation",
    "--output-gain", "--vad",       "--loading",      "--calibration", "--intensity",
    "--pf-flow",   "--dynamic-loading", "--window",
};

}  // namespace

const char kLibraryOptionsHelp[] =
    "  --rate HZ               sample rate of raw input; others than 8000, 16000, 32000,\n"
    "                          48000 are resampled (16000)\n"
    "  --spacing CM            microphone spacing in centimetres (5)\n"
    "  --shape linear|circular array shape (linear)\n"
    "  --mode 0..4             0 adaptive, 1 fixed, 2 fixed + canceller, 3/4 post-filter (0)\n"
    "  --angle DEG             look direction of the fixed beam, 0 = broadside (0)\n"
    "  --direction DEG         talker direction given with every block (0)\n"
    "  --temperature C         air temperature (20)\n"
    "  --threshold-db DB       noise gate of the adaptive update without VAD (-20)\n"
    "  --noise-estimation 0|1  covariance averaging path (0)\n"
    "  --output-gain G         (0, 1]; 0.7 is unity (0.7)\n"
    "  --vad 0|1               let the VAD choose the noise blocks (0)\n"
    "  --loading N             diagonal loading in units of 0.0001, 1..100 (10)\n"
    "  --calibration 0|1       equalise microphone 1 to microphone 0 (0)\n"
    "  --auto-steer            modes 0, 3, 4 steer at the direction finder's estimate\n"
    "  --window C,W            confine the estimate to C +- W degrees\n"
    "  --intensity 0..4        adaptive intensity (library default 1)\n"
    "  --pf-flow 0..2          post-filter flow (library default 1)\n"
    "  --dynamic-loading b1,..,b6:i1,..,i7\n"
    "                          per-band loading: 6 ascending bins, 7 factors\n"
    "  --enhanced              the enhanced mode (kivbf_ext.h) instead of --mode's stages;\n"
    "                          steers at --direction\n";

const char *StatusName(uint32_t status) {
    for (const StatusEntry &entry : kStatusNames)
        if (entry.code == status) return entry.name;
    return "unknown status";
}

OptionResult ParseLibraryOption(int argc, char **argv, int *index, LibrarySettings *settings) {
    const char *name = argv[*index];
    if (std::strcmp(name, "--auto-steer") == 0) {
        settings->auto_steer = true;
        return OptionResult::kConsumed;
    }
    if (std::strcmp(name, "--enhanced") == 0) {
        settings->enhanced = true;
        return OptionResult::kConsumed;
    }
    for (const char *option : kValueOptions) {
        if (std::strcmp(name, option) != 0) continue;
        const char *value = *index + 1 < argc ? argv[*index + 1] : nullptr;
        if (!ParseValue(name, value, settings)) {
            std::fprintf(stderr, "kivbf: bad or missing value for %s\n", name);
            return OptionResult::kBad;
        }
        ++*index;
        return OptionResult::kConsumed;
    }
    return OptionResult::kNotMine;
}

Beamformer::Beamformer(const LibrarySettings &settings) : direction_(settings.direction) {
    const uint32_t size = KivBf_GetBufferSize();
    storage_ = std::aligned_alloc(16, (size + 15u) & ~15u);
    if (storage_ == nullptr) {
        error_ = "out of memory";
        return;
    }
    const AudioBfInit init{KIVBF_POINT_NUMBER, settings.sample_rate, settings.spacing_cm, 2};
    handle_ = KivBf_Init(storage_, &init);
    if (handle_ == nullptr) {
        error_ = NearestSupportedRate(settings.sample_rate) == settings.sample_rate
                     ? "KivBf_Init failed (see the library's message)"
                     : "KivBf_Init failed: " + std::to_string(settings.sample_rate) +
                           " Hz is not supported (8000, 16000, 32000 or 48000 Hz)";
        return;
    }
    AudioBfConfig config{};
    if (!Check("KivBf_GetConfig", KivBf_GetConfig(handle_, &config))) return;
    config.temperature = settings.temperature;
    config.noise_threshold_db = settings.threshold_db;
    config.Noise_estimation = settings.noise_estimation;
    config.output_gain = settings.output_gain;
    config.vad_enable = settings.vad_enable;
    config.diagonal_loading = settings.diagonal_loading;
    if (!Check("KivBf_SetConfig", KivBf_SetConfig(handle_, &config))) return;
    if (!Check("KivBf_SetShape", KivBf_SetShape(handle_, settings.shape))) return;
    if (settings.has_dynamic_loading &&
        !Check("KivBf_DynamicLoading",
               KivBf_DynamicLoading(handle_, settings.bands, settings.band_intensity, 1)))
        return;
    if (!Check("KivBf_SetCalibration", KivBf_SetCalibration(handle_, settings.calibration)))
        return;
    const uint32_t mode_status = KivBf_SetMode(handle_, settings.mode, settings.angle);
    if (settings.mode == KIVBF_MODE_POSTFILTER_NO_BAND && mode_status == KIVBF_ERR_MODE) {
        // Refused, yet stored: blocks run in mode 4 all the same.
        note_ = "mode 4 is refused by KivBf_SetMode but stays stored; processing in mode 4";
    } else if (!Check("KivBf_SetMode", mode_status)) {
        return;
    }
    if (settings.has_intensity &&
        !Check("KivBf_SetAdaptiveIntensity",
               KivBf_SetAdaptiveIntensity(handle_, settings.intensity)))
        return;
    if (settings.has_pf_flow && !Check("KivBf_SetPfFlow", KivBf_SetPfFlow(handle_, settings.pf_flow)))
        return;
    if (settings.auto_steer && !Check("KivBfExt_SetAutoSteer", KivBfExt_SetAutoSteer(handle_, 1))) return;
    if (settings.has_window &&
        !Check("KivBfExt_SetSearchWindow",
               KivBfExt_SetSearchWindow(handle_, settings.window_centre, settings.window_half_width)))
        return;
    if (settings.enhanced &&
        !Check("KivBfExt_SetEnhancedMode", KivBfExt_SetEnhancedMode(handle_, 1)))
        return;
}

Beamformer::~Beamformer() {
    if (handle_ != nullptr) (void)KivBf_Free(handle_);
    std::free(storage_);
}

bool Beamformer::Check(const char *call, uint32_t status) {
    if (status == KIVBF_OK) return true;
    char text[128];
    std::snprintf(text, sizeof text, "%s failed: 0x%08X %s", call, status, StatusName(status));
    error_ = text;
    return false;
}

uint32_t Beamformer::Process(const int16_t *input, int16_t *output) {
    return KivBf_Run(handle_, input, output, &direction_);
}

uint32_t BlockStream::Feed(const int16_t *interleaved, int32_t frames, std::vector<int16_t> *out) {
    constexpr int32_t kBlock = static_cast<int32_t>(KIVBF_POINT_NUMBER);
    int16_t block[2 * kBlock] = {};
    std::memcpy(block, interleaved, sizeof(int16_t) * 2 * static_cast<size_t>(frames));
    int16_t result[kBlock];
    const uint32_t status = bf_.Process(block, result);
    if (status != KIVBF_OK) return status;
    int32_t due = frames;
    if (compensate_latency_) {
        due = first_block_ ? 0 : held_frames_;
        held_frames_ = frames;
    }
    first_block_ = false;
    out->insert(out->end(), result, result + due);
    return KIVBF_OK;
}

uint32_t BlockStream::Finish(std::vector<int16_t> *out) {
    if (!compensate_latency_ || held_frames_ == 0) return KIVBF_OK;
    constexpr int32_t kBlock = static_cast<int32_t>(KIVBF_POINT_NUMBER);
    const int16_t silence[2 * kBlock] = {};
    int16_t result[kBlock];
    const uint32_t status = bf_.Process(silence, result);
    if (status != KIVBF_OK) return status;
    out->insert(out->end(), result, result + held_frames_);
    held_frames_ = 0;
    return KIVBF_OK;
}

uint32_t ProcessSignal(Beamformer &bf, const std::vector<int16_t> &interleaved,
                       bool compensate_latency, std::vector<int16_t> *mono) {
    constexpr size_t kBlock = KIVBF_POINT_NUMBER;
    BlockStream stream(bf, compensate_latency);
    mono->clear();
    const size_t frames = interleaved.size() / 2;
    for (size_t first = 0; first < frames; first += kBlock) {
        const size_t count = frames - first < kBlock ? frames - first : kBlock;
        const uint32_t status =
            stream.Feed(interleaved.data() + 2 * first, static_cast<int32_t>(count), mono);
        if (status != KIVBF_OK) return status;
    }
    return stream.Finish(mono);
}
