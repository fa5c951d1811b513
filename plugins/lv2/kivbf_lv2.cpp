// LV2 front end: the same ports as the LADSPA plugin (kivbf.ttl), the
// latency output designated lv2:latency.
#include <lv2/core/lv2.h>

#include <new>

#include "beam_core.h"

namespace {

constexpr const char *kUri = "urn:kivbf:beamformer";
constexpr uint32_t kPortInLeft = 0, kPortInRight = 1, kPortOut = 2, kPortFirstControl = 3;
constexpr uint32_t kPortLatency = kPortFirstControl + kControlCount;

struct Instance {
    BeamCore core;
    uint32_t rate = 0;
    const float *in_left = nullptr;
    const float *in_right = nullptr;
    float *out = nullptr;
    const float *control[kControlCount] = {};
    float *latency = nullptr;
};

BeamControls ReadControls(const Instance &instance) {
    BeamControls controls = DefaultControls();
    for (uint32_t i = 0; i < kControlCount; ++i)
        if (instance.control[i] != nullptr) controls.value[i] = *instance.control[i];
    return controls;
}

LV2_Handle Instantiate(const LV2_Descriptor *, double rate, const char *,
                       const LV2_Feature *const *) {
    BeamMessagesToStderr();
    auto *instance = new (std::nothrow) Instance;
    if (instance == nullptr) return nullptr;
    instance->rate = static_cast<uint32_t>(rate);
    if (static_cast<double>(instance->rate) != rate ||
        !instance->core.Start(instance->rate, DefaultControls())) {
        delete instance;
        return nullptr;
    }
    return instance;
}

void ConnectPort(LV2_Handle handle, uint32_t port, void *data) {
    auto *instance = static_cast<Instance *>(handle);
    if (port == kPortInLeft) instance->in_left = static_cast<const float *>(data);
    else if (port == kPortInRight) instance->in_right = static_cast<const float *>(data);
    else if (port == kPortOut) instance->out = static_cast<float *>(data);
    else if (port == kPortLatency) instance->latency = static_cast<float *>(data);
    else if (port < kPortLatency) instance->control[port - kPortFirstControl] = static_cast<const float *>(data);
}

void Activate(LV2_Handle handle) {
    auto *instance = static_cast<Instance *>(handle);
    (void)instance->core.Start(instance->rate, ReadControls(*instance));
}

void Run(LV2_Handle handle, uint32_t frames) {
    auto *instance = static_cast<Instance *>(handle);
    if (instance->latency != nullptr) *instance->latency = kPluginLatencyFrames;
    instance->core.Process(instance->in_left, instance->in_right, 1, instance->out, frames,
                           ReadControls(*instance));
}

void Cleanup(LV2_Handle handle) { delete static_cast<Instance *>(handle); }

const LV2_Descriptor kDescriptor = {kUri, Instantiate, ConnectPort, Activate,
                                    Run,  nullptr,     Cleanup,     nullptr};

}  // namespace

extern "C" LV2_SYMBOL_EXPORT const LV2_Descriptor *lv2_descriptor(uint32_t index) {
    return index == 0 ? &kDescriptor : nullptr;
}
