// Real-FFT wrapper on the project's own 256-point transform (fft_real256.h).
//
// The record's scratch array holds the forward transform's half-length
// spectrum between the complex transform and the split (the inverse splits
// as its first pass reads, without it); the FFT region of the working buffer
// holds the transform's two work arrays from its first 16-byte boundary.
// The tables are compile-time constants, so initialising only checks the
// length and the region and clears the region.
#include "fft.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "debug_msglevel.h"
#include "fft_real256.h"

namespace {

constexpr size_t kWorkAlignment = 16;
constexpr size_t kWorkBytes = sizeof(float) * kivbf::fft::kWorkFloats;

static_assert(sizeof(FftRecord::fft_scratch) == sizeof(float) * kivbf::fft::kHalfSpectrumFloats);
static_assert(kWorkBytes + kWorkAlignment - 1 <= FFT_GetBufferSize(kivbf::fft::kRealPoints),
              "the work arrays fit in the region wherever it starts");

float *WorkArrays(const FftRecord &record) {
    const auto address = reinterpret_cast<uintptr_t>(record.fft_Ne10_cfg);
    return reinterpret_cast<float *>((address + kWorkAlignment - 1) & ~(kWorkAlignment - 1));
}

bool ReportNullArguments(const FftRecord &record, const float *data, const int32_t *ip,
                         const float *w, const char *function) {
    if (record.fft_Ne10_cfg != nullptr && data != nullptr && ip != nullptr && w != nullptr)
        return false;
    DebugMsg_Puts("[Audio] input Null in Ne10_workingBufPtr->fft_Ne10_cfg");
    DebugMsg_Print(DML_ERR, "address = %p is NULL in %s\n", record.fft_Ne10_cfg, function);
    return true;
}

}  // namespace

bool FFT_Init(FftRecord *record) {
    if (record == nullptr) {
        DebugMsg_Puts("[FFT]The handle is NULL");
        return false;
    }
    if (record->ne10_init_flag == 1) {
        DebugMsg_Puts("[FFT]Ne10 has init already");
        return true;
    }
    if (record->fft_Ne10_cfg == nullptr) {
        DebugMsg_Puts("[FFT] Please assigned the begining address about FFT workingbuffer in Init.");
        return false;
    }
    if (record->fft_size != kivbf::fft::kRealPoints) {
        // No configuration exists for this length; the record loses its region.
        record->fft_Ne10_cfg = nullptr;
        DebugMsg_Puts("[Audio] memory malloc failed");
        return false;
    }
    std::memset(record->fft_Ne10_cfg, 0, FFT_GetBufferSize(record->fft_size));
    record->ne10_init_flag = 1;
    return true;
}

void FFT_Rdft(FftRecord *record, int32_t n, int32_t direction, float *data, const int32_t *ip,
              const float *w) {
    if (record == nullptr) {
        DebugMsg_Puts("[Audio] Ne10_workingBufPtr is Null in fft");
        return;
    }
    if (n != record->fft_size || n != kivbf::fft::kRealPoints) return;

    if (direction == FFT_FORWARD) {
        const bool incomplete = ReportNullArguments(*record, data, ip, w, __func__);
        // ip and w carry nothing; only a missing region or array stops the transform.
        if (incomplete && (record->fft_Ne10_cfg == nullptr || data == nullptr)) return;
        kivbf::fft::RealForward256(data, record->fft_scratch, WorkArrays(*record));
    } else if (direction == FFT_INVERSE) {
        const bool incomplete = ReportNullArguments(*record, data, ip, w, __func__);
        if (incomplete && (record->fft_Ne10_cfg == nullptr || data == nullptr)) {
            // Without a region the spectrum is still taken: the array is left cleared.
            if (data != nullptr) std::memset(data, 0, static_cast<size_t>(n + 2) * sizeof(float));
            return;
        }
        kivbf::fft::RealInverse256(data, WorkArrays(*record));
    }
}

void FFT_Free(FftRecord *record) {
    if (record == nullptr) {
        DebugMsg_Puts("handle is NULL in FFT_Free!\t");
        return;
    }
    if (record->ne10_init_flag == 1) record->ne10_init_flag = 0;
}
