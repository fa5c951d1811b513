// The beamformer's core state and its stages.
//
// BfCoreState is the first region of the caller's working buffer; the handle
// points at it. It holds no owning pointers, so a byte copy is a valid copy
// (the dump FILE pointers and region addresses are borrowed). Fields are
// grouped by the stage that owns them, in the order a block meets them.
// Complex bin arrays hold 129 bins as 258 floats (re, im, ...); arrays the
// vector kernels stream over are 16-byte aligned.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <type_traits>

#include "../Common/src/fft.h"
#include "../LibGen_Tool/bf_internal_parameter.h"
#include "Beamformer_core_enhanced.h"

namespace kivbf {
inline constexpr int32_t kHistoryBlocks = 5;   // blocks averaged by the coherence stages
inline constexpr int32_t kSmoothTaps = 22;     // post-filter smoothing kernel
inline constexpr int32_t kPadLength = kBins + 2 * (kSmoothTaps - 1);  // 171
inline constexpr float kPcmScale = 32768.0f;     // 16-bit PCM per unit of the internal full scale
inline constexpr float kSpectrumScale = 256.0f;  // spectra are measured at 256 times their scale
inline constexpr float kSpectrumPowerScale = kSpectrumScale * kSpectrumScale;  // their power: 65536
}  // namespace kivbf

#define BF_ALIGN alignas(16)

namespace kivbf {
inline constexpr int32_t kLocateGrid = 32;     // candidate directions, uniform in sin(angle)
// The finder's band: consecutive bins up to the spacing's aliasing limit (at
// most kLocateLowMaxBins), then every kLocateHighStride-th bin above it (at
// most kLocateHighMaxBins).
inline constexpr int32_t kLocateLowMaxBins = 64;
inline constexpr int32_t kLocateHighMaxBins = 37;
inline constexpr int32_t kLocateHighStride = 2;
inline constexpr int32_t kLocateMaxBins = kLocateLowMaxBins + kLocateHighMaxBins;

// 1.0 in every bin: the unit numerators and the unit gain that per-bin
// stages read as arrays.
alignas(16) inline constexpr std::array<float, kBins> kUnitBins = [] {
    std::array<float, kBins> ones{};
    ones.fill(1.0f);
    return ones;
}();
}  // namespace kivbf

// Direction finder and automatic steering (Beamformer_core_locate.cpp). All
// zero is off: nothing here is read while neither switch is on.
struct BfLocateState {
    uint32_t auto_steer;        // 1: modes 0, 3, 4 steer at the estimate (KivBfExt_SetAutoSteer)
    uint32_t finder_on;         // 1: the finder runs without steering
    uint32_t window_on;         // 1: the answer is confined to [window_low, window_high]
    float window_low;           // sin of the window's edges, -1..1
    float window_high;
    // What the grid was built from; a change rebuilds it and restarts tracking.
    int32_t built;
    float built_speed;          // m/s
    float built_axis;           // metres, microphone 1's x minus microphone 0's
    uint32_t built_rate;        // Hz
    int32_t first_bin;          // the band the finder weighs: its first bin,
    int32_t low_count;          // how many consecutive bins from it,
    int32_t bin_count;          // and in all, with the strided ones above (<= kLocateMaxBins)
    int32_t blocks_seen;        // since the build, counted up to the start-up length
    // Per candidate g: the expected cross-spectrum phase at first_bin and its
    // advance per bin, exp(j 2 pi f axis sin_g / c) in the FFT's convention.
    BF_ALIGN float phase_re[kivbf::kLocateGrid];
    BF_ALIGN float phase_im[kivbf::kLocateGrid];
    BF_ALIGN float advance_re[kivbf::kLocateGrid];
    BF_ALIGN float advance_im[kivbf::kLocateGrid];
    BF_ALIGN float stride_re[kivbf::kLocateGrid];  // the advance over kLocateHighStride bins
    BF_ALIGN float stride_im[kivbf::kLocateGrid];
    BF_ALIGN float map[kivbf::kLocateGrid];        // tracked steered response power
    float map_weight;                              // tracked evidence the map holds
    // Per bin of the band: smoothed power, the noise's power and cross-spectrum.
    BF_ALIGN float power[kivbf::kLocateMaxBins];
    BF_ALIGN float noise_power[kivbf::kLocateMaxBins];
    BF_ALIGN float noise_cross_re[kivbf::kLocateMaxBins];
    BF_ALIGN float noise_cross_im[kivbf::kLocateMaxBins];
    BF_ALIGN float cross_re[kivbf::kLocateMaxBins];   // smoothed cross-spectrum X0 X1*
    BF_ALIGN float cross_im[kivbf::kLocateMaxBins];
    BF_ALIGN float diffuse[kivbf::kLocateMaxBins];    // the reverberation's modelled coherence, 2 sinc(2 pi f axis / c) below 1
    // The direct sound's share of a bin's talker power, tracked from the bins
    // that can tell it: their weighted sum and the weight (decaying).
    float direct_share_sum;
    float direct_share_weight;
    float direction;            // degrees, -90..90
    float confidence;           // 0..1; 0 until a first estimate
};

