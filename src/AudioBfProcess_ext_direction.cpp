// Extension calls: automatic steering and the direction finder.
#include <cmath>

#include "../include/kivbf_ext.h"
#include "AudioBfProcess_internal.h"
#include "debug_msglevel.h"

namespace {

// An initialised handle with an intact marker; prints like the other calls.
uint32_t CheckHandle(AudioBfHandle handle, const char *name) {
    if (handle == nullptr) {
        DML_PRINT_ALWAYS(DML_ERR, "[%s] %s[BF] [Ext] Fail! The handle is NULL!!\r\n");
        return KIVBF_ERR_HANDLE;
    }
    const BfCoreState &s = *Bf_StateOf(handle);
    const uint32_t status = Bf_CheckPrerequisites(s, BF_NEED_INIT, name);
    if (status != KIVBF_OK) return status;
    return Bf_HandleCheck(s, s.debug_level, name);
}

uint32_t SetSwitch(AudioBfHandle handle, uint32_t on, uint32_t BfLocateState::*field, const char *name) {
    const uint32_t status = CheckHandle(handle, name);
    if (status != KIVBF_OK) return status;
    BfCoreState &s = *Bf_StateOf(handle);
    if (on > 1) {
        DML_PRINT(s.debug_level, DML_ERR, "[%s] %s[BF] [%s] Fail! The switch must be 0 or 1!!\r\n", name);
        return KIVBFEXT_ERR_AUTO_STEER;
    }
    s.locate.*field = on;
    return KIVBF_OK;
}

}  // namespace

extern "C" {

uint32_t KivBfExt_SetAutoSteer(AudioBfHandle handle, uint32_t on) {
    return SetSwitch(handle, on, &BfLocateState::auto_steer, "SetAutoSteer");
}

uint32_t KivBfExt_SetDirectionFinder(AudioBfHandle handle, uint32_t on) {
    return SetSwitch(handle, on, &BfLocateState::finder_on, "SetDirectionFinder");
}

uint32_t KivBfExt_SetSearchWindow(AudioBfHandle handle, float centre_deg, float half_width_deg) {
    const uint32_t status = CheckHandle(handle, "SetSearchWindow");
    if (status != KIVBF_OK) return status;
    BfCoreState &s = *Bf_StateOf(handle);
    if (!std::isfinite(centre_deg) || !std::isfinite(half_width_deg) || centre_deg < -90.0f ||
        centre_deg > 90.0f || !(half_width_deg > 0.0f) || half_width_deg > 180.0f) {
        DML_PRINT(s.debug_level, DML_ERR,
                  "[%s] %s[BF] [SetSearchWindow] Fail! Centre must be in -90..90 and half-width "
                  "in (0, 180]!!\r\n");
        return KIVBFEXT_ERR_SEARCH_WINDOW;
    }
    Bf_LocateSetWindow(s, centre_deg, half_width_deg);
    return KIVBF_OK;
}

uint32_t KivBfExt_GetDirection(AudioBfHandle handle, float *degrees, float *confidence) {
    const uint32_t status = CheckHandle(handle, "GetDirection");
    if (status != KIVBF_OK) return status;
    const BfCoreState &s = *Bf_StateOf(handle);
    if (degrees != nullptr) *degrees = s.locate.direction;
    if (confidence != nullptr) *confidence = s.locate.confidence;
    return KIVBF_OK;
}

}  // extern "C"
