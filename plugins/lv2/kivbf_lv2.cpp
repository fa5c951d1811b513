// LV2 front end: the same ports as the LADSPA plugin (kivbf.ttl), the
// latency output designated lv2:latency.
#include <lv2/core/lv2.h>

#include <new>

#include "port_instance.h"

namespace {

constexpr const char *kUri = "urn:kivbf:beamformer";

LV2_Handle Instantiate(const LV2_Descriptor *, double rate, const char *,
                       const LV2_Feature *const *) {
    BeamMessagesToStderr();
    auto *instance = new (std::nothrow) PortInstance;
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
    static_cast<PortInstance *>(handle)->Connect(static_cast<uint32_t>(port), data);
}

void Activate(LV2_Handle handle) { static_cast<PortInstance *>(handle)->Activate(); }

void Run(LV2_Handle handle, uint32_t frames) {
    static_cast<PortInstance *>(handle)->Run(static_cast<uint32_t>(frames));
}

void Cleanup(LV2_Handle handle) { delete static_cast<PortInstance *>(handle); }

const LV2_Descriptor kDescriptor = {kUri, Instantiate, ConnectPort, Activate,
                                    Run,  nullptr,     Cleanup,     nullptr};

}  // namespace

extern "C" LV2_SYMBOL_EXPORT const LV2_Descriptor *lv2_descriptor(uint32_t index) {
    return index == 0 ? &kDescriptor : nullptr;
}
