// Where the library's messages go: one formatting function and the process's
// sink record.
//
// The only mutable state of the library is the pointer below: a lock-free
// atomic to a caller-owned record that is never written through. Null means
// the default, standard output at the handle's level.
#include "message_sink.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "debug_msglevel.h"

namespace {

std::atomic<const KivBfExtMessageSink *> g_message_sink{nullptr};
static_assert(std::atomic<const KivBfExtMessageSink *>::is_always_lock_free);

// Longest message handed to a callback, with its NUL.
constexpr size_t kMessageBytes = 1024;

bool IsAcceptedMask(int32_t level) {
    return level == 0 || level == 1 || level == 3 || level == 7 || level == 15;
}

void Deliver(const KivBfExtMessageSink *sink, int32_t kind, const char *fmt, va_list args) {
    const uint32_t destination = sink == nullptr ? KIVBFEXT_SINK_STDOUT : sink->destination;
    if (destination == KIVBFEXT_SINK_DISCARD) return;
    char text[kMessageBytes];
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(text, sizeof text, fmt, args);
    if (destination == KIVBFEXT_SINK_CALLBACK) {
        if (length >= 0) sink->callback(sink->user, kind, text);
    } else {
        FILE *stream = destination == KIVBFEXT_SINK_STDERR ? stderr : stdout;
        if (length >= 0 && static_cast<size_t>(length) < sizeof text)
            std::fwrite(text, 1, static_cast<size_t>(length), stream);
        else
            std::vfprintf(stream, fmt, again);  // too long for the buffer: print it whole
    }
    va_end(again);
}

}  // namespace

bool MessageSink_Set(const KivBfExtMessageSink *sink) {
    if (sink != nullptr) {
        const bool known = sink->destination <= KIVBFEXT_SINK_DISCARD;
        const bool has_callback =
            sink->destination != KIVBFEXT_SINK_CALLBACK || sink->callback != nullptr;
        const bool level_ok = sink->level == KIVBFEXT_LEVEL_FROM_FILE || IsAcceptedMask(sink->level);
        if (!known || !has_callback || !level_ok) return false;
    }
    g_message_sink.store(sink, std::memory_order_release);
    return true;
}

int32_t DebugMsg_Mask(int32_t level) {
    const KivBfExtMessageSink *sink = g_message_sink.load(std::memory_order_acquire);
    return sink == nullptr || sink->level == KIVBFEXT_LEVEL_FROM_FILE ? level : sink->level;
}

void DebugMsg_Print(int32_t kind, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    Deliver(g_message_sink.load(std::memory_order_acquire), kind, fmt, args);
    va_end(args);
}

void DebugMsg_Puts(const char *text) { DebugMsg_Print(DML_ERR, "%s\n", text); }
