// Enhanced mode, second half: the noise covariance (forgetting set by the
// presence), a relative transfer function estimated where the talker
// dominates and held near the look direction, MVDR weights with diagonal
// loading, a guard that leans towards microphone 0 where it is already
// clean, and a decision-directed Wiener post-filter whose noise is the
// covariance seen through the weights. Where the talker arrives dry (little
// reverberation), steering, loading, guard and post-filter turn towards what a
// free field allows.
#include <algorithm>
#include <cstring>

#include "Beamformer_core.h"
#include "Beamformer_core_enhanced_ops.h"

using namespace kivbf;
using namespace kivbf::enhanced;

namespace {

constexpr float kTiny = 1e-20f;
constexpr int32_t kBlockCountLimit = 1000;

// The forgetting factors below hold for 8 ms blocks (16 kHz); at other rates
// they are raised to the block's length over that, so that they keep their
// time in seconds. They are given by their natural logarithms.
constexpr int32_t kReferenceRate = 16000;

// Noise covariance: keep 0.985 of it when the talker is absent, all of it
// while the talker surely speaks (any of the talker learned there lets the
// beam cancel it); during the first blocks the plain running mean (faster).
// Presence stays below one wherever the spatial cues are unsure, so nothing
// stays frozen in it for long.
constexpr double kLogNoiseKeepAbsent = -0.015113637810048184;  // ln 0.985
constexpr int32_t kWarmUpBlocks = 50;
// The presence the covariance sees is also weighed against the beam's own
// output: where that output stayed near its expected noise power over the
// last blocks (gamma averaged by kOutputSnrKeep), the bin more likely holds
// noise than the cues say. The likelihood ratio of that gamma under a
// Gaussian model with an a-priori SNR of kOutputPriorSnr lowers the odds of
// presence, never raises them: a high gamma may be an interferer the
// covariance has not learnt yet. It keeps learning the noise in bins the
// cues give to a near talker (the look a little off, say), which lifted the
// benchmark's worst scenes 12 degrees off by 0.3-0.4 dB.
constexpr float kOutputPriorSnr = 2.0f;
constexpr float kOutputSnrKeep = 0.5f;
constexpr float kOutputSlope = kOutputPriorSnr / (1.0f + kOutputPriorSnr);
constexpr float kLogOutputPriorGain = 1.09861229f;  // ln(1 + kOutputPriorSnr)

// Transfer function: forgetting of its presence-weighted statistics, the
// share of the estimate against free field, and how far it may stray.
constexpr double kLogTransferKeep = -0.005012541823544286;  // ln 0.995
constexpr float kNoiseLikeLow = 0.0f;   // see NoiseLikeness
constexpr float kNoiseLikeHigh = 0.5f;
constexpr float kShareLow = 0.2f;
constexpr float kShareHigh = 0.9f;
constexpr float kCos35 = 0.819152044f;
constexpr float kSin35 = 0.573576436f;
constexpr float kGainLimit = 1.5f;

// Diagonal loading, times the mean of the diagonal: kLoading where the noise
// is as diffuse as a diffuse field would be, falling with the square of the
// distance from that towards kLoadingPoint where it is one point source
// (coherence 1). A point source's null needs large weights at low
// frequencies, where the microphones' phases differ little: with 3 cm at
// 100 Hz a loading of 1e-3 alone holds it to about -9 dB.
constexpr float kLoading = 0.05f;
constexpr float kLoadingPoint = 1e-5f;
constexpr float kDecisionDirected = 0.8f;
// Post-filter floor (-12 dB). It is the same where the talker speaks: a
// higher floor there passed more of the noise in the bins the presence gives
// to the talker than it kept of the talker (0.47 cost the harder rooms
// 0.04-0.14 dB of SNR). Only a dry talker's floor rises with the presence (below).
// Where the talker is absent the gain is also smoothed over seven bins (see
// the end of Bf_EnhancedBlock).
constexpr float kGainFloor = 0.25f;
// Half the post-filter's gain (kSteadyShare; none for a dry talker) is a
// Wiener gain from the talker's long-term power at microphone 0 (the transfer
// function's statistics, about 1.6 s) over that plus kSteadyNoiseScale times
// the beam's noise. It holds from block to block, so it changes the talker
// as a fixed filter would, where the block's own gain, varying with every
// block, modulates it: a modulated talker is partly noise. The statistics
// count blocks by the presence's fourth power and include the pauses, so
// they hold less than the talker's power while it speaks; the noise is
// scaled down to meet them (0.3 measured best of 0.2-0.5). A dry talker's
// beam has removed most of its noise, and the gain would only colour it.
constexpr float kSteadyShare = 0.5f;
constexpr float kSteadyNoiseScale = 0.3f;
constexpr float kGuardLimit = 1.5f;        // output power over the fixed beam's, at most
// Reference guard: from kCleanLow to kCleanHigh (log10 of the talker's power
// over the noise's at microphone 0) the output moves over to microphone 0,
// as far as the beam's own noise is not below kBeamGainFree times the
// microphone's.
constexpr float kCleanLow = 0.3f;
constexpr float kCleanHigh = 1.3f;
constexpr float kBeamGainFree = 0.7f;

// Dry talker.
// - Dryness: the short moments' coherence beyond a diffuse field's, over the
//   resolvable bins whose presence exceeds kDominated, weighted by it, and
//   averaged over blocks with kLogDrynessKeep (blocks whose weights sum to less
//   than kDominatedMinWeight let it drift back to 0, kLogDrynessRelax). Speech
//   is sparse: in a free field such a bin holds the talker alone and reads near
//   1 even with an interfering talker louder overall, whose mixture would spoil
//   a long average's coherence. Reverberation lowers it: at the end of 8 s the
//   benchmark's rooms (RT60 0.2 s and up) read 0.09-0.60 (one with a tonal
//   interferer 0.65), its free fields 0.58-0.96 (0.67 and up where the
//   interferer is a talker). The moments' smoothing and the presence's weights
//   set these readings.
//   From kDryLow to kDryHigh it moves the loading towards kLoadingDry, the
//   post-filter's floor where the talker is present towards
//   kGainFloorPresentDry (the talker passes wherever it is present), and
//   takes the reference guard away (a dry talker has no reverberation for a
//   beam to change).
// - The look fit: the transfer statistics' coherence along the look
//   direction's steering beyond a diffuse field's, as a mean over the
//   resolvable bins where those statistics stand at least kFitEvidence times
//   the noise (with fewer than kFitMinBins such bins it is 0). From kFitLow to
//   kFitHigh it cuts the estimated transfer function's share by up to
//   kFitShareCut: with no reverberation to follow, its errors (mostly an
//   interferer's pull) are all it adds. Dryness alone cuts it kDryShareCut
//   times as far: with the look direction a little off, a near talker stays
//   coherent but is no plane wave from the look, and free-field steering
//   would cancel part of it.
constexpr float kDominated = 0.8f;
constexpr float kDominatedMinWeight = 4.0f;
constexpr double kLogDrynessKeep = -0.01005033585350145;  // ln 0.99
// Blocks without that evidence let the dryness drift back towards 0, where a
// fresh start stands (about 8 s), so that a reading from before (hostile
// input, a quieter place) cannot hold the dry treatment in a noisy room
// where the talker rarely dominates a bin.
constexpr double kLogDrynessRelax = -0.0010005003335835335;  // ln 0.999
constexpr float kDryLow = 0.62f;
constexpr float kDryHigh = 0.72f;
constexpr float kLoadingDry = 0.001f;
constexpr float kGainFloorPresentDry = 1.0f;
constexpr float kFitEvidence = 0.5f;
constexpr int32_t kFitMinBins = 8;
constexpr float kFitLow = 0.5f;
constexpr float kFitHigh = 0.7f;
constexpr float kFitShareCut = 0.7f;
constexpr float kDryShareCut = 0.5f;

// Where measure lies between low and high, 0..1.
template <typename T>
T Ramp(T measure, float low, float high) {
    return Clamp(Mul(Sub(measure, Splat(low, measure)), Splat(1.0f / (high - low), measure)), 0.0f, 1.0f);
}

// The relative transfer function's ratio to the free-field steering, its
// phase kept within 35 degrees of zero and its magnitude within 1/1.5..1.5.
template <typename T>
void BoundRatio(T &re, T &im) {
    const T magnitude = Sqrt(Add(Mul(re, re), Mul(im, im)));
    const auto too_wide = Less(re, Mul(magnitude, Splat(kCos35, re)));
    const T side = Mul(magnitude, Splat(kSin35, re));
    re = Select(too_wide, Mul(magnitude, Splat(kCos35, re)), re);
    im = Select(too_wide, Select(Less(im, Splat(0.0f, re)), Sub(Splat(0.0f, re), side), side), im);
    const T bounded = Clamp(magnitude, 1.0f / kGainLimit, kGainLimit);
    const T scale = Div(bounded, Max(magnitude, Splat(kTiny, re)));
    re = Mul(re, scale);
    im = Mul(im, scale);
}

// How much more the block's short moments resemble the learnt noise than the
// look direction, 0..1: the normalised cross-moment's projection on the
// noise covariance's normalised cross term, less the coherence along the
// look, ramped from kNoiseLikeLow to kNoiseLikeHigh. An interferer that the
// spatial cues pass as the talker (a reverberant talker 35 degrees from it,
// say) still points where it pointed while the talker paused. A diffuse
// noise's cross term is small, so the measure stays near zero there.
template <typename T>
T NoiseLikeness(const T (&moments)[4], T moments_amplitude, const T (&noise)[4], T look_coherence) {
    const T tiny = Splat(kTiny, look_coherence);
    const T dot = Add(Mul(moments[2], noise[2]), Mul(moments[3], noise[3]));
    const T norm = Mul(moments_amplitude, Sqrt(Max(Mul(noise[0], noise[1]), tiny)));
    return Ramp(Sub(Div(dot, norm), look_coherence), kNoiseLikeLow, kNoiseLikeHigh);
}

}  // namespace