// What Bf_NoiseEstimate's first pass over the bins hands to its second,
// per bin. Kept in the state rather than on the stack: the passes then
// address it from the same base as the arrays beside it.
struct BfNoiseScratch {
    BF_ALIGN float power[kivbf::kBins];          // P
    BF_ALIGN float posterior_snr[kivbf::kBins];  // gamma
    BF_ALIGN float presence[kivbf::kBins];       // -0.969 gamma, exponentiated between the passes
};

struct BfCoreState {
    // --- Post-filter gain and run-time switches -----------------------------------
    BF_ALIGN float pf_gain[kivbf::kBins];  // per-bin post-filter gain; 1.0 outside the post-filter
    int32_t pf_flow;                       // 1 apply the post-filter, 0/2 mix only (KivBf_SetPfFlow)
    int32_t mode;                          // operating mode 0..4 (KivBf_SetMode)

    // --- Copies of the init record (KivBf_Init / KivBf_Reset) ----------------------
    uint32_t point_number;      // 128
    uint32_t sample_rate;       // Hz
    float microphone_distance;  // metres
    uint32_t mic_number;        // 2

    // --- Configuration (KivBf_SetConfig) ---------------------------------------
    uint32_t temperature;         // degrees Celsius
    int32_t noise_threshold_db;   // dBFS, [-80, 0]
    int32_t noise_threshold_q15;  // the threshold as a Q15 amplitude (kDbToQ15)
    uint32_t Noise_estimation;    // 0/1: covariance averaging path
    float output_gain;            // (0, 1]; 0.7 is unity
    uint32_t vad_enable;          // 1: the VAD chooses noise blocks
    float speed_of_sound;         // m/s; 0 until configured
    float target_angle;           // degrees; the block's direction + 90 (KivBf_Run)
    float loading_base;           // diagonal_loading / 10000
    int32_t diagonal_loading;     // 1..100

    // --- Dynamic loading (KivBf_DynamicLoading) --------------------------------
    int32_t band[6];          // ascending band edges (bins)
    int32_t dl_intensity[7];  // loading factor per band
    uint32_t is_dynamic;      // stored, read by nothing else

    // --- Array geometry (KivBf_SetShape) ---------------------------------------
    uint32_t array_geometry;                         // 0 linear, 1 circular
    float mic_position[kivbf::kMics][2];             // x, y in metres
    float mic_distance_matrix[kivbf::kMics][kivbf::kMics];  // metres
    float mic_relative_position[kivbf::kMics][2];    // position minus microphone 0's

    // --- FFT ---------------------------------------------------------------------
    FftRecord fft_record;                          // wrapper record (Ne10_workingBufPtr)
    BF_ALIGN float fft_buffer[kivbf::kSpectrumFloats];  // in-place FFT array, analysis and synthesis
    int32_t fft_work_ip[2];                        // passed to FFT_Rdft, carries no data
    float fft_work_w[2];                           // passed to FFT_Rdft, carries no data

    // --- Input staging and level (KivBf_Run) ------------------------------------
    BF_ALIGN float input_window[kivbf::kMics][kivbf::kFftSize];  // previous + current block, PCM/32768
    int16_t staging_block[kivbf::kMics][kivbf::kPointNumber];    // this block's PCM per channel
    float input_rms;         // RMS of microphone 0's window
    int32_t vad_decision;    // the VAD's decision for this block, non-zero = speech
    int32_t canceller_hold;  // 1: a sample was at full scale; the canceller skips the block

    // --- Lifecycle words (flags: 1 done, 0 in progress, 2 not done / freed) -------
    char handle_marker[4];  // "W0Q0"
    int32_t init_flag;
    int32_t config_flag;
    int32_t shape_flag;
    int32_t mode_flag;
    int32_t run_flag;
    uint32_t calibration_flag;  // 0/1 (KivBf_SetCalibration)
    int32_t debug_level;        // message-level mask taken at Init/Reset
    int32_t dump_mode;          // value of AUDIO_BF_DUMP; 0 off
    FILE *dump_input[kivbf::kMics];  // per-channel input dump, null when closed
    FILE *dump_output;               // output dump, null when closed

    // --- Per-bin loading and frequencies ----------------------------------------
    BF_ALIGN float bin_loading[kivbf::kBins];    // diagonal loading of the beam design
    BF_ALIGN float bin_frequency[kivbf::kBins];  // Hz: k * sample_rate / 256

