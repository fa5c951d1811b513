// Real-FFT wrapper on KissFFT.
//
// The FFT region of the working buffer holds two KissFFT real configurations
// built in place: the forward one at the start of the region (its address is
// what fft_Ne10_cfg keeps) and the inverse one behind it, on the next 16-byte
// boundary. KissFFT's inverse is unscaled, so the 1/N factor is applied here.
#include "fft.h"

#include <kissfft/kiss_fftr.h>

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "debug_msglevel.h"
#include "vector_kernels.h"

static_assert(sizeof(kiss_fft_cpx) == 2 * sizeof(float), "spectra are read as interleaved floats");

namespace {

constexpr size_t kConfigAlignment = 16;
constexpr int32_t kMaxPoints = 256;  // fft_scratch stages at most 129 bins

size_t AlignUp(size_t bytes) {
    return (bytes + kConfigAlignment - 1) & ~(kConfigAlignment - 1);
}

bool IsSupportedLength(int32_t n) { return n >= 4 && n <= kMaxPoints && n % 2 == 0; }

// Bytes KissFFT needs for an n-point real configuration; n must be supported.
size_t RealConfigBytes(int32_t n, int inverse) {
    size_t bytes = 0;  // with no memory given, kiss_fftr_alloc only reports the size
    kiss_fftr_alloc(n, inverse, nullptr, &bytes);
    return bytes;
}

size_t InverseConfigOffset(int32_t n) { return AlignUp(RealConfigBytes(n, 0)); }

kiss_fftr_cfg ForwardConfig(const FftRecord &record) {
    return static_cast<kiss_fftr_cfg>(record.fft_Ne10_cfg);
}

kiss_fftr_cfg InverseConfig(const FftRecord &record, int32_t n) {
    return reinterpret_cast<kiss_fftr_cfg>(static_cast<unsigned char *>(record.fft_Ne10_cfg) +
                                           InverseConfigOffset(n));
}

// Builds both configurations in the region; null when they do not fit.
void *BuildConfigurations(void *region, int32_t n) {
    if (!IsSupportedLength(n)) return nullptr;
    const size_t region_bytes = FFT_GetBufferSize(n);
    const size_t inverse_offset = InverseConfigOffset(n);
    size_t inverse_bytes = RealConfigBytes(n, 1);
    if (inverse_offset + inverse_bytes > region_bytes) return nullptr;

    std::memset(region, 0, region_bytes);
    size_t forward_bytes = inverse_offset;
    auto *bytes = static_cast<unsigned char *>(region);
    if (kiss_fftr_alloc(n, 0, bytes, &forward_bytes) == nullptr) return nullptr;
    if (kiss_fftr_alloc(n, 1, bytes + inverse_offset, &inverse_bytes) == nullptr) return nullptr;
    return region;
}

bool ReportNullArguments(const FftRecord &record, const float *data, const int32_t *ip,
                         const float *w, const char *function) {
    if (record.fft_Ne10_cfg != nullptr && data != nullptr && ip != nullptr && w != nullptr)
        return false;
    DebugMsg_Puts("[Audio] input Null in Ne10_workingBufPtr->fft_Ne10_cfg");
    DebugMsg_Print(DML_ERR, "address = %p is NULL in %s\n", record.fft_Ne10_cfg, function);
    return true;
}

size_t SpectrumBytes(int32_t n) { return static_cast<size_t>(n / 2 + 1) * sizeof(kiss_fft_cpx); }

}  // namespace

void FFT_Init(FftRecord *record) {
    if (record == nullptr) {
        DebugMsg_Puts("[FFT]The handle is NULL");
        return;
    }
    if (record->ne10_init_flag == 1) {
        DebugMsg_Puts("[FFT]Ne10 has init already");
        return;
    }
    if (record->fft_Ne10_cfg == nullptr) {
        DebugMsg_Puts("[FFT] Please assigned the begining address about FFT workingbuffer in Init.");
        return;
    }
    record->fft_Ne10_cfg = BuildConfigurations(record->fft_Ne10_cfg, record->fft_size);
    if (record->fft_Ne10_cfg == nullptr) {
        DebugMsg_Puts("[Audio] memory malloc failed");
        return;
    }
    record->ne10_init_flag = 1;
}

void FFT_Rdft(FftRecord *record, int32_t n, int32_t direction, float *data, const int32_t *ip,
              const float *w) {
    if (record == nullptr) {
        DebugMsg_Puts("[Audio] Ne10_workingBufPtr is Null in fft");
        return;
    }
    // The configurations know only the length they were built for.
    if (n != record->fft_size || !IsSupportedLength(n)) return;

    if (direction == FFT_FORWARD) {
        const bool incomplete = ReportNullArguments(*record, data, ip, w, __func__);
        // ip and w carry nothing; only a missing configuration or array stops the transform.
        if (incomplete && (record->fft_Ne10_cfg == nullptr || data == nullptr)) return;
        auto *spectrum = reinterpret_cast<kiss_fft_cpx *>(record->fft_scratch);
        kiss_fftr(ForwardConfig(*record), data, spectrum);
        std::memcpy(data, record->fft_scratch, SpectrumBytes(n));
    } else if (direction == FFT_INVERSE) {
        if (data != nullptr) std::memcpy(record->fft_scratch, data, SpectrumBytes(n));
        const bool incomplete = ReportNullArguments(*record, data, ip, w, __func__);
        if (incomplete && (record->fft_Ne10_cfg == nullptr || data == nullptr)) {
            // The spectrum has been taken; the array is left cleared.
            if (data != nullptr) std::memset(data, 0, static_cast<size_t>(n + 2) * sizeof(float));
            return;
        }
        // The transform writes the n time samples; the two floats past them
        // are cleared here.
        data[n] = 0.0f;
        data[n + 1] = 0.0f;
        const auto *spectrum = reinterpret_cast<const kiss_fft_cpx *>(record->fft_scratch);
        kiss_fftri(InverseConfig(*record, n), spectrum, data);
        vec_scale(data, 1.0f / static_cast<float>(n), n);
    }
}

void FFT_Free(FftRecord *record) {
    if (record == nullptr) {
        DebugMsg_Puts("handle is NULL in FFT_Free!\t");
        return;
    }
    if (record->ne10_init_flag == 1) record->ne10_init_flag = 0;
}
