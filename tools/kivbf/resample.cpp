#include "resample.h"

#include <cstdio>
#include <cstdlib>

#ifdef KIVBF_HAVE_SOXR
#include <soxr.h>
#endif

namespace {
constexpr uint32_t kSupportedRates[] = {8000, 16000, 32000, 48000};
}

uint32_t NearestSupportedRate(uint32_t rate) {
    uint32_t best = kSupportedRates[0];
    for (uint32_t r : kSupportedRates) {
        const auto distance = [rate](uint32_t x) { return x > rate ? x - rate : rate - x; };
        if (distance(r) <= distance(best)) best = r;
    }
    return best;
}

#ifdef KIVBF_HAVE_SOXR
bool ResamplerAvailable() { return true; }

bool Resample(const std::vector<int16_t> &in, unsigned channels, uint32_t from, uint32_t to,
              std::vector<int16_t> *out) {
    const size_t frames = in.size() / channels;
    // soxr_oneshot flushes its filter: the whole converted signal fits here.
    const size_t room = static_cast<size_t>(static_cast<double>(frames) * to / from) + 16;
    out->assign(room * channels, 0);
    const soxr_io_spec_t io = soxr_io_spec(SOXR_INT16_I, SOXR_INT16_I);
    soxr_io_spec_t quiet = io;
    quiet.flags |= SOXR_NO_DITHER;  // the same output on every run
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
    size_t written = 0;
    const soxr_error_t error = soxr_oneshot(from, to, channels, in.data(), frames, nullptr,
                                            out->data(), room, &written, &quiet, &quality, nullptr);
    if (error != nullptr) {
        std::fprintf(stderr, "kivbf process: resampling %u Hz to %u Hz failed: %s\n", from, to,
                     error);
        return false;
    }
    out->resize(written * channels);
    return true;
}
#else
bool ResamplerAvailable() { return false; }

bool Resample(const std::vector<int16_t> &, unsigned, uint32_t, uint32_t, std::vector<int16_t> *) {
    return false;
}
#endif