    // --- Output stage -------------------------------------------------------------
    BF_ALIGN float ola_buffer[kivbf::kFftSize];   // overlap-add accumulator, PCM scale
    BF_ALIGN float synth_frame[kivbf::kFftSize];  // this block's synthesised frame, PCM scale

    // --- Beam weights (fixed design or MVDR), applied without conjugation --------
    BF_ALIGN float beam_weights[kivbf::kMics][kivbf::kSpectrumFloats];

    // --- Operating controls (KivBf_SetMode, KivBf_SetAdaptiveIntensity) ------------
    float steering_angle;       // degrees: SetMode's angle + 90 (fixed beam look direction)
    int32_t adaptive_intensity; // 0..4
    float intensity_scale;      // scales the noise estimate
    float intensity_floor;      // lower bound of the a-priori SNR
    float band_weight_low;      // mode-3 band weights: low, wide, mid, side by side,
    float band_weight_wide;     //   directly before mode3_scale and direction_slope
    float band_weight_mid;
    float mode3_scale;          // logistic scale of the direction weights (e^-3)
    float direction_slope;      // logistic slope of the direction weights
    float pf_mix;               // dry share of the post-filter

    // --- Spectral analysis ----------------------------------------------------------
    BF_ALIGN float mic_spectrum[kivbf::kMics][kivbf::kSpectrumFloats];

    // --- Fixed beam design (KivBf_SetMode modes 1, 2) ------------------------------
    float mic_phase_rate[kivbf::kMics];  // tau per microphone, radians per Hz
    BF_ALIGN float steering_phase[kivbf::kSpectrumFloats];  // look direction, mic 1 rel. mic 0;
                                                            // also the canceller's blocking filter

    // --- Calibration and target steering --------------------------------------------
    BF_ALIGN float raw_mic1_spectrum[kivbf::kSpectrumFloats];  // microphone 1 before calibration
    BF_ALIGN float calibration_gain[kivbf::kBins];
    float steer_delay[kivbf::kMics];  // 2 pi (position . direction) / c
    BF_ALIGN float target_steering[kivbf::kSpectrumFloats];  // exp(-j f (tau1 - tau0)), modes 3, 4
    float target_steering_delay[kivbf::kMics];  // steer_delay that target_steering was built from
    int32_t target_steering_built;              // 1 once target_steering_delay is valid

    // --- Noise power and speech presence -------------------------------------------
    BF_ALIGN float noise_psd[kivbf::kMics][kivbf::kBins];
    BF_ALIGN float spp_smoothed[kivbf::kMics][kivbf::kBins];
    BF_ALIGN float prior_snr_memory[kivbf::kMics][kivbf::kBins];  // G^2 gamma of the last block
    BF_ALIGN float wiener_gain[kivbf::kMics][kivbf::kBins];
    BF_ALIGN float speech_noise_ratio[kivbf::kBins];  // modes 3, 4; from microphone 0
    uint16_t noise_counter;                           // 0, 1, 2 (stays at 2)
    // Scratch of Bf_NoiseEstimate: what its first pass over the bins hands to
    // the second. Nothing reads it across blocks.
    BfNoiseScratch noise_scratch;

    // --- Noise spatial covariance -----------------------------------------------------
    uint16_t cov_counter;  // updates so far (13 at most, or 0/1)
    // Phi per bin, 2 x 2 complex, stored element by element so that four bins'
    // values of one element are adjacent: element e of bin k is [e][k], with e
    // running re00 im00 re01 im01 re10 im10 re11 im11.
    BF_ALIGN float noise_covariance[8][kivbf::kBins];

    // --- Adaptive MVDR weights ----------------------------------------------------------
    BF_ALIGN float mvdr_steering[4][kivbf::kBins];  // d: rows cos, sin of microphone 0, then of 1
    float mvdr_steering_delay[kivbf::kMics];        // steer_delay that mvdr_steering was built from
    int32_t mvdr_steering_built;                    // 1 once mvdr_steering_delay is valid

    // --- Coherence and direction weighting (modes 3, 4) -------------------------------
    BF_ALIGN float power_history[kivbf::kMics][kivbf::kHistoryBlocks][kivbf::kBins];
    BF_ALIGN float avg_power[kivbf::kMics][kivbf::kBins];
    BF_ALIGN float cross_history[kivbf::kHistoryBlocks][kivbf::kSpectrumFloats];
    BF_ALIGN float avg_cross[kivbf::kSpectrumFloats];
    BF_ALIGN float direction_score[kivbf::kBins];
    BF_ALIGN float direction_weight[kivbf::kBins];
    float mean_coherence;
    int32_t coherent_flag;
    uint16_t coherence_counter;  // 0..10

