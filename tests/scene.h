// The integer-only two-microphone scenes that pin the library's output
// (test_golden) and that the benchmarks measure (bench/scene.h): the same
// bytes on every platform. A voiced
// talker at broadside (a Q14 resonator driven by a pitch pulse train and
// noise, the same signal at both microphones), a low-passed noise interferer
// that reaches microphone 0 two samples before microphone 1, and independent
// sensor noise. Each scene's recipe is recorded with its reference outputs.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

namespace kivbf_scene {

inline constexpr int kHop = 128;

class Lcg {
public:
    Lcg(uint32_t seed, uint32_t multiplier, uint32_t increment)
        : state_(seed), multiplier_(multiplier), increment_(increment) {}
    int32_t Next() {  // uniform in [-32768, 32767]
        state_ = state_ * multiplier_ + increment_;
        return static_cast<int32_t>(state_ >> 16) - 32768;
    }

private:
    uint32_t state_, multiplier_, increment_;
};

struct Recipe {
    uint32_t multiplier = 1664525u, increment = 1013904223u;  // of every Lcg
    uint32_t seeds[4];           // excitation, interferer, sensor 0, sensor 1
    int32_t a1, a2;              // resonator y = (a1 y1 - a2 y2) >> 14 + ...
    int32_t pulse;               // pitch pulse height
    int excitation_shift;        // excitation noise = Lcg >> shift
    int interferer_shift;        // one-pole low-pass: l += (x - l) >> shift
    int32_t interferer_divisor;  // interferer = l / divisor
    int sensor_shift;            // sensor noise = Lcg >> shift
    int (*pitch_period)(int n);                // samples between pulses at sample n
    int32_t (*talker)(int32_t voice, int n);   // the resonator's output as heard at n
};

inline std::vector<int16_t> MakeScene(const Recipe &r, int samples) {
    constexpr int kLag = 2;
    Lcg excitation(r.seeds[0], r.multiplier, r.increment), source(r.seeds[1], r.multiplier, r.increment),
        sensor0(r.seeds[2], r.multiplier, r.increment), sensor1(r.seeds[3], r.multiplier, r.increment);
    std::vector<int32_t> interferer(samples + kLag);
    int32_t lowpass = 0;
    for (int32_t &sample : interferer) {
        lowpass += (source.Next() - lowpass) >> r.interferer_shift;
        sample = lowpass / r.interferer_divisor;
    }
    std::vector<int16_t> scene(2 * samples);
    int32_t y1 = 0, y2 = 0;
    for (int n = 0; n < samples; ++n) {
        const int32_t pulse = (n % r.pitch_period(n) == 0) ? r.pulse : 0;
        const int32_t y = ((r.a1 * y1 - r.a2 * y2) >> 14) + pulse + (excitation.Next() >> r.excitation_shift);
        y2 = y1;
        y1 = y;
        const int32_t talker = r.talker(y, n);
        const int32_t mic0 = talker + interferer[n + kLag] + (sensor0.Next() >> r.sensor_shift);
        const int32_t mic1 = talker + interferer[n] + (sensor1.Next() >> r.sensor_shift);
        scene[2 * n] = static_cast<int16_t>(std::clamp(mic0, -32768, 32767));
        scene[2 * n + 1] = static_cast<int16_t>(std::clamp(mic1, -32768, 32767));
    }
    return scene;
}

}  // namespace kivbf_scene
