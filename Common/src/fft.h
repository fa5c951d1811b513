// Real-FFT wrapper: one 256-point real FFT and its inverse, working in the
// record and in a region of the caller's working buffer (no heap).
//
// Spectrum layout: N/2 + 1 bins as N + 2 floats, Re[0], Im[0], ..., Re[N/2],
// Im[N/2]. Forward is unscaled and writes Im[0] = Im[N/2] = 0; the inverse
// scales by 1/N, ignores Im[0] and Im[N/2] and leaves the caller's spectrum
// as it was until it overwrites the array with the time signal.
#pragma once

#include <cstdint>

struct FftRecord {
    alignas(16) float fft_scratch[258];  // forward: half-length spectrum between the complex transform and the split
    void *fft_Ne10_cfg;      // FFT region of the working buffer; holds the transform's work arrays
    int32_t ne10_init_flag;  // 1 once FFT_Init has accepted the length and the region
    int32_t fft_size;        // transform length N (256)
};

inline constexpr int32_t FFT_FORWARD = 1;
inline constexpr int32_t FFT_INVERSE = -1;

// Size in bytes of the FFT region for an n-point transform:
// 18 n + 96 (n / 32 + 1) + 556, that is 6028 for n = 256.
constexpr uint32_t FFT_GetBufferSize(int32_t n) {
    return static_cast<uint32_t>(18 * n + 96 * (n / 32 + 1) + 556);
}

// Prepares the region record->fft_Ne10_cfg points to for record->fft_size
// points and sets ne10_init_flag. Only N = 256 is built; false (with a
// message) when the record or region is missing or the length is another.
// A second call on an initialised record changes nothing and returns true.
bool FFT_Init(FftRecord *record);
// In-place transform of `data` (n + 2 floats); direction FFT_FORWARD or
// FFT_INVERSE, anything else does nothing, as does an n other than the
// record's 256. ip and w are only tested for null.
void FFT_Rdft(FftRecord *record, int32_t n, int32_t direction, float *data, const int32_t *ip,
              const float *w);
// Clears ne10_init_flag.
void FFT_Free(FftRecord *record);