    // --- Beam sum and sidelobe canceller ----------------------------------------------
    BF_ALIGN float beam_output[kivbf::kSpectrumFloats];  // Y, then the canceller's error E
    BF_ALIGN float anc_filter[kivbf::kSpectrumFloats];   // H, one tap per bin
    BF_ALIGN float reference_power[kivbf::kBins];        // S, floored at 1e-6

    // --- Post-filter (modes 3, 4) -------------------------------------------------------
    BF_ALIGN float pf_raw_gain[kivbf::kBins];      // unsmoothed gain; persists

    // --- Direction finding and automatic steering (extension) ----------------------------
    BF_ALIGN BfLocateState locate;
    // --- Enhanced mode (KivBfExt_SetEnhancedMode) ---------------------------------------
    BfEnhancedState enhanced;

    // --- Region 2: the VAD instance, last ---------------------------------------------
    void *vad_instance;
};

static_assert(std::is_trivially_copyable_v<BfCoreState>);
static_assert(std::is_standard_layout_v<BfCoreState>);
static_assert(alignof(BfCoreState) == 16);
static_assert(sizeof(BfCoreState) % 16 == 0, "regions 2 and 3 stay 16-byte aligned");
static_assert(sizeof(BfLocateState) <= 4000, "the direction finder's share of the working buffer");

// --- Initialisation and settings (Beamformer_core_init.cpp) ---------------------------
int32_t Bf_CoreInit(BfCoreState &s);                // defaults of every adaptive array; FFT set-up
int32_t Bf_VolTableLookup(int32_t db);              // dB -> Q15 amplitude (kDbToQ15)

// --- Preparations made by KivBf_SetMode (Beamformer_core_design.cpp) -------------------
void Bf_ResetCovariance(BfCoreState &s);  // every bin's noise covariance to identity
void Bf_ResetCanceller(BfCoreState &s);   // anc_filter 1 + 0i, reference_power 0
void Bf_SetUnityGains(BfCoreState &s);    // band weights to 1.0
void Bf_DesignFixedBeam(BfCoreState &s);  // superdirective weights and steering_phase

// --- Per-block stages, in the order KivBf_Run calls them --------------------------------
void Bf_InputLevel(BfCoreState &s);            // input_rms (Beamformer_core_output.cpp)
void Bf_Analysis(BfCoreState &s);              // mic_spectrum (Beamformer_core_analysis.cpp)
void Bf_Calibrate(BfCoreState &s);             // (Beamformer_core_steering.cpp)
void Bf_TargetSteering(BfCoreState &s);        // (Beamformer_core_steering.cpp)
void Bf_NoiseEstimate(BfCoreState &s);         // (Beamformer_core_noise.cpp)
void Bf_SpectraAverage(BfCoreState &s);        // (Beamformer_core_direction.cpp)
void Bf_CoherenceDetect(BfCoreState &s);       // (Beamformer_core_direction.cpp)
void Bf_DirectionScore(BfCoreState &s);        // (Beamformer_core_direction.cpp)
void Bf_DirectionWeight(BfCoreState &s);       // (Beamformer_core_direction.cpp)
void Bf_BandWeighting(BfCoreState &s);         // (Beamformer_core_bandweight.cpp)
void Bf_NoiseCovarianceUpdate(BfCoreState &s); // (Beamformer_core_mvdr.cpp)
void Bf_AdaptiveWeights(BfCoreState &s);       // (Beamformer_core_mvdr.cpp)
void Bf_BeamSum(BfCoreState &s);               // beam_output (Beamformer_core_beamsum.cpp)
void Bf_Canceller(BfCoreState &s);             // the canceller's five stages (Beamformer_core_beamsum.cpp)
void Bf_PostFilterGain(BfCoreState &s);        // (Beamformer_core_postfilter.cpp)
void Bf_PostFilterApply(BfCoreState &s);       // pf_flow 1 (Beamformer_core_postfilter.cpp)
void Bf_PostFilterMix(BfCoreState &s);         // other flows (Beamformer_core_postfilter.cpp)
void Bf_Synthesis(BfCoreState &s, const float *spectrum, float *destination);  // (spectral)
void Bf_OutputStage(BfCoreState &s, int16_t *output);  // overlap-add, gain, PCM (output)

// --- Direction finder (Beamformer_core_locate.cpp) ---------------------------------------
bool Bf_LocateEnabled(const BfCoreState &s);  // either switch on
void Bf_Locate(BfCoreState &s);               // one block into the tracked estimate
// The direction the adaptive stages steer at: the estimate with automatic
// steering on and an estimate made, otherwise the caller's.
float Bf_SteeringDirection(const BfCoreState &s, float caller_direction);
// Sets locate.window_* from degrees; half_width >= 180 removes the window.
void Bf_LocateSetWindow(BfCoreState &s, float centre_deg, float half_width_deg);
