// The enhanced mode's switch (include/kivbf_ext.h).
#include "../include/kivbf_ext.h"
#include "AudioBfProcess_internal.h"
#include "debug_msglevel.h"

extern "C" uint32_t KivBfExt_SetEnhancedMode(AudioBfHandle handle, uint32_t enable) {
    if (handle == nullptr) {
        DML_PRINT_ALWAYS(DML_ERR, "[%s] %s[BF] [SetEnhancedMode] Fail! The handle is NULL!!\r\n");
        return KIVBF_ERR_HANDLE;
    }
    BfCoreState &s = *Bf_StateOf(handle);
    uint32_t status =
        Bf_CheckPrerequisites(s, BF_NEED_INIT | BF_NEED_CONFIG | BF_NEED_SHAPE, "SetEnhancedMode");
    if (status != KIVBF_OK) return status;
    status = Bf_HandleCheck(s, s.debug_level, "SetEnhancedMode");
    if (status != KIVBF_OK) return status;
    if (enable > 1) {
        DML_PRINT(s.debug_level, DML_ERR,
                  "[%s] %s[BF] [SetEnhancedMode] Fail! enable can only be 0 or 1!\t\n");
        return KIVBFEXT_ERR_ENHANCED_SWITCH;
    }
    if (enable == 1)
        Bf_EnhancedStart(s);
    else
        s.enhanced.enabled = 0;
    return KIVBF_OK;
}

extern "C" uint32_t KivBfExt_GetEnhancedMode(AudioBfHandle handle, uint32_t *enabled) {
    if (handle == nullptr) {
        DML_PRINT_ALWAYS(DML_ERR, "[%s] %s[BF] [GetEnhancedMode] Fail! The handle is NULL!!\r\n");
        return KIVBF_ERR_HANDLE;
    }
    if (enabled == nullptr) {
        DML_PRINT_ALWAYS(DML_ERR, "[%s] %s[BF] [GetEnhancedMode] Fail! The pointer is NULL!!\r\n");
        return KIVBF_ERR_NULL_POINTER;
    }
    const BfCoreState &s = *Bf_StateOf(handle);
    const uint32_t status = Bf_CheckPrerequisites(s, BF_NEED_INIT, "GetEnhancedMode");
    if (status != KIVBF_OK) return status;
    *enabled = s.enhanced.enabled == 1 ? 1u : 0u;
    return KIVBF_OK;
}
