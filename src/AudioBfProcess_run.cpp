// KivBf_Run: one block through the beamformer.
#include <bit>
#include <cmath>
#include <cstring>

#include "AudioBfProcess_internal.h"
#include "Beamformer_core_modes.h"
#include "AudioVadProcess.h"
#include "debug_msglevel.h"
#include "vector_kernels.h"
#include "vector_lanes.h"

using namespace kivbf;

namespace {

constexpr int32_t kHop = static_cast<int32_t>(kPointNumber);
constexpr float kSilenceRms = 1e-6f;

// Splits the interleaved block into the per-channel staging blocks, holds the
// canceller when any sample is at full scale, and dumps the staged input.
void StageInput(BfCoreState &s, const int16_t *input) {
    static_assert(kMics == 2, "the block is split as sample pairs");
    const int16x8_t high = vdupq_n_s16(32767);
    const int16x8_t low = vdupq_n_s16(-32768);
    uint16x8_t full_scale = vdupq_n_u16(0);
    for (int32_t i = 0; i < kHop; i += 8) {
        const int16x8x2_t pairs = vld2q_s16(input + kMics * i);
        for (int32_t ch = 0; ch < kMics; ++ch) {
            vst1q_s16(s.staging_block[ch] + i, pairs.val[ch]);
            full_scale = vorrq_u16(full_scale, vceqq_s16(pairs.val[ch], high));
            full_scale = vorrq_u16(full_scale, vceqq_s16(pairs.val[ch], low));
        }
    }
    const uint16x4_t folded = vorr_u16(vget_low_u16(full_scale), vget_high_u16(full_scale));
    if (vget_lane_u64(vreinterpret_u64_u16(folded), 0) != 0) s.canceller_hold = 1;
    if (s.dump_mode != 0)
        for (int32_t ch = 0; ch < kMics; ++ch)
            Bf_DumpWrite(s.dump_input[ch], s.staging_block[ch], kPointNumber);
}

// Slides each channel's analysis window by one block. Dividing by 32768 is
// exact, so the product by its reciprocal gives the same floats. Eight
// samples read as four 32-bit words hold the even samples in their low halves
// and the odd ones in their high halves; arithmetic shifts sign-extend both.
void UpdateInputWindows(BfCoreState &s) {
    static_assert(std::endian::native == std::endian::little, "sample order within a word");
    constexpr float kInverseScale = 1.0f / kPcmScale;
    for (int32_t ch = 0; ch < kMics; ++ch) {
        float *window = s.input_window[ch];
        std::memcpy(window, window + kHop, sizeof(float) * kHop);
        for (int32_t i = 0; i < kHop; i += 8) {
            const int32x4_t words = vreinterpretq_s32_s16(vld1q_s16(s.staging_block[ch] + i));
            float32x4x2_t samples;
            samples.val[0] = vcvtq_f32_s32(vshrq_n_s32(vshlq_n_s32(words, 16), 16));
            samples.val[1] = vcvtq_f32_s32(vshrq_n_s32(words, 16));
            samples.val[0] = vmulq_n_f32(samples.val[0], kInverseScale);
            samples.val[1] = vmulq_n_f32(samples.val[1], kInverseScale);
            vst2q_f32(window + kHop + i, samples);
        }
    }
}

void DumpOutput(BfCoreState &s, const int16_t *output) {
    if (s.dump_mode != 0) Bf_DumpWrite(s.dump_output, output, kPointNumber);
}

void AnswerSilence(BfCoreState &s, int16_t *output) {
    std::memset(output, 0, sizeof(int16_t) * kHop);
    DumpOutput(s, output);
    vec_fill(s.pf_gain, 1.0f, kBins);
}

void TakeDirection(BfCoreState &s, float direction) {
    // A direction that is not a number would reach every adaptive state and
    // stay there; such a block keeps the previous direction.
    if (!std::isfinite(direction)) return;
    s.target_angle = direction + 90.0f;
    if (s.array_geometry == KIVBF_GEOMETRY_LINEAR && s.target_angle >= 180.0f)
        s.target_angle = 360.0f - s.target_angle;  // a line cannot tell front from back
}

// The adaptive stages learn the noise only in blocks without the talker.
bool IsNoiseBlock(const BfCoreState &s) {
    if (s.vad_enable == 1) return s.vad_decision == 0;
    return s.input_rms * kPcmScale < static_cast<float>(s.noise_threshold_q15);
}

// The enhanced mode (kivbf_ext.h) in place of the operating mode's stages; it
// touches none of their state.
void RunEnhanced(BfCoreState &s, int16_t *output) {
    BF_ALIGN float spectrum[kSpectrumFloats];
    Bf_EnhancedBlock(s, spectrum);
    vec_fill(s.pf_gain, 1.0f, kBins);
    Bf_Synthesis(s, spectrum, s.synth_frame);
    Bf_OutputStage(s, output);
    DumpOutput(s, output);
    s.run_flag = 1;
}

}  // namespace

