// Message levels: which of the library's messages are printed.
//
// The level is a bit mask read from a small JSON file ("debug_level"): bit 1
// errors, bit 2 warnings, bit 4 informational messages. Every message is one
// printf of a format whose first two %s are the level tag and an (empty)
// prefix, e.g. "[%s] %s[BF] [Init] Fail! Initialization fail!\t\n".
#pragma once

#include <cstdint>

inline constexpr int32_t DML_ERR = 1;
inline constexpr int32_t DML_WRN = 2;
inline constexpr int32_t DML_MSG = 4;

inline constexpr const char *DebugMsg_Tag(int32_t kind) {
    return kind == DML_ERR ? "ALGO_MSG_ERR" : kind == DML_WRN ? "ALGO_MSG_WRN" : "ALGO_MSG_MSG";
}

// Reads the level mask from $DML_PATH, or "/config/audioAlgo.json" when it is
// unset. Missing, unreadable or malformed files, and values other than
// 1, 3, 7, 15, give the default 7. Nothing is cached.
int32_t DebugMsgLevel_Read(void);

// The mask that decides which messages print: a KivBfExt sink's level when one
// sets it, otherwise `level` (the handle's, read from the file at Init).
int32_t DebugMsg_Mask(int32_t level);

// Formats one message and hands it to the process's message sink (standard
// output unless KivBfExt_SetMessageSink chose another); with no sink set the
// bytes are exactly printf's.
void DebugMsg_Print(int32_t kind, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// As puts (text and a newline), through the same sink, as an error.
void DebugMsg_Puts(const char *text);

// Prints fmt when the mask has the bit `kind`. fmt starts with "[%s] %s".
#define DML_PRINT(level, kind, fmt, ...)                                                 \
    do {                                                                                 \
        if ((DebugMsg_Mask(level) & (kind)) != 0)                                        \
            DebugMsg_Print(kind, fmt, DebugMsg_Tag(kind), "" __VA_OPT__(, ) __VA_ARGS__); \
    } while (0)

// Prints fmt whatever the level (null-pointer messages).
#define DML_PRINT_ALWAYS(kind, fmt, ...) \
    DebugMsg_Print(kind, fmt, DebugMsg_Tag(kind), "" __VA_OPT__(, ) __VA_ARGS__)
