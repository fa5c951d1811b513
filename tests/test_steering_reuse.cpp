// The target steering table is kept between blocks while its delays hold. A
// table that outlives a change of direction, temperature or mode would steer
// the post-filter at the old talker position without any other symptom, so
// each change is checked against a state that builds the table afresh.
#include <gtest/gtest.h>

#include <cstring>

#include "AudioBfProcess_internal.h"
#include "support.h"

namespace {

using kivbf_test::MakeConfiguredHandle;
using kivbf_test::WorkingBuffer;

void SetTemperature(AudioBfHandle handle, uint32_t temperature) {
    AudioBfConfig config = kivbf_test::CurrentConfig(handle);
    config.temperature = temperature;
    ASSERT_EQ(KivBf_SetConfig(handle, &config), KIVBF_OK);
}

// The table a state that never built one makes for this angle and temperature.
void ExpectFreshTable(const BfCoreState &kept, float angle, uint32_t temperature) {
    WorkingBuffer buffer;
    AudioBfHandle handle = MakeConfiguredHandle(buffer);
    SetTemperature(handle, temperature);
    ASSERT_EQ(KivBf_SetMode(handle, KIVBF_MODE_POSTFILTER, 0.0f), KIVBF_OK);
    BfCoreState &fresh = *Bf_StateOf(handle);
    fresh.target_angle = angle;
    Bf_TargetSteering(fresh);
    EXPECT_EQ(std::memcmp(kept.target_steering, fresh.target_steering, sizeof fresh.target_steering),
              0)
        << "angle " << angle << ", temperature " << temperature;
}

TEST(SteeringReuse, TableFollowsDirectionTemperatureAndModeChanges) {
    WorkingBuffer buffer;
    AudioBfHandle handle = MakeConfiguredHandle(buffer);
    ASSERT_EQ(KivBf_SetMode(handle, KIVBF_MODE_POSTFILTER, 0.0f), KIVBF_OK);
    BfCoreState &s = *Bf_StateOf(handle);

    s.target_angle = 60.0f;
    Bf_TargetSteering(s);
    Bf_TargetSteering(s);  // unchanged: reused
    ExpectFreshTable(s, 60.0f, 20);

    s.target_angle = 135.0f;
    Bf_TargetSteering(s);
    ExpectFreshTable(s, 135.0f, 20);

    SetTemperature(handle, 35);
    Bf_TargetSteering(s);
    ExpectFreshTable(s, 135.0f, 35);

    // Mode 0 moves the delays without building a table; back in the
    // post-filter mode the table must catch up.
    ASSERT_EQ(KivBf_SetMode(handle, KIVBF_MODE_ADAPTIVE, 0.0f), KIVBF_OK);
    s.target_angle = 100.0f;
    Bf_TargetSteering(s);
    ASSERT_EQ(KivBf_SetMode(handle, KIVBF_MODE_POSTFILTER, 0.0f), KIVBF_OK);
    Bf_TargetSteering(s);
    ExpectFreshTable(s, 100.0f, 35);
}

}  // namespace
