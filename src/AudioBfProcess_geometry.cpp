// Where the microphones are: KivBf_SetShape, KivBf_SetArbitraryShape and
// KivBf_GetArrayPosition. Positions are metres inside, centimetres outside.
#include <cmath>

#include "math_functions.h"
#include "AudioBfProcess_internal.h"
#include "debug_msglevel.h"

using namespace kivbf;

namespace {

constexpr int32_t kShapeSettable = 2;  // run_flag before the first block

// The opening of both shape calls: init, config, and no block processed since
// Init/Reset; then a shape already in force is announced as overwritten (it
// stays usable if the call fails) or the shape flag cleared; then the handle.
uint32_t OpenShapeCall(BfCoreState &s, const char *name, const char *overwrite_warning) {
    if (uint32_t status = Bf_CheckPrerequisites(s, BF_NEED_INIT | BF_NEED_CONFIG, name);
        status != KIVBF_OK)
        return status;
    if (s.run_flag != kShapeSettable) {
        DML_PRINT(s.debug_level, DML_ERR,
                  "[%s] %s[BF] [%s] Fail! Can't not change array shape during run process!\t\n",
                  name);
        return KIVBF_ERR_SHAPE_AFTER_RUN;
    }
    if (s.shape_flag == 1)
        DML_PRINT(s.debug_level, DML_WRN, overwrite_warning);
    else
        s.shape_flag = 0;
    return Bf_HandleCheck(s, s.debug_level, name);
}

void PlaceLinear(BfCoreState &s) {
    const float d = s.microphone_distance;
    for (int32_t m = 0; m < kMics; ++m) {
        s.mic_position[m][0] = d * (static_cast<float>(m) - 0.5f);
        s.mic_position[m][1] = 0.0f;
    }
}

// On a circle of diameter d: microphone 0 at 180 degrees, microphone 1 at 0.
// The truncated pi leaves microphone 0 a tiny positive y; the beam design
// has always seen it, so it stays.
void PlaceCircular(BfCoreState &s) {
    const double radius = s.microphone_distance / 2.0;
    double turn = 1.0;
    for (int32_t m = 0; m < kMics; ++m, turn -= 1.0) {
        s.mic_position[m][0] = static_cast<float>(radius * math::Cos(turn * kPi));
        s.mic_position[m][1] = static_cast<float>(radius * math::Sin(turn * kPi));
    }
}

void DeriveDistances(BfCoreState &s) {
    for (int32_t i = 0; i < kMics; ++i) {
        s.mic_distance_matrix[i][i] = 0.0f;
        for (int32_t j = i + 1; j < kMics; ++j) {
            const double dx = static_cast<double>(s.mic_position[i][0]) - s.mic_position[j][0];
            const double dy = static_cast<double>(s.mic_position[i][1]) - s.mic_position[j][1];
            const auto distance = static_cast<float>(std::sqrt(dx * dx + dy * dy));
            s.mic_distance_matrix[i][j] = distance;
            s.mic_distance_matrix[j][i] = distance;
        }
    }
    for (int32_t m = 0; m < kMics; ++m) {
        s.mic_relative_position[m][0] = s.mic_position[m][0] - s.mic_position[0][0];
        s.mic_relative_position[m][1] = s.mic_position[m][1] - s.mic_position[0][1];
    }
}

// Arbitrary positions, centred on their centroid. `array_pos` holds x, y per
// microphone in centimetres. Only a build for more than two microphones
// reaches this: a pair is always placed by KivBf_SetShape.
uint32_t PlaceArbitrary(BfCoreState &s, const float *array_pos) {
    const auto x = [array_pos](int32_t m) { return array_pos[2 * m]; };
    const auto y = [array_pos](int32_t m) { return array_pos[2 * m + 1]; };
    if (x(0) == x(1) && y(0) == y(1)) {
        DML_PRINT(s.debug_level, DML_ERR,
                  "[%s] %s[BF] [Set_ArbitraryShape] Fail! Some microphones are at same position !"
                  "\t\n");
        return KIVBF_ERR_ARRAY_GEOMETRY;
    }
    float mean_value[2] = {0.0f, 0.0f};
    for (int32_t m = 0; m < kMics; ++m) {
        mean_value[0] += x(m) / 2.0f;
        mean_value[1] += y(m) / 2.0f;
    }
    for (int32_t m = 0; m < kMics; ++m) {
        s.mic_position[m][0] = (x(m) - mean_value[0]) / 100.0f;
        s.mic_position[m][1] = (y(m) - mean_value[1]) / 100.0f;
    }
    // Collinear with microphones 0 and 1: linear; otherwise circular.
    double slope[kMics] = {};
    for (int32_t m = 1; m < kMics; ++m) {
        const float x_diff = x(m) - x(0);
        const float y_diff = y(m) - y(0);
        slope[m] = x_diff == 0.0f   ? 90.0
                   : y_diff == 0.0f ? 0.0
                                    : math::Atan(y_diff / x_diff) / kPi * 180.0;
    }
    s.array_geometry = 0;
    for (int32_t m = 2; m < kMics; ++m)
        if (slope[m] != slope[1]) s.array_geometry = 1;
    return KIVBF_OK;
}

}  // namespace

