// State and stages of the enhanced mode (include/kivbf_ext.h): presence from
// spatial and spectral cues, a presence-driven noise covariance, MVDR steered
// by an estimated relative transfer function, a Wiener post-filter.
//
// The state holds only what carries from block to block; each block's
// intermediate arrays live on the stack of Bf_EnhancedBlock. All zero means
// off (KivBf_Init / KivBf_Reset clear the buffer).
#pragma once

#include <cstdint>

#include "../LibGen_Tool/bf_internal_parameter.h"

struct BfEnhancedState {
    int32_t enabled;        // 1 while the enhanced mode runs instead of the operating mode
    int32_t blocks;         // blocks processed since it was switched on (stops counting at 1000)
    // Short averages of the microphones' second moments: |x0|^2, |x1|^2, re and im of x0 conj(x1).
    float moments[4][kivbf::kBins];
    // Noise covariance, the same four elements.
    float noise_covariance[4][kivbf::kBins];
    // Noise tracker on the fixed beam's power: noise power, smoothed presence.
    float beam_noise[kivbf::kBins];
    float beam_presence[kivbf::kBins];
    // Presence-weighted transfer-function statistics: re and im of
    // E[x1 conj(x0) - noise], E[|x0|^2 - noise] and E[|x1|^2 - noise].
    float transfer[4][kivbf::kBins];
    // The post-filter's clean-speech memory, G^2 gamma of the last block.
    float prior_snr_memory[kivbf::kBins];
    // The beam output's power over its noise power (gamma), averaged over
    // the last blocks; read by the next block's noise covariance.
    float output_snr[kivbf::kBins];
    // How far the talker reaches the microphones as a plane wave rather than
    // as reverberation (0..1), each beyond a diffuse field's coherence:
    // dryness, the short moments' coherence in the bins the talker dominates,
    // averaged over blocks; look fit, last block's coherence of the transfer
    // statistics along the look direction's free-field steering (how well a
    // plane wave from the look direction explains them).
    float dryness;
    float look_fit;
    // Forgetting factors per block at the handle's sample rate (fixed from
    // KivBf_Init on), set when the mode is switched on.
    float noise_keep_absent;
    float transfer_keep;
    float dryness_keep;
    float dryness_relax;
};

inline constexpr size_t kEnhancedStateBudget = 8400;  // bytes of persistent state the mode may use
static_assert(sizeof(BfEnhancedState) <= kEnhancedStateBudget);

struct BfCoreState;

// One block's intermediate arrays. Arrays read at neighbouring bins carry
// kEnhancedGuard copies of their edge values on each side (bin k at k + guard).
inline constexpr int32_t kEnhancedGuard = 4;
struct BfEnhancedBlock {
    float steer_re[kivbf::kBins];  // free-field ratio microphone 1 / microphone 0, look direction
    float steer_im[kivbf::kBins];
    float diffuse_coherence[kivbf::kBins];  // diffuse field seen through the steering, +-0.98
    float diffuse_sinc[kivbf::kBins];       // coherence of a diffuse field between the microphones
    float resolvable[kivbf::kBins];         // 1 where the spacing resolves direction, else 0
    int32_t first_resolvable;               // first bin with resolvable 1
    float fixed_power[kivbf::kBins + 2 * kEnhancedGuard];    // averaged |fixed beam|^2
    float block_fixed_power[kivbf::kBins];                   // this block's |fixed beam|^2
    float blocked_power[kivbf::kBins + 2 * kEnhancedGuard];  // averaged |look-cancelled|^2
    float ratio_cue[kivbf::kBins + 2 * kEnhancedGuard];      // directional SNR, dB
    float coherence_cue[kivbf::kBins];      // coherence along the look direction
    float moments_amplitude[kivbf::kBins];  // sqrt of the short moments' power product
    float level_cue[kivbf::kBins];          // log10 fixed-beam power over its noise
    float presence[kivbf::kBins];           // probability that the talker dominates
    float gain[kivbf::kBins + 2 * kEnhancedGuard];          // the post-filter's gain before smoothing
};

// Steering and diffuse coherence for the block's direction.
void Bf_EnhancedSteering(const BfCoreState &s, BfEnhancedBlock &b);
// Updates the moments and the beam's noise tracker, then fills presence.
void Bf_EnhancedPresence(BfCoreState &s, BfEnhancedBlock &b);

// Switching on clears the state; it then adapts from the first block.
void Bf_EnhancedStart(BfCoreState &s);
// One block: the calibrated spectra and the block's direction in, the enhanced
// spectrum (kSpectrumFloats) out.
void Bf_EnhancedBlock(BfCoreState &s, float *spectrum);
