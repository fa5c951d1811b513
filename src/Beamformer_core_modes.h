// What each operating mode runs: KivBf_Run and the stages ask this table
// rather than testing mode numbers.
#pragma once

#include <cstdint>

#include "Beamformer_core.h"

namespace kivbf {

struct ModeTraits {
    bool adaptive;        // noise estimate and MVDR weights from the noise covariance
    bool post_filter;     // coherence, direction weights and the post-filter
    bool band_weighting;  // direction weights scaled per band; the post-filter's raw
                          // gain is this block's (otherwise the last one is kept)
    bool canceller;       // adaptive sidelobe canceller after the beam sum
};

// Rows by mode: 0 adaptive MVDR, 1 fixed beam, 2 fixed beam and canceller,
// 3 adaptive with post-filter, 4 as 3 without band weighting.
inline constexpr ModeTraits kModeTraits[] = {
    {true, false, false, false},
    {false, false, false, false},
    {false, false, false, true},
    {true, true, true, false},
    {true, true, false, false},
};
inline constexpr int32_t kModeCount = sizeof kModeTraits / sizeof kModeTraits[0];

// A mode outside the table runs none of the optional stages.
inline ModeTraits TraitsOf(const BfCoreState &s) {
    return s.mode >= 0 && s.mode < kModeCount ? kModeTraits[s.mode] : ModeTraits{};
}

}  // namespace kivbf
