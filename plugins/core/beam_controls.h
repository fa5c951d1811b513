// The controls every plugin front end offers, in port order, with their
// ranges and defaults: the one table LADSPA, LV2 and GStreamer read (the LV2
// .ttl repeats it). Ranges are chosen so that LADSPA's few default hints
// (bounds, 0, 1, 1/4 and 1/2 of the range) land on the defaults.
#pragma once

#include <cstdint>

enum BeamControl : uint32_t {
    kControlMode,
    kControlAngle,
    kControlSpacing,
    kControlShape,
    kControlOutputGain,
    kControlVad,
    kControlIntensity,
    kControlAutoSteer,
    kControlWindowCentre,
    kControlWindowHalfWidth,
    kControlCount,
};

struct ControlInfo {
    const char *symbol;  // LV2 symbol, GStreamer property (with '-' for '_')
    const char *name;    // what hosts show
    float low;
    float high;
    float initial;  // the kivbf tool's default
    bool integer;
};

inline constexpr ControlInfo kControls[kControlCount] = {
    {"mode", "Mode (0 adaptive, 1 fixed, 2 fixed + canceller, 3 post-filter)", 0, 3, 0, true},
    {"angle", "Look angle (degrees, 0 = broadside)", -90, 90, 0, false},
    {"spacing", "Microphone spacing (cm)", 1, 17, 5, false},
    {"shape", "Array shape (0 linear, 1 circular)", 0, 1, 0, true},
    {"output_gain", "Output gain (0.7 is unity)", 0.4f, 1, 0.7f, false},
    {"vad", "VAD gate (0 level gate, 1 VAD)", 0, 1, 0, true},
    {"intensity", "Adaptive intensity", 0, 4, 1, true},
    {"auto_steer", "Automatic steering (modes 0 and 3 follow the talker)", 0, 1, 0, true},
    {"window_centre", "Steering search window centre (degrees)", -90, 90, 0, false},
    {"window_half_width", "Steering search window half-width (degrees, 180 = everywhere)", 1, 180,
     180, false},
};

// The values of all controls, as a host hands them over.
struct BeamControls {
    float value[kControlCount];
};

inline BeamControls DefaultControls() {
    BeamControls controls{};
    for (uint32_t i = 0; i < kControlCount; ++i) controls.value[i] = kControls[i].initial;
    return controls;
}

// Latency reported to hosts, in frames: the library's one block plus the
// 127 frames the plugin gathers before a block is complete.
inline constexpr uint32_t kPluginLatencyFrames = 2 * 128 - 1;