extern "C" uint32_t KivBf_Run(AudioBfHandle handle, const int16_t *input, int16_t *output,
                              const float *direction) {
    if (Bf_IsNull(handle, "[%s] %s [BF] [Run] Fail! The handle is NULL\t\n"))
        return KIVBF_ERR_HANDLE;
    if (input == nullptr || output == nullptr || direction == nullptr) {
        DML_PRINT_ALWAYS(DML_ERR, "[%s] %s [BF] [Run] Fail! The input pointer is NULL\t\n");
        return KIVBF_ERR_NULL_POINTER;
    }
    BfCoreState &s = *Bf_StateOf(handle);
    s.run_flag = 0;
    uint32_t status = Bf_CheckReady(s, BF_NEED_INIT | BF_NEED_CONFIG | BF_NEED_SHAPE, "Run");
    if (status != KIVBF_OK) return status;
    status = Bf_DumpFollowEnvironment(s);
    if (status != KIVBF_OK) return status;

    StageInput(s, input);
    UpdateInputWindows(s);
    Bf_InputLevel(s);
    if (s.input_rms < kSilenceRms) {
        AnswerSilence(s, output);
        return KIVBF_OK;
    }
    s.vad_decision = KivVad_Run(s.vad_instance, s.staging_block[0]);

    Bf_Analysis(s);
    Bf_Calibrate(s);
    if (Bf_LocateEnabled(s)) Bf_Locate(s);
    TakeDirection(s, Bf_SteeringDirection(s, *direction));

    if (s.enhanced.enabled == 1) {
        RunEnhanced(s, output);
        return KIVBF_OK;
    }

    const ModeTraits mode = TraitsOf(s);
    if (mode.adaptive) {
        Bf_TargetSteering(s);
        Bf_NoiseEstimate(s);
    }
    if (mode.post_filter) {
        Bf_SpectraAverage(s);
        Bf_CoherenceDetect(s);
        Bf_DirectionScore(s);
        Bf_DirectionWeight(s);
    }
    if (mode.band_weighting) Bf_BandWeighting(s);
    if (mode.adaptive && IsNoiseBlock(s)) {
        Bf_NoiseCovarianceUpdate(s);
        Bf_AdaptiveWeights(s);
    }

    Bf_BeamSum(s);
    if (mode.canceller) {
        if (s.canceller_hold == 0) Bf_Canceller(s);
        s.canceller_hold = 0;
    }

    vec_fill(s.pf_gain, 1.0f, kBins);
    if (mode.post_filter) {
        Bf_PostFilterGain(s);
        if (s.pf_flow == 1)
            Bf_PostFilterApply(s);
        else
            Bf_PostFilterMix(s);
    }

    Bf_Synthesis(s, s.beam_output, s.synth_frame);
    Bf_OutputStage(s, output);
    DumpOutput(s, output);
    s.run_flag = 1;
    return KIVBF_OK;
}