void Bf_EnhancedStart(BfCoreState &s) {
    BfEnhancedState &e = s.enhanced;
    std::memset(&e, 0, sizeof e);
    e.enabled = 1;
    const double blocks_per_reference = static_cast<double>(kReferenceRate) / s.sample_rate;
    auto keep_per_block = [&](double log_keep) {
        return static_cast<float>(math::Exp(log_keep * blocks_per_reference));
    };
    e.noise_keep_absent = keep_per_block(kLogNoiseKeepAbsent);
    e.transfer_keep = keep_per_block(kLogTransferKeep);
    e.dryness_keep = keep_per_block(kLogDrynessKeep);
    e.dryness_relax = keep_per_block(kLogDrynessRelax);
}

void Bf_EnhancedBlock(BfCoreState &s, float *spectrum) {
    BfEnhancedState &e = s.enhanced;
    BfEnhancedBlock b;
    Bf_EnhancedSteering(s, b);
    Bf_EnhancedPresence(s, b);

    // Copies: the per-bin stores into e could alias the state's own fields.
    const float noise_keep_absent = e.noise_keep_absent;
    const float noise_keep_range = 1.0f - noise_keep_absent;
    const float transfer_keep_factor = e.transfer_keep;
    const bool past_warm_up = e.blocks >= kWarmUpBlocks;
    const float warm_up = e.blocks < kWarmUpBlocks
                              ? static_cast<float>(e.blocks) / static_cast<float>(e.blocks + 1)
                              : 1.0f;
    const float dry = Ramp(e.dryness, kDryLow, kDryHigh);
    const float fit = Ramp(e.look_fit, kFitLow, kFitHigh);
    const float share_scale = 1.0f - kFitShareCut * std::max(fit, kDryShareCut * dry);
    const float guard_scale = 1.0f - dry;
    const float steady_share = kSteadyShare * (1.0f - dry);
    const float loading_spread = kLoading + dry * (kLoadingDry - kLoading);
    const float floor_rise = dry * (kGainFloorPresentDry - kGainFloor);  // where the talker surely speaks
    // Per bin: the talker's coherence along the steering beyond the diffuse
    // field's (0..1; -1 where too little evidence); the presence where the
    // talker dominates (else 0) and that times the short moments' coherence
    // beyond the diffuse field's.
    float talker_fit[kBins], dominated_weight[kBins], dominated_coherence[kBins];
    ForEachBin([&](auto zero, int32_t k) {
        using T = decltype(zero);
        const T one = Splat(1.0f, zero), tiny = Splat(kTiny, zero);
        T x0r, x0i, x1r, x1i;
        LoadComplex(s.mic_spectrum[0] + 2 * k, x0r, x0i);
        LoadComplex(s.mic_spectrum[1] + 2 * k, x1r, x1i);
        const T p = Load(b.presence + k, zero);
        const T dr = Load(b.steer_re + k, zero), di = Load(b.steer_im + k, zero);

        // Noise covariance.
        const T inst[4] = {Add(Mul(x0r, x0r), Mul(x0i, x0i)), Add(Mul(x1r, x1r), Mul(x1i, x1i)),
                           Add(Mul(x0r, x1r), Mul(x0i, x1i)), Sub(Mul(x0i, x1r), Mul(x0r, x1i))};
        // Presence weighed against the beam's output (see kOutputPriorSnr):
        // odds p / (1 - p) times the likelihood ratio, at most 1.
        T p_noise = p;
        if (past_warm_up) {
            const T log_ratio = Sub(Mul(Load(e.output_snr + k, zero), Splat(kOutputSlope, zero)),
                                    Splat(kLogOutputPriorGain, zero));
            const T weighed = Mul(p, math::ExpF(Min(log_ratio, Splat(0.0f, zero))));
            p_noise = Div(weighed, Add(weighed, Sub(one, p)));
        }
        const T keep = Min(Add(Splat(noise_keep_absent, zero), Mul(Splat(noise_keep_range, zero), p_noise)),
                           Splat(warm_up, zero));
        const T take = Sub(one, keep);
        T learnt[4], n[4];
        for (int32_t i = 0; i < 4; ++i) {
            learnt[i] = Load(e.noise_covariance[i] + k, zero);
            n[i] = Add(Mul(keep, learnt[i]), Mul(take, inst[i]));
            if (i < 2) n[i] = Max(n[i], tiny);
            Store(e.noise_covariance[i] + k, n[i]);
        }
        const T m[4] = {Load(e.moments[0] + k, zero), Load(e.moments[1] + k, zero),
                        Load(e.moments[2] + k, zero), Load(e.moments[3] + k, zero)};
        const T noise_like = NoiseLikeness(m, Load(b.moments_amplitude + k, zero), learnt,
                                           Load(b.coherence_cue + k, zero));

        // Transfer function from the talker-weighted, noise-subtracted
        // statistics. The weight is the fourth power of the presence, less
        // where the bin resembles the learnt noise: blocks where the talker
        // is only likely (an interferer talking too) would pull the estimate
        // towards the interferer.
        const T p_transfer = Mul(p, Sub(one, noise_like));
        const T p_squared = Mul(p_transfer, p_transfer);
        const T weight = Mul(Splat(1.0f - transfer_keep_factor, zero), Mul(p_squared, p_squared));
        const T transfer_keep = Splat(transfer_keep_factor, zero);
        const T tr = Add(Mul(transfer_keep, Load(e.transfer[0] + k, zero)), Mul(weight, Sub(inst[2], n[2])));
        const T ti = Add(Mul(transfer_keep, Load(e.transfer[1] + k, zero)), Mul(weight, Sub(n[3], inst[3])));
        const T td = Add(Mul(transfer_keep, Load(e.transfer[2] + k, zero)), Mul(weight, Sub(inst[0], n[0])));
        const T t11 = Add(Mul(transfer_keep, Load(e.transfer[3] + k, zero)), Mul(weight, Sub(inst[1], n[1])));
        Store(e.transfer[0] + k, tr);
        Store(e.transfer[1] + k, ti);
        Store(e.transfer[2] + k, td);
        Store(e.transfer[3] + k, t11);
        const auto known = Less(tiny, td);
        const T safe_td = Max(td, tiny);
        const T er = Div(tr, safe_td), ei = Div(ti, safe_td);
        const T g = Load(b.diffuse_sinc + k, zero);
        const T diffuse = Min(Mul(g, g), Splat(0.98f, zero));
        {
            auto beyond_diffuse = [&](T cross_squared, T powers) {
                return Clamp(Div(Sub(Div(cross_squared, Max(powers, tiny)), diffuse), Sub(one, diffuse)), 0.0f, 1.0f);
            };
            const T along = Max(Add(Mul(tr, dr), Mul(ti, di)), Splat(0.0f, zero));  // Re(T conj(d))
            const auto evident = Less(Mul(Splat(kFitEvidence, zero), n[0]), td);
            Store(talker_fit + k, Select(evident, beyond_diffuse(Mul(along, along), Mul(safe_td, Max(t11, tiny))),
                                         Splat(-1.0f, zero)));
            const T moments_coherence = beyond_diffuse(Add(Mul(m[2], m[2]), Mul(m[3], m[3])), Mul(m[0], m[1]));
            const T dominated = Select(Less(Splat(kDominated, zero), p), p, Splat(0.0f, zero));
            Store(dominated_weight + k, dominated);
            Store(dominated_coherence + k, Mul(dominated, moments_coherence));
        }
        // Ratio to the steering: estimate times conj(d), blended towards 1.
        T share = Mul(Clamp(Div(safe_td, Add(safe_td, n[0])), kShareLow, kShareHigh), Splat(share_scale, zero));
        share = Select(known, share, Splat(0.0f, zero));
        T rr = Add(one, Mul(share, Sub(Add(Mul(er, dr), Mul(ei, di)), one)));
        T ri = Mul(share, Sub(Mul(ei, dr), Mul(er, di)));
        BoundRatio(rr, ri);
        const T hr = Sub(Mul(rr, dr), Mul(ri, di));
        const T hi = Add(Mul(rr, di), Mul(ri, dr));

        // MVDR with loading: w = R^-1 h / (h^H R^-1 h), h = [1, h1].
        const T coherence = Div(Add(Mul(n[2], n[2]), Mul(n[3], n[3])), Max(Mul(n[0], n[1]), tiny));
        const T pointness = Clamp(Div(Sub(coherence, diffuse), Sub(one, diffuse)), 0.0f, 1.0f);
        const T spread = Sub(one, pointness);
        const T factor = Add(Mul(Splat(loading_spread, zero), Mul(spread, spread)), Splat(kLoadingPoint, zero));
        const T loading = Add(Mul(Mul(factor, Splat(0.5f, zero)), Add(n[0], n[1])), tiny);
        const T r00 = Add(n[0], loading), r11 = Add(n[1], loading);
        const T u0r = Sub(r11, Sub(Mul(n[2], hr), Mul(n[3], hi)));
        const T u0i = Sub(Splat(0.0f, zero), Add(Mul(n[2], hi), Mul(n[3], hr)));
        const T u1r = Sub(Mul(r00, hr), n[2]);
        const T u1i = Add(Mul(r00, hi), n[3]);
        const T norm = Max(Add(u0r, Add(Mul(hr, u1r), Mul(hi, u1i))), tiny);
        const T w0r = Div(u0r, norm), w0i = Div(u0i, norm);
        const T w1r = Div(u1r, norm), w1i = Div(u1i, norm);

        // Beam output w^H x and its noise power w^H Rn w.
        T yr = Add(Add(Mul(w0r, x0r), Mul(w0i, x0i)), Add(Mul(w1r, x1r), Mul(w1i, x1i)));
        T yi = Add(Sub(Mul(w0r, x0i), Mul(w0i, x0r)), Sub(Mul(w1r, x1i), Mul(w1i, x1r)));
        // Guard: at most kGuardLimit times the power of the fixed beam
        // (x0 + conj(d) x1) / 2 passes; above it the weights amplify what they
        // should have cancelled.
        {
            const T fixed = Load(b.block_fixed_power + k, zero);
            const T out = Max(Add(Mul(yr, yr), Mul(yi, yi)), tiny);
            const T scale = Min(Sqrt(Div(Mul(Splat(kGuardLimit, zero), fixed), out)), one);
            yr = Mul(yr, scale);
            yi = Mul(yi, scale);
        }
        const T qr = Add(Mul(w0r, n[2]), Mul(w0i, n[3]));
        const T qi = Sub(Mul(w0r, n[3]), Mul(w0i, n[2]));
        T noise = Add(Mul(Add(Mul(w0r, w0r), Mul(w0i, w0i)), n[0]),
                      Mul(Add(Mul(w1r, w1r), Mul(w1i, w1i)), n[1]));
        const T cross = Sub(Mul(qr, w1r), Mul(qi, w1i));
        noise = Max(Add(noise, Add(cross, cross)), tiny);

        // Reference guard. Where the talker already stands well above the
        // noise at microphone 0, that microphone is clean, and a beam changes
        // the talker's reverberation, which one block's frame cannot follow,
        // more than it removes noise: the output leans towards microphone 0
        // there, the less so the more the beam lowers the noise.
        {
            const T talker = Max(Sub(Load(e.moments[0] + k, zero), n[0]), Splat(0.0f, zero));
            const T clean = Mul(math::LogF(Max(Div(talker, n[0]), Splat(1e-6f, zero))), Splat(kInverseLn10, zero));
            const T lean = Ramp(clean, kCleanLow, kCleanHigh);
            const T kept = Min(Div(noise, Mul(Splat(kBeamGainFree, zero), n[0])), one);
            const T towards_mic = Mul(Mul(lean, Splat(guard_scale, zero)), Mul(kept, kept));
            yr = Add(yr, Mul(towards_mic, Sub(x0r, yr)));
            yi = Add(yi, Mul(towards_mic, Sub(x0i, yi)));
        }

        // Decision-directed Wiener gain with a floor.
        const T gamma = Div(Add(Mul(yr, yr), Mul(yi, yi)), noise);
        Store(e.output_snr + k, Add(Mul(Splat(kOutputSnrKeep, zero), Load(e.output_snr + k, zero)),
                                    Mul(Splat(1.0f - kOutputSnrKeep, zero), gamma)));
        const T prior = Add(Mul(Splat(kDecisionDirected, zero), Load(e.prior_snr_memory + k, zero)),
                            Mul(Splat(1.0f - kDecisionDirected, zero), Max(Sub(gamma, one), Splat(0.0f, zero))));
        const T floor = Add(Splat(kGainFloor, zero), Mul(Splat(floor_rise, zero), p));
        const T block_gain = Max(Div(prior, Add(one, prior)), floor);
        const T talker_power = Max(td, Splat(0.0f, zero));
        const T steady_gain = Div(talker_power, Add(talker_power, Max(Mul(noise, Splat(kSteadyNoiseScale, zero)), tiny)));
        const T gain = Add(block_gain, Mul(Splat(steady_share, zero), Sub(steady_gain, block_gain)));
        Store(e.prior_snr_memory + k, Mul(Mul(gain, gain), gamma));
        Store(b.gain + kEnhancedGuard + k, gain);
        StoreComplex(spectrum + 2 * k, yr, yi);
    });

    // The gain, applied. Where the talker is absent, each bin takes the mean
    // gain of the seven around it: a bin where the noise happens to rise
    // would otherwise pass alone, as a short tone (musical noise). Where the
    // talker is present each bin keeps its own gain, which follows its
    // harmonics. The mix follows the presence's fourth power: only a sure
    // talker keeps the bin's own gain.
    ReplicateEdges(b.gain);
    ForEachBin([&](auto zero, int32_t k) {
        using T = decltype(zero);
        const float *gain = b.gain + kEnhancedGuard + k;
        const T p = Load(b.presence + k, zero);
        const T own = Mul(Mul(p, p), Mul(p, p));
        const T local = SevenBinMean(gain, zero);
        const T applied = Add(local, Mul(own, Sub(Load(gain, zero), local)));
        T yr, yi;
        LoadComplex(spectrum + 2 * k, yr, yi);
        StoreComplex(spectrum + 2 * k, Mul(applied, yr), Mul(applied, yi));
    });

    float fit_sum = 0.0f, weight_sum = 0.0f, coherence_sum = 0.0f;
    int32_t evident_bins = 0;
    for (int32_t k = b.first_resolvable; k < kBins; ++k) {
        weight_sum += dominated_weight[k];
        coherence_sum += dominated_coherence[k];
        if (talker_fit[k] < 0.0f) continue;
        fit_sum += talker_fit[k];
        ++evident_bins;
    }
    e.look_fit = evident_bins >= kFitMinBins ? fit_sum / static_cast<float>(evident_bins) : 0.0f;
    if (weight_sum >= kDominatedMinWeight)
        e.dryness = e.dryness_keep * e.dryness + (1.0f - e.dryness_keep) * (coherence_sum / weight_sum);
    else
        e.dryness *= e.dryness_relax;
    if (e.blocks < kBlockCountLimit) ++e.blocks;
}
