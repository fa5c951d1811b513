// Minimal kivbf client in C++: two handles side by side, each in its own
// buffer, looking at broadside; a tone from endfire (90 degrees) is weakened.
#include <AudioBfProcess.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

namespace {

struct FreeDeleter {
    void operator()(void *p) const { std::free(p); }
};

// Output/input power ratio in dB of a 2 kHz plane wave from `source_deg`.
double GainDb(float source_deg) {
    std::unique_ptr<void, FreeDeleter> buffer(std::malloc(KivBf_GetBufferSize()));
    const AudioBfInit init{KIVBF_POINT_NUMBER, 16000, 5.0f, 2};
    AudioBfHandle h = KivBf_Init(buffer.get(), &init);
    if (h == nullptr) return NAN;
    AudioBfConfig config{};
    if (KivBf_GetConfig(h, &config) != KIVBF_OK) return NAN;
    config.temperature = 20;
    if (KivBf_SetConfig(h, &config) != KIVBF_OK || KivBf_SetShape(h, KIVBF_GEOMETRY_LINEAR) != KIVBF_OK ||
        KivBf_SetMode(h, KIVBF_MODE_FIXED, 0.0f) != KIVBF_OK)
        return NAN;

    // Microphones at x = -2.5 cm and +2.5 cm; the wave reaches each one
    // x sin(source) / c earlier than the array's centre.
    const double c = 331.0 + 0.6 * 20.0, pi = 3.14159265358979;
    const double lead = 0.025 * std::sin(source_deg * pi / 180.0) / c;
    std::vector<int16_t> input(2 * KIVBF_POINT_NUMBER);
    std::vector<int16_t> output(KIVBF_POINT_NUMBER);
    float direction = 0.0f;
    double in_energy = 0.0, out_energy = 0.0;
    for (int b = 0; b < 50; ++b) {
        for (int n = 0; n < static_cast<int>(KIVBF_POINT_NUMBER); ++n) {
            const double t = (b * static_cast<int>(KIVBF_POINT_NUMBER) + n) / 16000.0;
            input[2 * n] = static_cast<int16_t>(8000.0 * std::sin(2.0 * pi * 2000.0 * (t - lead)));
            input[2 * n + 1] = static_cast<int16_t>(8000.0 * std::sin(2.0 * pi * 2000.0 * (t + lead)));
            if (b > 0) in_energy += static_cast<double>(input[2 * n]) * input[2 * n];
        }
        if (KivBf_Run(h, input.data(), output.data(), &direction) != KIVBF_OK) return NAN;
        for (int n = 0; n < static_cast<int>(KIVBF_POINT_NUMBER) && b > 0; ++n)
            out_energy += static_cast<double>(output[n]) * output[n];
    }
    (void)KivBf_Free(h);
    return 10.0 * std::log10(out_energy / in_energy);
}

}  // namespace

int main() {
    const double front = GainDb(0.0f);
    const double side = GainDb(90.0f);
    std::printf("c++ example: 2 kHz gain %.2f dB from broadside, %.2f dB from endfire\n", front, side);
    return std::fabs(front) < 1.0 && side < front - 3.0 ? 0 : 1;
}
