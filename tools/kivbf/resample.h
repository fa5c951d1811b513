// Sample-rate conversion for the file front end: recordings at rates the
// library does not run at are converted to the nearest one and back.
#pragma once

#include <cstdint>
#include <vector>

// The supported rate nearest to `rate` (ties go to the higher one).
uint32_t NearestSupportedRate(uint32_t rate);

// True when this build can resample (libsoxr was found).
bool ResamplerAvailable();

// Interleaved int16 with `channels` channels from one rate to another,
// rounded and saturated without dither; false (message on stderr) on failure.
bool Resample(const std::vector<int16_t> &in, unsigned channels, uint32_t from, uint32_t to,
              std::vector<int16_t> *out);
