// Direction finder: steered response power with phase-transform weighting on
// the block's spectra, with the noise's own cross-spectrum and a diffuse
// field's taken out and bins weighed by how far they rise above the noise,
// tracked over blocks.
//
// For a source at angle a (positive towards microphone 0) microphone 0 hears
// it axis * sin(a) / c seconds earlier, so the cross-spectrum X0 X1* turns by
// exp(j 2 pi f axis sin(a) / c). The candidates are uniform in sin(a) and the
// answer is refined between them by a parabola through the peak and its
// neighbours.
#include <cmath>
#include <cstring>

#include "Beamformer_core.h"
#include "math_functions.h"
#include "vector_lanes.h"

using namespace kivbf;
using namespace kivbf::math::element;

namespace {

constexpr double kTwoPiExact = 6.283185307179586;
constexpr double kDegreesPerRadian = 57.29577951308232;
constexpr float kLowestFrequency = 300.0f;  // Hz; below it a 5 cm pair sees almost no phase
// Above the spacing's aliasing limit one bin's phase fits several
// candidates, but the sharpened lobes of bins at different frequencies agree
// only at the source, and there the reverberation is least coherent between
// the microphones and the direct share is best told (below). Every second
// bin up to 8 kHz is weighed there; under a broadband noise 5 dB above the
// talker they brought the worst scene of the rooms measured from 30 to 20
// degrees.
constexpr double kHighestFrequency = 8000.0;  // Hz
// A bin up there counts only where its power is its own: a source that is
// silent above the limit (a low-passed voice, a hum) still leaks into those
// bins through the window's side lobes, with the phase of its own lower
// frequency, which the candidates read as a smaller delay. The leakage lies
// far below the band's mean power, a talker's own high band much less so.
constexpr float kHighBandLevel = 0.01f;  // of the mean power of the bins below the limit
constexpr float kPowerSmoothing = 0.3f;     // share of the block in the smoothed power
constexpr float kNoiseRatio = 2.5f;         // power / noise below this: the bin holds noise
constexpr float kNoiseLearning = 0.05f;     // share of a noise block in the noise estimates
constexpr float kNoiseFall = 0.3f;          // how fast the noise power follows a lower power
constexpr float kNoiseFallRatio = 0.3f;    // power / noise below this: the noise has fallen
constexpr float kNoiseRise = 1.002f;        // per block above the noise: follows rising noise
constexpr float kPresenceRatio = 8.0f;      // power / noise from which a bin is evidence
constexpr float kMaxBinWeight = 12.0f;      // one loud bin counts at most this much
constexpr float kOnsetBase = 1.0f;          // power / previous smoothed power below it: no weight
constexpr float kMaxOnset = 8.0f;
constexpr float kCrossSmoothing = 0.3f;     // share of the block in the smoothed cross-spectrum
constexpr float kDiffuseTilt = 0.5f;        // bins lose this share of the diffuse coherence's weight
// The reverberation a 16 ms frame sees is more coherent between the
// microphones than a diffuse field: early reflections arrive from near the
// talker, and the noise trackers absorb part of the late tail, so that less
// reverberant power is taken out than is there. The model takes it twice as
// coherent as a diffuse field (below 1); with the plain field, talkers beyond
// about 55 degrees were still pulled 10-15 degrees towards broadside at RT60
// 0.6 s. A bin of direct sound alone gives its exact phasor whatever this is.
// The price: where the model's coherence nears 1 (below about 2 kHz for 5 cm)
// a broadside source looks like reverberation, so a talker far off broadside
// outweighs a louder one near it there.
constexpr float kReverberationCoherence = 2.0f;
constexpr float kMaxCoherence = 0.999f;
// A steady harmonic is as coherent between the microphones as a plane wave
// even where most of its power is reverberant: at one frequency the room is
// one fixed response. The model then finds no reverberation in it and takes
// the room's phase, pulled towards broadside, for the direct sound's. Where
// the model's coherence is well below 1 the transients tell how much of a
// bin is direct sound; the finder tracks that share (starting from all of it)
// and allows no bin more of it.
constexpr float kResolvedCoherence = 0.5f;  // bins below it teach the direct share,
constexpr float kResolvedRatio = 50.0f;     // if this far above the noise
// A broadband noise a few dB above the talker keeps every bin below 50 times
// the noise, and the share would stay at its start in any room. Bins at least
// 3 times above it teach the share too, solved with the noise's estimates
// taken out, as their evidence is; what the noise leaves moves that reading
// either way, so it may reach 2 (clipping it at 1 would keep only the low
// errors) and the bins count as much as their weight above 3 times the noise
// (the onset's included), times 8, since so few of them rise that far.
constexpr float kSubtractedRatio = 3.0f;
constexpr float kSubtractedWeight = 8.0f;
constexpr float kMaxSubtractedShare = 2.0f;
constexpr float kDirectShareStart = 1.0f;
constexpr float kDirectShareStartWeight = 100.0f;  // in bin weights
constexpr float kDirectShareMemory = 0.99f;        // per block with resolved bins
constexpr float kPowerFloor = 1e-20f;
constexpr float kPowerCeiling = 1e30f;
constexpr int32_t kStartBlocks = 32;        // blocks that all teach the noise
constexpr int32_t kQuietStartBlocks = 8;    // of them, the first that give no evidence either
constexpr float kBlockPresence = 0.3f;      // mean bin weight for a block to count
constexpr float kMapMemory = 0.97f;         // per counted block
constexpr float kMinConfidence = 0.05f;     // below it the estimate holds

constexpr float kGridStep = 2.0f / static_cast<float>(kLocateGrid - 1);
float GridSine(int32_t g) { return -1.0f + kGridStep * static_cast<float>(g); }

inline float Max(float a, float b) { return lanes::Max(a, b); }
inline float32x4_t Max(float32x4_t a, float32x4_t b) { return vmaxq_f32(a, b); }
inline float Min(float a, float b) { return lanes::Min(a, b); }
inline float32x4_t Min(float32x4_t a, float32x4_t b) { return vminq_f32(a, b); }
inline float AtLeast(float a, float c) { return lanes::AtLeast(a, c); }
inline float32x4_t AtLeast(float32x4_t a, float c) { return lanes::AtLeast(lanes::Float4(a), c).v; }
inline float AtMost(float a, float c) { return lanes::AtMost(a, c); }
inline float32x4_t AtMost(float32x4_t a, float c) { return lanes::AtMost(lanes::Float4(a), c).v; }
inline float Root(float a) { return lanes::SquareRoot(a); }
inline float32x4_t Root(float32x4_t a) { return lanes::SquareRoot(a); }
inline float Load(const float *p, float) { return *p; }
inline float32x4_t Load(const float *p, float32x4_t) { return vld1q_f32(p); }
inline void Store(float *p, float v) { *p = v; }
inline void Store(float *p, float32x4_t v) { vst1q_f32(p, v); }

// The block's evidence per bin of the band: the direct sound's phasor and
// the bin's weight. It lives for one block, on the stack.
struct Evidence {
    BF_ALIGN float re[kLocateMaxBins];
    BF_ALIGN float im[kLocateMaxBins];
    BF_ALIGN float weight[kLocateMaxBins];
};

// (1 - G^2) D, D the direct sound's power, from R + jI = Z - G P (see
// BinEvidence): the quadratic's root G R + sqrt(G^2 R^2 + (1 - G^2)(R^2 + I^2)).
template <typename V>
V SpareDirectPower(V g, V spare, V r, V im) {
    const V q = Mul(g, r);
    return Add(q, Root(Add(Mul(q, q), Mul(spare, Add(Mul(r, r), Mul(im, im))))));
}

// One bin (or four): the noise trackers, then the bin's evidence: the
// direct sound's phasor from the cross-spectrum less the noise's and the
// reverberation's, and its weight (none below audible[i], the power the
// bin needs to count). Returns the weight before the tilt against low bins,
// for the block's presence test.
template <typename V>
V BinEvidence(BfLocateState &l, Evidence &e, int32_t i, float learning, float noise_ratio, float direct_share,
              const float *audible, V &share_sum, V &share_weight, V re0, V im0, V re1, V im1) {
    const V power = Mul(Splat(0.5f, re0), Add(Add(Mul(re0, re0), Mul(im0, im0)),
                                                Add(Mul(re1, re1), Mul(im1, im1))));
    const V cross_re = Add(Mul(re0, re1), Mul(im0, im1));
    const V cross_im = Sub(Mul(im0, re1), Mul(re0, im1));

    const V previous = Load(l.power + i, re0);
    const V smoothed = Add(previous, Mul(Splat(kPowerSmoothing, re0), Sub(power, previous)));
    const V noise = Load(l.noise_power + i, re0);
    V noise_re = Load(l.noise_cross_re + i, re0);
    V noise_im = Load(l.noise_cross_im + i, re0);

    // The noise is learnt evenly from noise-like bins, so that it is the
    // noise's mean and a steady source's fluctuations rarely pass the
    // presence ratio; faster when the power has fallen well below it.
    const V ratio = Div(smoothed, AtLeast(noise, kPowerFloor));
    const auto noise_like = Less(ratio, Splat(noise_ratio, re0));
    const V learnt = Add(noise, Mul(Splat(learning, re0), Sub(smoothed, noise)));
    const V fallen = Add(noise, Mul(Splat(kNoiseFall, re0), Sub(smoothed, noise)));
    // The noise's cross-spectrum moves with its power, so that what is taken
    // out of the cross-spectrum matches what is taken out of the power.
    const V smooth_re = Add(Load(l.cross_re + i, re0), Mul(Splat(kCrossSmoothing, re0), Sub(cross_re, Load(l.cross_re + i, re0))));
    const V smooth_im = Add(Load(l.cross_im + i, re0), Mul(Splat(kCrossSmoothing, re0), Sub(cross_im, Load(l.cross_im + i, re0))));
    const auto has_fallen = Less(ratio, Splat(kNoiseFallRatio, re0));
    const V rise = Splat(kNoiseRise, re0);
    V next_noise = Select(noise_like, learnt, Mul(noise, rise));
    next_noise = Select(has_fallen, fallen, next_noise);
    V next_re = Select(noise_like, Add(noise_re, Mul(Splat(learning, re0), Sub(cross_re, noise_re))), Mul(noise_re, rise));
    V next_im = Select(noise_like, Add(noise_im, Mul(Splat(learning, re0), Sub(cross_im, noise_im))), Mul(noise_im, rise));
    noise_re = Select(has_fallen, Add(noise_re, Mul(Splat(kNoiseFall, re0), Sub(smooth_re, noise_re))), next_re);
    noise_im = Select(has_fallen, Add(noise_im, Mul(Splat(kNoiseFall, re0), Sub(smooth_im, noise_im))), next_im);
    Store(l.power + i, smoothed);
    Store(l.noise_power + i, next_noise);
    Store(l.noise_cross_re + i, noise_re);
    Store(l.noise_cross_im + i, noise_im);

    // Rising power favours the direct sound over the room's reverberation,
    // which follows it; a bin below its audible power has no weight at all.
    const V rise_above = AtMost(Max(Sub(Div(power, AtLeast(previous, kPowerFloor)), Splat(kOnsetBase, re0)),
                                    Splat(0.0f, re0)),
                                kMaxOnset);
    const V onset = Select(Less(power, Load(audible + i, re0)), Splat(0.0f, re0), rise_above);
    // A bin's weight: its rise above a ratio to the noise, capped, times the onset.
    auto weight_above = [&](float threshold) {
        return Mul(AtMost(Max(Sub(ratio, Splat(threshold, re0)), Splat(0.0f, re0)), kMaxBinWeight), onset);
    };
    const V weight = weight_above(kPresenceRatio);
    const V subtracted_weight = Mul(weight_above(kSubtractedRatio), Splat(kSubtractedWeight, re0));
    // Reverberation is taken for a diffuse field, whose cross-spectrum is
    // real, G = sinc(2 pi f axis / c) times its power: left alone it pulls
    // every bin towards broadside. With P the talker's power (smoothed, noise
    // removed) and Z its smoothed cross-spectrum, Z = D u + G (P - D) for the
    // direct sound's power D and phasor u. With R + jI = Z - G P, |u| = 1
    // gives (1 - G^2) D^2 - 2 G R D - (R^2 + I^2) = 0, and u points along
    // ((1 - G^2) R + G (G R + root), (1 - G^2) I), root the quadratic's;
    // (1 - G^2) D = G R + root, which the tracked direct share caps.
    Store(l.cross_re + i, smooth_re);
    Store(l.cross_im + i, smooth_im);
    const V talker_power = AtLeast(Sub(smoothed, noise), kPowerFloor);
    const V g = Load(l.diffuse + i, re0);
    const V spare = Sub(Splat(1.0f, re0), Mul(g, g));
    const V r = Sub(Sub(smooth_re, noise_re), Mul(g, talker_power));
    const V s_im = Sub(smooth_im, noise_im);
    const V direct = SpareDirectPower(g, spare, r, s_im);
    const V spare_power = Mul(spare, talker_power);
    // A bin claiming more direct power than it has power (the noise's
    // estimates took out more power than cross-spectrum) keeps its solution:
    // the cap would hand it the plain phase of what the noise left.
    const V capped = Select(Less(spare_power, direct), direct, Min(direct, Mul(Splat(direct_share, re0), spare_power)));
    const V z_re = Add(Mul(spare, r), Mul(g, capped));
    const V z_im = Mul(spare, s_im);
    const V magnitude = Root(Add(Add(Mul(z_re, z_re), Mul(z_im, z_im)), Splat(kPowerFloor, re0)));
    const V scale = Div(Splat(1.0f, re0), magnitude);
    Store(e.re + i, Mul(z_re, scale));
    Store(e.im + i, Mul(z_im, scale));
    Store(e.weight + i, Mul(weight, Sub(Splat(1.0f, re0), Mul(Splat(kDiffuseTilt, re0), g))));
    // The share is read from the bin's own cross-spectrum and power, noise
    // and all: in a bin this far above the noise nothing of the noise's
    // estimates should enter it.
    const V own_direct = SpareDirectPower(g, spare, Sub(smooth_re, Mul(g, smoothed)), smooth_im);
    const V share = AtMost(Div(own_direct, AtLeast(Mul(spare, smoothed), kPowerFloor)), 1.0f);
    const V subtracted_share = AtMost(Div(direct, AtLeast(spare_power, kPowerFloor)), kMaxSubtractedShare);
    const auto clean = Less(Splat(kResolvedRatio, re0), ratio);
    const V resolved = Select(Less(g, Splat(kResolvedCoherence, re0)), Select(clean, weight, subtracted_weight),
                              Splat(0.0f, re0));
    share_sum = Add(share_sum, Mul(resolved, Select(clean, share, subtracted_share)));
    share_weight = Add(share_weight, resolved);
    return weight;
}

float LaneSum(float32x4_t v) {
    return (vgetq_lane_f32(v, 0) + vgetq_lane_f32(v, 1)) + (vgetq_lane_f32(v, 2) + vgetq_lane_f32(v, 3));
}

// The mean of both microphones' power, as BinEvidence takes it, over the
// first `count` bins of x0 and x1 (interleaved re, im).
float LowBandMeanPower(const float *x0, const float *x1, int32_t count) {
    float32x4_t sum = vdupq_n_f32(0.0f);
    int32_t f = 0;
    for (; f + 4 <= 2 * count; f += 4) {
        const float32x4_t a = vld1q_f32(x0 + f), b = vld1q_f32(x1 + f);
        sum = vaddq_f32(sum, vaddq_f32(vmulq_f32(a, a), vmulq_f32(b, b)));
    }
    float tail = 0.0f;
    for (; f < 2 * count; ++f) tail += x0[f] * x0[f] + x1[f] * x1[f];
    return 0.5f * (LaneSum(sum) + tail) / static_cast<float>(count);
}

// The FFT bin of the band's i-th bin.
int32_t BandBin(const BfLocateState &l, int32_t i) {
    return i < l.low_count ? l.first_bin + i : l.first_bin + l.low_count - 1 + kLocateHighStride * (i - l.low_count + 1);
}

// The band and the candidates' phases for this rate, spacing and speed of
// sound; the tracking starts over.
void Build(BfCoreState &s) {
    BfLocateState &l = s.locate;
    const float axis = s.mic_position[1][0] - s.mic_position[0][0];
    const double bin_width = static_cast<double>(s.sample_rate) / kFftSize;
    const double aliasing = s.speed_of_sound / (2.0 * std::fabs(static_cast<double>(axis)));
    // Rounded up by hand: ARMv7 has no rounding instruction and would call libm.
    const double lowest_bin = kLowestFrequency / bin_width;
    int32_t first = static_cast<int32_t>(lowest_bin);
    if (first < lowest_bin) ++first;
    if (first < 1) first = 1;
    const int32_t aliasing_bin = static_cast<int32_t>(aliasing / bin_width);
    int32_t last = aliasing_bin;
    if (last > kBins - 1) last = kBins - 1;
    if (last < first) last = first;
    if (last - first + 1 > kLocateLowMaxBins) last = first + kLocateLowMaxBins - 1;
    // Strided bins only where the consecutive ones reach the aliasing limit.
    int32_t high_count = 0;
    if (last == aliasing_bin) {
        while (high_count < kLocateHighMaxBins) {
            const int32_t bin = last + kLocateHighStride * (high_count + 1);
            if (bin > kBins - 1 || bin * bin_width > kHighestFrequency) break;
            ++high_count;
        }
    }

    const uint32_t switches[3] = {l.auto_steer, l.finder_on, l.window_on};
    const float window[2] = {l.window_low, l.window_high};
    const float direction = l.window_on == 1 ? l.direction : 0.0f;
    std::memset(&l, 0, sizeof l);
    l.direction = direction;
    l.auto_steer = switches[0];
    l.finder_on = switches[1];
    l.window_on = switches[2];
    l.window_low = window[0];
    l.window_high = window[1];
    l.built = 1;
    l.built_speed = s.speed_of_sound;
    l.built_axis = axis;
    l.built_rate = s.sample_rate;
    l.first_bin = first;
    l.low_count = last - first + 1;
    l.bin_count = l.low_count + high_count;
    l.direct_share_sum = kDirectShareStart * kDirectShareStartWeight;
    l.direct_share_weight = kDirectShareStartWeight;
    for (int32_t g = 0; g < kLocateGrid; ++g) {
        const double radians_per_hz = kTwoPiExact * axis * GridSine(g) / s.speed_of_sound;
        const double start = radians_per_hz * bin_width * first;
        const double advance = radians_per_hz * bin_width;
        l.phase_re[g] = static_cast<float>(math::Cos(start));
        l.phase_im[g] = static_cast<float>(math::Sin(start));
        l.advance_re[g] = static_cast<float>(math::Cos(advance));
        l.advance_im[g] = static_cast<float>(math::Sin(advance));
        l.stride_re[g] = static_cast<float>(math::Cos(advance * kLocateHighStride));
        l.stride_im[g] = static_cast<float>(math::Sin(advance * kLocateHighStride));
    }
    for (int32_t i = 0; i < l.bin_count; ++i) {
        const double x = kTwoPiExact * std::fabs(static_cast<double>(axis)) * bin_width * BandBin(l, i) / s.speed_of_sound;
        const float coherence = kReverberationCoherence * static_cast<float>(math::Sin(x) / x);
        l.diffuse[i] = coherence < kMaxCoherence ? coherence : kMaxCoherence;
    }
}

bool NeedsBuild(const BfCoreState &s) {
    const BfLocateState &l = s.locate;
    const float axis = s.mic_position[1][0] - s.mic_position[0][0];
    return l.built != 1 || l.built_speed != s.speed_of_sound || l.built_axis != axis ||
           l.built_rate != s.sample_rate;
}

// What the block's resolved bins say of the direct share: their summed
// weight and their weighted shares.
struct ShareEvidence {
    float sum;
    float weight;
};

// The block's evidence over the band; returns the summed bin weights.
float GatherEvidence(BfCoreState &s, Evidence &evidence, ShareEvidence &share) {
    BfLocateState &l = s.locate;
    // The band's bins side by side, so that four at a time load as one.
    BF_ALIGN float x0[2 * kLocateMaxBins];
    BF_ALIGN float x1[2 * kLocateMaxBins];
    std::memcpy(x0, s.mic_spectrum[0] + 2 * l.first_bin, 2 * sizeof(float) * l.low_count);
    std::memcpy(x1, s.mic_spectrum[1] + 2 * l.first_bin, 2 * sizeof(float) * l.low_count);
    for (int32_t i = l.low_count; i < l.bin_count; ++i) {
        const int32_t k = BandBin(l, i);
        x0[2 * i] = s.mic_spectrum[0][2 * k];
        x0[2 * i + 1] = s.mic_spectrum[0][2 * k + 1];
        x1[2 * i] = s.mic_spectrum[1][2 * k];
        x1[2 * i + 1] = s.mic_spectrum[1][2 * k + 1];
    }
    // The first blocks all average into the noise evenly (1/n), so that it
    // starts from a mean rather than from one partly empty frame.
    float learning = kNoiseLearning;
    float noise_ratio = kNoiseRatio;
    if (l.blocks_seen < kStartBlocks) {
        ++l.blocks_seen;
        learning = 1.0f / static_cast<float>(l.blocks_seen);
        noise_ratio = kPowerCeiling;
    }
    const float direct_share = l.direct_share_sum / l.direct_share_weight;
    // The least power a bin must have to count: none below the limit.
    BF_ALIGN float audible[kLocateMaxBins];
    std::memset(audible, 0, sizeof(float) * l.low_count);
    if (l.bin_count > l.low_count) {
        const float least = kHighBandLevel * LowBandMeanPower(x0, x1, l.low_count);
        for (int32_t i = l.low_count; i < l.bin_count; ++i) audible[i] = least;
    }
    float32x4_t lane_weight = vdupq_n_f32(0.0f);
    float32x4_t lane_share_sum = vdupq_n_f32(0.0f);
    float32x4_t lane_share_weight = vdupq_n_f32(0.0f);
    float tail_weight = 0.0f;
    float tail_share_sum = 0.0f;
    float tail_share_weight = 0.0f;
    lanes::ForEachLaneGroup(
        l.bin_count,
        [&](int32_t i) {
            const float32x4x2_t a = vld2q_f32(x0 + 2 * i);
            const float32x4x2_t b = vld2q_f32(x1 + 2 * i);
            lane_weight = vaddq_f32(lane_weight, BinEvidence(l, evidence, i, learning, noise_ratio, direct_share, audible, lane_share_sum,
                                                             lane_share_weight, a.val[0], a.val[1], b.val[0], b.val[1]));
        },
        [&](int32_t i) {
            tail_weight += BinEvidence(l, evidence, i, learning, noise_ratio, direct_share, audible, tail_share_sum, tail_share_weight,
                                       x0[2 * i], x0[2 * i + 1], x1[2 * i], x1[2 * i + 1]);
        });
    share.sum = LaneSum(lane_share_sum) + tail_share_sum;
    share.weight = LaneSum(lane_share_weight) + tail_share_weight;
    return LaneSum(lane_weight) + tail_weight;
}

// Adds the block's steered response at every candidate to the tracked map;
// returns the evidence it added.
float AccumulateMap(BfLocateState &l, const Evidence &e) {
    // Past the last bin of any weight no lobe is added: the phases need not
    // turn that far.
    float added = 0.0f;
    int32_t end = 0;
    for (int32_t i = 0; i < l.bin_count; ++i) {
        added += e.weight[i];
        if (e.weight[i] != 0.0f) end = i + 1;
    }
    const int32_t low_end = end < l.low_count ? end : l.low_count;
    const float32x4_t memory = vdupq_n_f32(kMapMemory);
    const float32x4_t half = vdupq_n_f32(0.5f);
    for (int32_t g = 0; g < kLocateGrid; g += lanes::kLanes) {
        float32x4_t re = vld1q_f32(l.phase_re + g);
        float32x4_t im = vld1q_f32(l.phase_im + g);
        const float32x4_t step_re = vld1q_f32(l.advance_re + g);
        const float32x4_t step_im = vld1q_f32(l.advance_im + g);
        const float32x4_t stride_re = vld1q_f32(l.stride_re + g);
        const float32x4_t stride_im = vld1q_f32(l.stride_im + g);
        float32x4_t response = vdupq_n_f32(0.0f);
        auto add_bin = [&](int32_t i) {
            // Most bins of a block carry no weight (below the presence
            // ratio, or not rising); their lobe would add exactly zero.
            if (e.weight[i] == 0.0f) return;
            const float32x4_t e_re = vdupq_n_f32(e.re[i]);
            const float32x4_t e_im = vdupq_n_f32(e.im[i]);
            // (1 + cos(phase error)) / 2 to the 16th: a lobe about 0.6 rad
            // wide in phase instead of the plain cosine's 2 rad, so that two
            // sources 60 degrees apart give two peaks, not one between them.
            const float32x4_t agreement = vaddq_f32(vmulq_f32(e_re, re), vmulq_f32(e_im, im));
            float32x4_t lobe = vaddq_f32(half, vmulq_f32(half, agreement));
            lobe = vmulq_f32(lobe, lobe);
            lobe = vmulq_f32(lobe, lobe);
            lobe = vmulq_f32(lobe, lobe);
            lobe = vmulq_f32(lobe, lobe);
            response = vaddq_f32(response, vmulq_f32(vdupq_n_f32(e.weight[i]), lobe));
        };
        // Each bin's phase turns from the last's: by one bin's advance among
        // the consecutive bins, by the stride's above them.
        auto turn = [&](float32x4_t turn_re, float32x4_t turn_im) {
            const float32x4_t next_re = vsubq_f32(vmulq_f32(re, turn_re), vmulq_f32(im, turn_im));
            im = vaddq_f32(vmulq_f32(re, turn_im), vmulq_f32(im, turn_re));
            re = next_re;
        };
        add_bin(0);
        for (int32_t i = 1; i < low_end; ++i) {
            turn(step_re, step_im);
            add_bin(i);
        }
        for (int32_t i = l.low_count; i < end; ++i) {
            turn(stride_re, stride_im);
            add_bin(i);
        }
        vst1q_f32(l.map + g, vaddq_f32(vmulq_f32(vld1q_f32(l.map + g), memory), response));
    }
    return added;
}

// The map's peak inside the window, refined between candidates, as a sine.
float PeakSine(const BfLocateState &l, int32_t &peak) {
    const float low = l.window_on == 1 ? l.window_low : -1.0f;
    const float high = l.window_on == 1 ? l.window_high : 1.0f;
    peak = -1;
    for (int32_t g = 0; g < kLocateGrid; ++g) {
        const float sine = GridSine(g);
        if (sine < low - 0.5f * kGridStep || sine > high + 0.5f * kGridStep) continue;
        if (peak < 0 || l.map[g] > l.map[peak]) peak = g;
    }
    // A peak on an end candidate is refined through the parabola around its
    // inner neighbour, so that a source between the last two candidates
    // (75-90 degrees) is not reported at end-fire.
    const int32_t middle = peak < 1 ? 1 : peak > kLocateGrid - 2 ? kLocateGrid - 2 : peak;
    const float shift = static_cast<float>(peak - middle);
    float sine = GridSine(peak);
    const float left = l.map[middle - 1];
    const float centre = l.map[middle];
    const float right = l.map[middle + 1];
    const float curvature = left - 2.0f * centre + right;
    if (curvature < 0.0f) {
        float offset = 0.5f * (left - right) / curvature;
        offset = offset < shift - 0.5f ? shift - 0.5f : offset > shift + 0.5f ? shift + 0.5f : offset;
        sine = GridSine(middle) + offset * kGridStep;
    }
    sine = sine < low ? low : sine > high ? high : sine;
    return sine;
}

float SineToDegrees(float sine) {
    if (sine >= 1.0f) return 90.0f;
    if (sine <= -1.0f) return -90.0f;
    const double x = sine;
    return static_cast<float>(math::Atan(x / std::sqrt(1.0 - x * x)) * kDegreesPerRadian);
}

}  // namespace

