// The instance both port-based hosts (LADSPA, LV2) drive: the same port
// layout (in L, in R, out, the controls of beam_controls.h, a latency
// output), connected, activated and run the same way.
#pragma once

#include <cstdint>

#include "beam_core.h"

inline constexpr uint32_t kPortInLeft = 0, kPortInRight = 1, kPortOut = 2, kPortFirstControl = 3;
inline constexpr uint32_t kPortLatency = kPortFirstControl + kControlCount;
inline constexpr uint32_t kPortCount = kPortLatency + 1;

struct PortInstance {
    BeamCore core;
    uint32_t rate = 0;
    const float *in_left = nullptr;
    const float *in_right = nullptr;
    float *out = nullptr;
    const float *control[kControlCount] = {};
    float *latency = nullptr;

    // The controls as the host's ports hold them now; unconnected ones keep
    // their defaults.
    BeamControls Controls() const {
        BeamControls controls = DefaultControls();
        for (uint32_t i = 0; i < kControlCount; ++i)
            if (control[i] != nullptr) controls.value[i] = *control[i];
        return controls;
    }

    void Connect(uint32_t port, void *data) {
        if (port == kPortInLeft) in_left = static_cast<const float *>(data);
        else if (port == kPortInRight) in_right = static_cast<const float *>(data);
        else if (port == kPortOut) out = static_cast<float *>(data);
        else if (port == kPortLatency) latency = static_cast<float *>(data);
        else if (port < kPortLatency) control[port - kPortFirstControl] = static_cast<const float *>(data);
    }

    void Activate() { (void)core.Start(rate, Controls()); }

    void Run(uint32_t frames) {
        if (latency != nullptr) *latency = kPluginLatencyFrames;
        core.Process(in_left, in_right, 1, out, frames, Controls());
    }
};
