// Constants of the voice activity detector. Model tables list bands 0..5 of
// mixture component 0, then bands 0..5 of component 1.
#pragma once

#include <cstdint>

#include "webrtc_vad.h"

namespace kivbf::vad {

// --- Initial Gaussian mixtures ------------------------------------------------------
inline constexpr int16_t kNoiseDataWeights[kModelSize] = {  // Q7
    34, 62, 72, 66, 53, 25, 94, 66, 56, 62, 75, 103};
inline constexpr int16_t kSpeechDataWeights[kModelSize] = {  // Q7
    48, 82, 45, 87, 50, 47, 80, 46, 83, 41, 78, 81};
inline constexpr int16_t kNoiseDataMeans[kModelSize] = {  // Q7
    6738, 4892, 7065, 6715, 6771, 3369, 7646, 3863, 7820, 7266, 5020, 4362};
inline constexpr int16_t kSpeechDataMeans[kModelSize] = {  // Q7
    8306, 10085, 10078, 11823, 11843, 6309, 9473, 9571, 10879, 7581, 8180, 7483};
inline constexpr int16_t kNoiseDataStds[kModelSize] = {  // Q7
    378, 1064, 493, 582, 688, 593, 474, 697, 475, 688, 421, 455};
inline constexpr int16_t kSpeechDataStds[kModelSize] = {  // Q7
    555, 505, 567, 524, 585, 1231, 509, 828, 492, 1540, 1079, 850};

// --- Decision and adaptation ----------------------------------------------------------
inline constexpr int16_t kSpectrumWeight[kBands] = {6, 8, 10, 12, 14, 16};  // global-ratio weights
inline constexpr int16_t kMinimumDifference[kBands] = {544, 544, 576, 576, 576, 576};  // Q5
inline constexpr int16_t kMaximumSpeech[kBands] = {11392, 11392, 11520, 11520, 11520, 11520};  // Q7
inline constexpr int16_t kMaximumNoise[kBands] = {9216, 9088, 8960, 8832, 8704, 8576};  // Q7
inline constexpr int16_t kMinimumMean[kMixtures] = {640, 768};  // Q7, speech means
inline constexpr int16_t kNoiseUpdateConst = 655;    // Q15
inline constexpr int16_t kSpeechUpdateConst = 6554;  // Q15
inline constexpr int16_t kBackEta = 154;             // Q8, pull of the noise mean towards the minimum
inline constexpr int16_t kMinStd = 384;              // Q7
inline constexpr int16_t kMaxSpeechFrames = 6;       // speech run that earns the long hangover
inline constexpr int16_t kMinEnergy = 10;            // total-energy indicator below which nothing adapts
// The first band's upper speech-mean limit has no predecessor to borrow from.
inline constexpr int16_t kFirstBandSpeechCeiling = 12800;  // Q7

// --- Gaussian density -------------------------------------------------------------------
inline constexpr int32_t kCompVar = 22005;  // Q10, exponent beyond which the density is 0
inline constexpr int16_t kLog2Exp = 5909;   // log2(e), Q12

// --- Filter bank and log energy -----------------------------------------------------------
inline constexpr int16_t kLogConst = 24660;          // 160 * log10(2), Q9
inline constexpr int16_t kLogEnergyIntPart = 14336;  // 14, Q10
inline constexpr int16_t kHpZeroCoefs[3] = {6631, -13262, 6631};  // Q14
inline constexpr int16_t kHpPoleCoefs[3] = {16384, -7756, 5620};  // Q14
inline constexpr int16_t kAllPassCoefsQ15[2] = {20972, 5571};     // 0.64 upper, 0.17 lower
inline constexpr int16_t kAllPassCoefsQ13[2] = {5243, 1392};      // the same, for the down-sampler
// Compensation (Q4) for the halving in each split, by band.
inline constexpr int16_t kOffsetVector[kBands] = {368, 368, 272, 176, 176, 176};

// --- Minimum tracking -----------------------------------------------------------------------
inline constexpr int16_t kSmoothingDown = 6553;   // 0.2, Q15
inline constexpr int16_t kSmoothingUp = 32439;    // 0.99, Q15
inline constexpr int16_t kMinimumMaxAge = 100;    // frames a remembered minimum lives
inline constexpr int16_t kMinimumEmpty = 10000;   // Q4, an unused slot
inline constexpr int16_t kInitialMedian = 1600;   // Q4

// --- Set-up ----------------------------------------------------------------------------------
inline constexpr int32_t kInitCheck = 42;
inline constexpr int32_t kDefaultMode = 3;

// Thresholds of each aggressiveness; columns: 80-sample frames, 160-sample
// frames, any other length.
struct VadModeRows {
    int16_t overhang_max_short[kThresholdColumns];
    int16_t overhang_max_long[kThresholdColumns];
    int16_t local_threshold[kThresholdColumns];
    int16_t global_threshold[kThresholdColumns];
};
inline constexpr VadModeRows kModeRows[kModes] = {
    // 0 quality: kOverHangMax1Q, kOverHangMax2Q, kLocalThresholdQ, kGlobalThresholdQ
    {{8, 4, 3}, {14, 7, 5}, {24, 21, 24}, {57, 48, 57}},
    // 1 low bit rate: kOverHangMax1LBR, kOverHangMax2LBR, kLocalThresholdLBR, kGlobalThresholdLBR
    {{8, 4, 3}, {14, 7, 5}, {37, 32, 37}, {100, 80, 100}},
    // 2 aggressive: kOverHangMax1AGG, kOverHangMax2AGG, kLocalThresholdAGG, kGlobalThresholdAGG
    {{6, 3, 2}, {9, 5, 3}, {82, 78, 82}, {285, 260, 285}},
    // 3 very aggressive: kOverHangMax1VAG, kOverHangMax2VAG, kLocalThresholdVAG, kGlobalThresholdVAG
    {{6, 3, 2}, {9, 5, 3}, {94, 94, 94}, {1100, 1050, 1100}},
};

}  // namespace kivbf::vad
