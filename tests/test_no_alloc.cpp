// KivBf_Run allocates nothing: the C library's allocation entry points are
// replaced in this executable and counted around the blocks of every mode,
// through silence, clipping and calibration.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "support.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KIVBF_COUNT_ALLOCATIONS 0  // the sanitizers own the allocator
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KIVBF_COUNT_ALLOCATIONS 0
#endif
#endif
#ifndef KIVBF_COUNT_ALLOCATIONS
#define KIVBF_COUNT_ALLOCATIONS 1
#endif

namespace {
std::atomic<bool> g_counting{false};
std::atomic<long> g_allocations{0};

[[maybe_unused]] void Count() {
    if (g_counting.load(std::memory_order_relaxed)) g_allocations.fetch_add(1);
}
}  // namespace

#if KIVBF_COUNT_ALLOCATIONS
extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void *__libc_memalign(size_t, size_t);

void *malloc(size_t size) {
    Count();
    return __libc_malloc(size);
}
void *calloc(size_t count, size_t size) {
    Count();
    return __libc_calloc(count, size);
}
void *realloc(void *p, size_t size) {
    Count();
    return __libc_realloc(p, size);
}
void *aligned_alloc(size_t alignment, size_t size) {
    Count();
    return __libc_memalign(alignment, size);
}
void *memalign(size_t alignment, size_t size) {
    Count();
    return __libc_memalign(alignment, size);
}
int posix_memalign(void **out, size_t alignment, size_t size) {
    Count();
    *out = __libc_memalign(alignment, size);
    return *out != nullptr ? 0 : 12;  // ENOMEM
}
}  // extern "C"
#endif

using namespace kivbf_test;

TEST(NoAllocation, RunAllocatesNothingInAnyMode) {
    if (!KIVBF_COUNT_ALLOCATIONS) GTEST_SKIP() << "allocator replaced by a sanitizer";
    unsetenv("AUDIO_BF_DUMP");
    for (uint32_t mode = 0; mode <= 4; ++mode) {
        WorkingBuffer buffer;
        AudioBfHandle h = MakeConfiguredHandle(buffer);
        (void)KivBf_SetCalibration(h, mode % 2);
        (void)KivBf_SetMode(h, mode, 10.0f);  // mode 4 is refused but runs
        std::vector<int16_t> input(256);
        int16_t output[128];
        const float direction = 10.0f;
        g_allocations = 0;
        g_counting = true;
        for (int b = 0; b < 300; ++b) {
            const int stretch = b / 50;  // tone, silence, full scale, tone with dead mic 1 ...
            for (int i = 0; i < 128; ++i) {
                const double tone = 8000.0 * std::sin(0.05 * (128 * b + i)) + (i * 37 % 101);
                const int16_t v = stretch == 1 ? 0
                                  : stretch == 2 ? static_cast<int16_t>(tone > 0 ? 32767 : -32768)
                                                 : static_cast<int16_t>(tone);
                input[2 * i] = v;
                input[2 * i + 1] = stretch == 3 ? 0 : v;
            }
            (void)KivBf_Run(h, input.data(), output, &direction);
        }
        g_counting = false;
        EXPECT_EQ(g_allocations.load(), 0) << "mode " << mode;
    }
    // The counter itself works.
    g_counting = true;
    void *probe = std::malloc(16);
    g_counting = false;
    std::free(probe);
    EXPECT_EQ(g_allocations.load(), 1);
}
