// Starting values of the core's adaptive arrays, and the decibel table that
// turns the noise gate into an amplitude.
#include "Beamformer_core.h"
#include "Beamformer_core_presets.h"

#include <iterator>

#include "vector_kernels.h"

using namespace kivbf;

namespace {

struct VolTableRow {
    int32_t db;
    int16_t amplitude_q15;  // 32767 * 10^(db / 20), cut toward zero
};

constexpr VolTableRow kDbToQ15[] = {
    {0, 32767},  {-1, 29203}, {-2, 26027}, {-3, 23197}, {-4, 20674}, {-5, 18426}, {-6, 16422},
    {-7, 14636}, {-8, 13044}, {-9, 11626}, {-10, 10361}, {-11, 9234}, {-12, 8230}, {-13, 7335},
    {-14, 6537}, {-15, 5826}, {-16, 5193}, {-17, 4628}, {-18, 4125}, {-19, 3676}, {-20, 3276},
    {-21, 2920}, {-22, 2602}, {-23, 2319}, {-24, 2067}, {-25, 1842}, {-26, 1642}, {-27, 1463},
    {-28, 1304}, {-29, 1162}, {-30, 1036}, {-31, 923},  {-32, 823},  {-33, 733},  {-34, 653},
    {-35, 582},  {-36, 519},  {-37, 462},  {-38, 412},  {-39, 367},  {-40, 327},  {-41, 292},
    {-42, 260},  {-43, 231},  {-44, 206},  {-45, 184},  {-46, 164},  {-47, 146},  {-48, 130},
    {-49, 116},  {-50, 103},  {-51, 92},   {-52, 82},   {-53, 73},   {-54, 65},   {-55, 58},
    {-56, 51},   {-57, 46},   {-58, 41},   {-59, 36},   {-60, 32},   {-61, 29},   {-62, 26},
    {-63, 23},   {-64, 20},   {-65, 18},   {-66, 16},   {-67, 14},   {-68, 13},   {-69, 11},
    {-70, 10},   {-71, 9},    {-72, 8},    {-73, 7},    {-74, 6},    {-75, 5},    {-76, 4},
    {-77, 3},    {-78, 2},    {-79, 1},    {-80, 1},
};
static_assert(std::size(kDbToQ15) == 81);

// Default edges of the dynamic-loading bands, in bins.
constexpr int32_t intensity_band[6] = {3, 24, 40, 64, 80, 128};

}  // namespace

int32_t Bf_VolTableLookup(int32_t db) {
    if (db > kDbToQ15[0].db) return kDbToQ15[0].amplitude_q15;
    const VolTableRow &last = kDbToQ15[std::size(kDbToQ15) - 1];
    if (db < last.db) return last.amplitude_q15;
    for (const VolTableRow &row : kDbToQ15)
        if (row.db == db) return row.amplitude_q15;
    return 0;
}

int32_t Bf_CoreInit(BfCoreState &s) {
    for (int32_t i = 0; i < 6; ++i) s.band[i] = intensity_band[i];
    vec_fill(s.pf_gain, 1.0f, kBins);
    vec_fill(s.bin_loading, s.loading_base, kBins);
    vec_fill(s.ola_buffer, 0.0f, kFftSize);
    for (int32_t &intensity : s.dl_intensity) intensity = 1;

    for (int32_t k = 0; k < kBins; ++k)
        s.bin_frequency[k] = static_cast<float>(
            static_cast<float>(static_cast<uint32_t>(k) * s.sample_rate) / 256.0);

    for (float(&weights)[kSpectrumFloats] : s.beam_weights)
        for (int32_t k = 0; k < kBins; ++k) {
            weights[2 * k] = 0.5f;
            weights[2 * k + 1] = 0.0f;
        }

    const IntensityPreset &preset = kIntensityPresets[kDefaultIntensity];
    s.intensity_scale = preset.scale;
    s.adaptive_intensity = kDefaultIntensity;
    s.intensity_floor = preset.floor;

    for (float(&memory)[kBins] : s.prior_snr_memory) vec_fill(memory, 1.0f, kBins);

    Bf_ResetCovariance(s);
    Bf_ResetCanceller(s);

    s.direction_slope = preset.limit;
    s.mode3_scale = kMode3Scale;
    s.pf_mix = kPfMix;

    Bf_SetUnityGains(s);

    s.fft_record.ne10_init_flag = 0;
    // Without the transform's set-up no block can run.
    return FFT_Init(&s.fft_record) ? 0 : -1;
}
