// Build-time settings of the beamformer: the one place for the frame geometry
// and the defaults that the build fixes.
#pragma once

#include <cstdint>

namespace kivbf {

// Settings record kept in the binary so that a build can be identified.
inline constexpr char kBuildSettings[] = "BFSET##APIVERSION15##PN128MSGLEVEL07##SETBF";

inline constexpr uint32_t kPointNumber = 128;    // samples per channel per block (hop)
inline constexpr int32_t kFftSize = 256;         // analysis frame and FFT length
inline constexpr int32_t kBins = kFftSize / 2 + 1;  // 129 bins, DC..Nyquist
inline constexpr int32_t kSpectrumFloats = 2 * kBins;  // interleaved re, im
inline constexpr int32_t kMics = 2;
inline constexpr int32_t kDefaultMsgLevel = 7;

// Truncated constants used throughout the core; they are part of the output.
inline constexpr double kPi = 3.1415926;
inline constexpr double kTwoPi = 6.2831852;

}  // namespace kivbf