extern "C" {

uint32_t KivBf_SetShape(AudioBfHandle handle, uint32_t array_geometry) {
    if (Bf_IsNull(handle, "[%s] %s[BF] [SetShape] Fail! The handle is NULL!!\r\n"))
        return KIVBF_ERR_HANDLE;
    BfCoreState &s = *Bf_StateOf(handle);
    if (uint32_t status = OpenShapeCall(
            s, "SetShape",
            "[%s] %s[BF] [SetShape] Warning!You may have called KivBf_SetArbitraryShape "
            "first. The array geometry will be overwrite !\t\n");
        status != KIVBF_OK)
        return status;
    if (array_geometry != KIVBF_GEOMETRY_LINEAR && array_geometry != KIVBF_GEOMETRY_CIRCULAR) {
        DML_PRINT(s.debug_level, DML_ERR,
                  "[%s] %s[BF] [SetShape] Fail! The array_geometry setting is not allow, it should "
                  "be 0 or 1 !!\r\n");
        return KIVBF_ERR_ARRAY_GEOMETRY;
    }

    s.array_geometry = array_geometry;
    if (array_geometry == KIVBF_GEOMETRY_LINEAR)
        PlaceLinear(s);
    else
        PlaceCircular(s);
    DeriveDistances(s);
    s.shape_flag = 1;
    return KIVBF_OK;
}

uint32_t KivBf_SetArbitraryShape(AudioBfHandle handle, const float *array_pos) {
    if (Bf_IsNull(handle, "[%s] %s[BF] [SetArbitraryShape] Fail! The handle is NULL!!\r\n"))
        return KIVBF_ERR_HANDLE;
    if (Bf_IsNull(array_pos, "[%s] %s[BF] [SetArbitraryShape] Fail! The array_pos is NULL!!\r\n"))
        return KIVBF_ERR_NULL_POINTER;
    BfCoreState &s = *Bf_StateOf(handle);
    if (uint32_t status = OpenShapeCall(
            s, "SetArbitraryShape",
            "[%s] %s[BF] [SetArbitraryShape] Warning!You may have called KivBf_SetShape "
            "first.It is going to overwrite the array geometry !\t\n");
        status != KIVBF_OK)
        return status;
    // A pair is placed only by KivBf_SetShape; free positions are for larger
    // arrays.
    if (s.mic_number == static_cast<uint32_t>(kMics)) {
        DML_PRINT(s.debug_level, DML_ERR,
                  "[%s] %s[BF] [Set_ArbitraryShape] Fail! Two microphone array must be linear. "
                  "Can't use Arbitrary shape !\t\n");
        return KIVBF_ERR_ARRAY_GEOMETRY;
    }

    if (uint32_t status = PlaceArbitrary(s, array_pos); status != KIVBF_OK) return status;
    DeriveDistances(s);
    s.shape_flag = 1;
    return KIVBF_OK;
}

uint32_t KivBf_GetArrayPosition(AudioBfHandle handle, float *array_pos) {
    if (Bf_IsNull(handle, "[%s] %s[BF] [GetArrayPosition] Fail! The handle is NULL!!\r\n"))
        return KIVBF_ERR_HANDLE;
    if (Bf_IsNull(array_pos, "[%s] %s[BF] [GetArrayPosition] Fail! The array_pos is NULL!!\r\n"))
        return KIVBF_ERR_NULL_POINTER;
    const BfCoreState &s = *Bf_StateOf(handle);
    if (uint32_t status = Bf_CheckPrerequisites(s, BF_NEED_INIT | BF_NEED_CONFIG, "GetArrayPosition");
        status != KIVBF_OK)
        return status;
    if (s.shape_flag != 1) {
        DML_PRINT(s.debug_level, DML_ERR,
                  "[%s] %s[BF] [GetArrayPosition] Fail! Please call KivBf_SetShape or "
                  "KivBf_SetArbitraryShape first!\t\n");
        return KIVBF_ERR_NO_SHAPE;
    }
    if (uint32_t status = Bf_HandleCheck(s, s.debug_level, "GetArrayPosition"); status != KIVBF_OK)
        return status;

    // Three floats per microphone on the way out (x, y, z), two on the way in.
    for (int32_t m = 0; m < kMics; ++m) {
        array_pos[3 * m] = static_cast<float>(s.mic_position[m][0] * 100.0);
        array_pos[3 * m + 1] = static_cast<float>(s.mic_position[m][1] * 100.0);
        array_pos[3 * m + 2] = 0.0f;
    }
    return KIVBF_OK;
}

}  // extern "C"
