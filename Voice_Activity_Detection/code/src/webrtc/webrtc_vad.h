// Gaussian-mixture voice activity detector (the WebRTC design), fixed point.
//
// A frame at 8 kHz is split into six bands by a tree of half-band filters; the
// log energy of each band is scored against a two-component Gaussian mixture
// for speech and one for noise. Per-band and weighted global log-likelihood
// ratios are compared with the thresholds of the chosen aggressiveness, a
// speech decision is held for a few frames, and both models adapt.
//
// 16 kHz frames are first halved by a two-branch all-pass down-sampler. The
// state is plain data without pointers, set up in place by VadCore_Init.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kivbf::vad {

inline constexpr int kBands = 6;           // sub-bands of the filter bank
inline constexpr int kMixtures = 2;        // Gaussians per band and per model
inline constexpr int kModelSize = kBands * kMixtures;
inline constexpr int kMinimaPerBand = 16;  // smallest feature values remembered per band
inline constexpr int kThresholdColumns = 3;
inline constexpr int kModes = 4;
// Longest frame the detector accepts at its input (before any down-sampling).
inline constexpr uint32_t kMaxInputFrame = 128;

struct VadDetectorState {
    int32_t decision;                 // last classifier value: 0 noise, >0 speech or hangover
    int32_t downsampler_state[2];     // upper and lower all-pass branch of the 2:1 down-sampler, Q0
    int16_t resample_by_two;          // 1: frames arrive at 16 kHz and are halved first
    int16_t frame_counter;            // frames with enough energy to adapt on; stops at 3

    // --- Hangover -------------------------------------------------------------------
    int16_t hangover;                 // frames a speech decision is still held for
    int16_t speech_run;               // consecutive speech frames, at most kMaxSpeechFrames

    // --- Models: band b of mixture component k sits at b + k * kBands --------------
    int16_t noise_means[kModelSize];   // Q7
    int16_t speech_means[kModelSize];  // Q7
    int16_t noise_stds[kModelSize];    // Q7
    int16_t speech_stds[kModelSize];   // Q7

    // --- Minimum tracking of each band's feature over the last 100 frames ----------
    int16_t minimum_age[kBands * kMinimaPerBand];     // frames since each value was seen
    int16_t minimum_values[kBands * kMinimaPerBand];  // ascending, Q4
    int16_t smoothed_minimum[kBands];                 // smoothed median of the 5 smallest, Q4

    // --- Filter bank ---------------------------------------------------------------
    int16_t split_upper_state[kBands - 1];  // upper all-pass branch of each split, Q(-1)
    int16_t split_lower_state[kBands - 1];  // lower all-pass branch of each split, Q(-1)
    int16_t highpass_state[4];              // 80 Hz high-pass: two inputs, two outputs

    // --- Thresholds of the current aggressiveness, one column per frame length -----
    int16_t overhang_max_short[kThresholdColumns];  // hangover after a short speech run
    int16_t overhang_max_long[kThresholdColumns];   // hangover after a long speech run
    int16_t local_threshold[kThresholdColumns];     // per-band log-likelihood ratio, Q2
    int16_t global_threshold[kThresholdColumns];    // weighted sum over the bands

    uint32_t frame_length;  // input samples per frame (set by the wrapper)
    int32_t init_marker;    // kInitCheck once VadCore_Init has run
};

// Sets the models, histories, filter states and the default aggressiveness;
// clears the resampling flag and the frame length. Returns 0.
int32_t VadCore_Init(VadDetectorState &s);

// Copies the thresholds of aggressiveness 0..3; returns -1 (thresholds kept)
// for any other value.
int32_t VadCore_SetMode(VadDetectorState &s, int32_t mode);

// Classifies one frame of s.frame_length samples: halves it into `downsampled`
// first when s.resample_by_two is set, then scores frame_length / 2 samples.
// Returns 1 speech, 0 no speech, -1 for an uninitialised state or a frame
// longer than kMaxInputFrame. `msg_level` gates the detector's own messages.
int32_t VadCore_Process(VadDetectorState &s, const int16_t *frame, int16_t *downsampled,
                        int32_t msg_level);

// --- Stages (one per file) ------------------------------------------------------------

// Band log energies (Q4) of a frame of at most kMaxInputFrame / 2 samples;
// returns the frame's total-energy indicator.
int16_t VadCore_BandFeatures(VadDetectorState &s, const int16_t *frame, size_t length,
                             int16_t features[kBands]);

// Halves a 16 kHz frame of `frame_length` samples into `downsampled` (2:1:
// two all-pass branches over even and odd samples, summed) and returns what
// VadCore_BandFeatures gives for the halved frame, in one pass.
int16_t VadCore_DownsampledBandFeatures(VadDetectorState &s, const int16_t *frame,
                                        size_t frame_length, int16_t *downsampled,
                                        int16_t features[kBands]);

// Remembers `feature` among the band's smallest recent values and returns the
// smoothed median of the five smallest, Q4.
int16_t VadCore_TrackMinimum(VadDetectorState &s, int16_t feature, int band);

// Gaussian density of a Q4 feature under mean and deviation (Q7): returns Q20
// and the normalised distance (x - m) / s^2 in Q11 through `delta`.
int32_t VadCore_GaussianDensity(int16_t feature, int16_t mean, int16_t std, int16_t &delta);

// Likelihood-ratio decision, model adaptation and hangover for one frame.
// Returns 0 for noise, 1 for speech, 2 + remaining hangover while held.
int16_t GmmProbability(VadDetectorState &s, const int16_t features[kBands], int16_t total_energy,
                       size_t frame_length, int32_t msg_level);

}  // namespace kivbf::vad
