// LADSPA front end: ports in L, in R, out, the controls of beam_controls.h,
// and a latency output. One descriptor, built at compile time.
#include <ladspa.h>

#include <new>

#include "port_instance.h"

namespace {

// Not taken by another plugin in the LADSPA registry's published ranges.
constexpr unsigned long kUniqueId = 4799;

LADSPA_Handle Instantiate(const LADSPA_Descriptor *, unsigned long rate) {
    BeamMessagesToStderr();
    auto *instance = new (std::nothrow) PortInstance;
    if (instance == nullptr) return nullptr;
    instance->rate = static_cast<uint32_t>(rate);
    if (!instance->core.Start(instance->rate, DefaultControls())) {
        delete instance;
        return nullptr;
    }
    return instance;
}

void ConnectPort(LADSPA_Handle handle, unsigned long port, LADSPA_Data *data) {
    if (port < kPortCount) static_cast<PortInstance *>(handle)->Connect(static_cast<uint32_t>(port), data);
}

void Activate(LADSPA_Handle handle) { static_cast<PortInstance *>(handle)->Activate(); }

void Run(LADSPA_Handle handle, unsigned long frames) {
    static_cast<PortInstance *>(handle)->Run(static_cast<uint32_t>(frames));
}

void Cleanup(LADSPA_Handle handle) { delete static_cast<PortInstance *>(handle); }

struct PortTables {
    LADSPA_PortDescriptor kinds[kPortCount];
    const char *names[kPortCount];
    LADSPA_PortRangeHint hints[kPortCount];
};

constexpr LADSPA_PortRangeHintDescriptor DefaultHint(const ControlInfo &info) {
    // The ranges in kControls are chosen so that one of these is exact.
    if (info.initial == 0) return LADSPA_HINT_DEFAULT_0;
    if (info.initial == 1) return LADSPA_HINT_DEFAULT_1;
    if (info.initial == info.low) return LADSPA_HINT_DEFAULT_MINIMUM;
    if (info.initial == info.high) return LADSPA_HINT_DEFAULT_MAXIMUM;
    if (info.initial == 0.75f * info.low + 0.25f * info.high) return LADSPA_HINT_DEFAULT_LOW;
    return LADSPA_HINT_DEFAULT_MIDDLE;
}

constexpr PortTables MakePortTables() {
    PortTables t{};
    t.kinds[kPortInLeft] = t.kinds[kPortInRight] = LADSPA_PORT_INPUT | LADSPA_PORT_AUDIO;
    t.kinds[kPortOut] = LADSPA_PORT_OUTPUT | LADSPA_PORT_AUDIO;
    t.names[kPortInLeft] = "In L (microphone 0)";
    t.names[kPortInRight] = "In R (microphone 1)";
    t.names[kPortOut] = "Out";
    for (uint32_t i = 0; i < kControlCount; ++i) {
        const ControlInfo &info = kControls[i];
        const unsigned long port = kPortFirstControl + i;
        t.kinds[port] = LADSPA_PORT_INPUT | LADSPA_PORT_CONTROL;
        t.names[port] = info.name;
        t.hints[port] = {LADSPA_HINT_BOUNDED_BELOW | LADSPA_HINT_BOUNDED_ABOVE | DefaultHint(info) |
                             (info.integer ? LADSPA_HINT_INTEGER : 0),
                         info.low, info.high};
    }
    t.kinds[kPortLatency] = LADSPA_PORT_OUTPUT | LADSPA_PORT_CONTROL;
    t.names[kPortLatency] = "latency";
    return t;
}

constexpr PortTables kPorts = MakePortTables();

const LADSPA_Descriptor kDescriptor = {
    kUniqueId, "kivbf", LADSPA_PROPERTY_HARD_RT_CAPABLE, "kivbf two-microphone beamformer",
    "kivbf developers", "see the kivbf package", kPortCount, kPorts.kinds, kPorts.names, kPorts.hints, nullptr,
    Instantiate, ConnectPort, Activate, Run, nullptr, nullptr, nullptr, Cleanup,
};

}  // namespace

extern "C" __attribute__((visibility("default"))) const LADSPA_Descriptor *
ladspa_descriptor(unsigned long index) {
    return index == 0 ? &kDescriptor : nullptr;
}
