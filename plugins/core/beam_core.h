// The plugin core shared by the LADSPA, LV2 and GStreamer front ends: takes
// any number of stereo frames per call (float or int16), gathers 128-frame
// blocks, runs the beamformer and hands back as many mono frames, 127 frames
// (kPluginLatencyFrames - 128) later than the kivbf tool's output.
//
// Control changes take effect at the next KivBf_Run, in the same way as the
// setter called before that block: mode and angle through KivBf_SetMode,
// output gain and VAD through KivBf_SetConfig, intensity through
// KivBf_SetAdaptiveIntensity, automatic steering and its search window
// through KivBfExt_SetAutoSteer and KivBfExt_SetSearchWindow, spacing and
// shape through a fresh Init.
// Only Start allocates.
#pragma once

#include <cstddef>
#include <cstdint>

#include "AudioBfProcess.h"
#include "beam_controls.h"

// True for the rates the library runs at.
bool BeamRateSupported(uint32_t rate);

// "kivbf: 44100 Hz is not supported ..." into text.
void BeamRateRefusal(uint32_t rate, char *text, size_t size);

// Sends the library's messages to standard error (once per process).
void BeamMessagesToStderr();

class BeamCore {
public:
    BeamCore() = default;
    ~BeamCore();
    BeamCore(const BeamCore &) = delete;
    BeamCore &operator=(const BeamCore &) = delete;

    // Allocates the working buffer and configures it; false (and a message
    // on stderr) for an unsupported rate or a failed setter.
    bool Start(uint32_t rate, const BeamControls &controls);
    // Back to the state right after Start, with the current controls.
    bool Restart();

    // frames stereo frames in (left[i * stride], right[i * stride]), the same
    // number of mono frames out; controls apply from the next block on.
    void Process(const float *left, const float *right, size_t stride, float *out, size_t frames,
                 const BeamControls &controls);
    void Process(const int16_t *left, const int16_t *right, size_t stride, int16_t *out,
                 size_t frames, const BeamControls &controls);

private:
    template <typename Sample>
    void Run(const Sample *left, const Sample *right, size_t stride, Sample *out, size_t frames,
             const BeamControls &controls);
    bool Configure();
    void ApplyChanges();
    void RunBlock();

    void *storage_ = nullptr;
    AudioBfHandle handle_ = nullptr;
    uint32_t rate_ = 0;
    BeamControls applied_{};  // what the handle runs with
    BeamControls pending_{};  // what the host asked for last
    int16_t block_[2 * KIVBF_POINT_NUMBER] = {};  // interleaved input being gathered
    int16_t result_[KIVBF_POINT_NUMBER] = {};     // output of the last block
    uint32_t fill_ = 0;                           // frames gathered in block_
};
