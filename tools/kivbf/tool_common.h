// Shared by the kivbf commands: status names, the library options, and a
// handle set up from them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "AudioBfProcess.h"
#include "kivbf_ext.h"

// What the library is told before the first block. Defaults are the
// library's own, except the temperature, which the library leaves at 0.
struct LibrarySettings {
    uint32_t sample_rate = 16000;
    float spacing_cm = 5.0f;
    uint32_t shape = KIVBF_GEOMETRY_LINEAR;
    uint32_t mode = KIVBF_MODE_ADAPTIVE;
    float angle = 0.0f;      // SetMode's look direction (modes 1, 2)
    float direction = 0.0f;  // per-block direction handed to KivBf_Run
    uint32_t temperature = 20;
    int32_t threshold_db = -20;
    uint32_t noise_estimation = 0;
    float output_gain = 0.7f;
    uint32_t vad_enable = 0;
    int32_t diagonal_loading = 10;
    uint32_t calibration = 0;
    bool has_intensity = false;
    int32_t intensity = 1;
    bool has_pf_flow = false;
    uint32_t pf_flow = 1;
    bool has_dynamic_loading = false;
    int32_t bands[6] = {};
    int32_t band_intensity[7] = {};
    bool auto_steer = false;   // kivbf_ext.h: the direction finder steers modes 0, 3, 4
    bool has_window = false;   // search window, degrees
    float window_centre = 0.0f;
    float window_half_width = 180.0f;
    bool enhanced = false;  // KivBfExt_SetEnhancedMode(1) after the other setters
};

// "KIVBF_ERR_..." for a status code, "unknown status" otherwise.
const char *StatusName(uint32_t status);

enum class OptionResult { kConsumed, kNotMine, kBad };

// Looks at argv[*index]; when it is a library option, parses it (and its
// value, advancing *index) into `settings`. kBad has printed why.
OptionResult ParseLibraryOption(int argc, char **argv, int *index, LibrarySettings *settings);

// Help text of the options ParseLibraryOption accepts.
extern const char kLibraryOptionsHelp[];

// A handle in its own working buffer, configured from LibrarySettings.
class Beamformer {
public:
    // Runs Init and the setters; on failure Ok() is false and Error() names
    // the call and status.
    explicit Beamformer(const LibrarySettings &settings);
    ~Beamformer();
    Beamformer(const Beamformer &) = delete;
    Beamformer &operator=(const Beamformer &) = delete;

    bool Ok() const { return error_.empty(); }
    const std::string &Error() const { return error_; }
    // Mode 4 is refused by SetMode but still runs; the note says so.
    const std::string &Note() const { return note_; }
    // The configured handle, for commands that read the designed state.
    AudioBfHandle Handle() const { return handle_; }
    // One block: 256 interleaved samples in, 128 out.
    uint32_t Process(const int16_t *input, int16_t *output);

private:
    bool Check(const char *call, uint32_t status);

    void *storage_ = nullptr;
    AudioBfHandle handle_ = nullptr;
    float direction_;
    std::string error_;
    std::string note_;
};

// Feeds a stream of interleaved frames through a Beamformer block by block.
// A short last block is zero-padded; the output is trimmed so that it is as
// long as the input. With compensate_latency the first block of output is
// dropped (one extra block is run at the end), so that output sample n
// matches input sample n.
class BlockStream {
public:
    BlockStream(Beamformer &bf, bool compensate_latency)
        : bf_(bf), compensate_latency_(compensate_latency) {}
    // Up to 128 frames (256 samples); appends the output now due to *out.
    uint32_t Feed(const int16_t *interleaved, int32_t frames, std::vector<int16_t> *out);
    // Appends what is still held back.
    uint32_t Finish(std::vector<int16_t> *out);

private:
    Beamformer &bf_;
    bool compensate_latency_;
    bool first_block_ = true;
    int32_t held_frames_ = 0;  // frames of the previous block not yet emitted
};

// Whole-signal convenience over BlockStream.
uint32_t ProcessSignal(Beamformer &bf, const std::vector<int16_t> &interleaved,
                       bool compensate_latency, std::vector<int16_t> *mono);
