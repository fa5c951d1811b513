// API version of the library: two characters, major then minor.
#pragma once

namespace kivbf {

inline constexpr char API_STRING[] = "15";

}  // namespace kivbf