bool Bf_LocateEnabled(const BfCoreState &s) {
    return s.locate.auto_steer == 1 || s.locate.finder_on == 1;
}

void Bf_Locate(BfCoreState &s) {
    if (NeedsBuild(s)) Build(s);
    BfLocateState &l = s.locate;
    Evidence evidence;
    ShareEvidence share;
    const float block_weight = GatherEvidence(s, evidence, share);
    // Only blocks that bring evidence of the share make it forget, so that
    // without any (at 8 kHz, or while noise hides the upper band) it holds
    // its value rather than both sums decaying towards 0 / 0. Blocks too weak
    // for the map teach it as well: under a strong noise only a few blocks in
    // ten pass the presence test below.
    if (l.blocks_seen >= kQuietStartBlocks && share.weight > 0.0f) {
        l.direct_share_sum = l.direct_share_sum * kDirectShareMemory + share.sum;
        l.direct_share_weight = l.direct_share_weight * kDirectShareMemory + share.weight;
    }
    // Silence, steady noise and diffuse noise rise above nothing: the map and
    // the estimate stay as they were.
    if (block_weight < kBlockPresence * static_cast<float>(l.bin_count)) return;
    // Until the noise's start-up mean has a few blocks in it, the power's
    // rise above it is meaningless (the first blocks rise from nothing) and
    // would put the full weight on whatever the first frames hold.
    if (l.blocks_seen < kQuietStartBlocks) return;
    l.map_weight = l.map_weight * kMapMemory + AccumulateMap(l, evidence);

    int32_t peak = 0;
    const float sine = PeakSine(l, peak);
    // The peak's rise above the map's mean, per unit of evidence.
    float mean = 0.0f;
    for (int32_t g = 0; g < kLocateGrid; ++g) mean += l.map[g];
    mean /= static_cast<float>(kLocateGrid);
    float confidence = (l.map[peak] - mean) / l.map_weight;
    confidence = confidence < 0.0f ? 0.0f : confidence > 1.0f ? 1.0f : confidence;
    if (confidence < kMinConfidence) return;
    l.direction = SineToDegrees(sine);
    l.confidence = confidence;
}

float Bf_SteeringDirection(const BfCoreState &s, float caller_direction) {
    if (s.locate.auto_steer == 1 && s.locate.confidence > 0.0f) return s.locate.direction;
    return caller_direction;
}

void Bf_LocateSetWindow(BfCoreState &s, float centre_deg, float half_width_deg) {
    BfLocateState &l = s.locate;
    if (half_width_deg >= 180.0f) {
        l.window_on = 0;
        l.window_low = 0.0f;
        l.window_high = 0.0f;
        return;
    }
    const auto sine_of = [](float degrees) {
        degrees = degrees < -90.0f ? -90.0f : degrees > 90.0f ? 90.0f : degrees;
        return static_cast<float>(math::Sin(degrees / kDegreesPerRadian));
    };
    l.window_on = 1;
    if (l.confidence == 0.0f) l.direction = centre_deg;  // what GetDirection says until an estimate
    l.window_low = sine_of(centre_deg - half_width_deg);
    l.window_high = sine_of(centre_deg + half_width_deg);
}
