// PCM dump: the two input channels and the output as raw 16-bit files,
// switched by AUDIO_BF_DUMP and placed in AUDIO_DUMP_PATH (else ".").
#include <dirent.h>

#include <cstdio>
#include <cstdlib>

#include "AudioBfProcess_internal.h"
#include "debug_msglevel.h"

using namespace kivbf;

namespace {

constexpr int32_t kDumpPathCapacity = 512;

const char *DumpDirectory() { return std::getenv("AUDIO_DUMP_PATH"); }

// Formats a dump file name into `path`; false when it does not fit.
bool FormInputPath(char (&path)[kDumpPathCapacity], int32_t channel) {
    const char *dir = DumpDirectory();
    const int written =
        dir != nullptr
            ? std::snprintf(path, sizeof path, "%s/Audio_BF_input_data%d.pcm", dir, channel)
            : std::snprintf(path, sizeof path, "./Audio_BF_input_data%d.pcm", channel);
    return written >= 0 && written < kDumpPathCapacity;
}

bool FormOutputPath(char (&path)[kDumpPathCapacity]) {
    const char *dir = DumpDirectory();
    const int written = dir != nullptr
                            ? std::snprintf(path, sizeof path, "%s/Audio_BF_output_data.pcm", dir)
                            : std::snprintf(path, sizeof path, "./Audio_BF_output_data.pcm");
    return written >= 0 && written < kDumpPathCapacity;
}

FILE *OpenInput(int32_t channel) {
    char path[kDumpPathCapacity];
    return FormInputPath(path, channel) ? std::fopen(path, "wb") : nullptr;
}

FILE *OpenOutput() {
    char path[kDumpPathCapacity];
    return FormOutputPath(path) ? std::fopen(path, "wb") : nullptr;
}

bool DirectoryExists(const char *path) {
    DIR *dir = opendir(path);
    if (dir == nullptr) return false;
    closedir(dir);
    return true;
}

bool CheckDirectory(const BfCoreState &s, const char *caller) {
    const char *dir = DumpDirectory();
    char formed[kDumpPathCapacity];
    const int written = std::snprintf(formed, sizeof formed, "%s/", dir != nullptr ? dir : ".");
    if (written >= 0 && written < kDumpPathCapacity && DirectoryExists(formed)) return true;
    DML_PRINT(s.debug_level, DML_ERR, "[%s] %s[BF][%s]Fail! Dump path %s doesn't exist!\t\n",
              caller, dir != nullptr ? dir : ".");
    return false;
}

// Opens the three files afresh (closing any still open); on failure prints
// the message naming `caller`, closes what was opened and returns false.
bool OpenAll(BfCoreState &s, const char *caller) {
    Bf_DumpCloseAll(s);
    for (int32_t ch = 0; ch < kMics; ++ch) {
        s.dump_input[ch] = OpenInput(ch);
        if (s.dump_input[ch] == nullptr) {
            DML_PRINT(s.debug_level, DML_ERR,
                      "[%s] %s[BF] [%s] Fail! The dump input file %d could not be open\n", caller,
                      ch);
            Bf_DumpCloseAll(s);
            return false;
        }
    }
    s.dump_output = OpenOutput();
    if (s.dump_output == nullptr) {
        DML_PRINT(s.debug_level, DML_ERR,
                  "[%s] %s[BF] [%s] Fail! The dump output file could not be open\n", caller);
        Bf_DumpCloseAll(s);
        return false;
    }
    return true;
}

void CloseFile(FILE *&file) {
    if (file != nullptr) std::fclose(file);
    file = nullptr;
}

}  // namespace

bool Bf_DumpSetUp(BfCoreState &s, const char *caller) {
    const char *setting = std::getenv("AUDIO_BF_DUMP");
    s.dump_mode = setting != nullptr ? std::atoi(setting) : 0;
    if (s.dump_mode == 0) return true;
    return CheckDirectory(s, caller) && OpenAll(s, caller);
}

uint32_t Bf_DumpFollowEnvironment(BfCoreState &s) {
    const char *setting = std::getenv("AUDIO_BF_DUMP");
    if (setting == nullptr) {
        // Unset while on: close, but keep dump_mode; the cleared pointers
        // make the writes of later blocks no-ops.
        if (s.dump_mode == 1) Bf_DumpCloseAll(s);
        return KIVBF_OK;
    }
    const int32_t requested = std::atoi(setting);
    if (requested == s.dump_mode) return KIVBF_OK;
    s.dump_mode = requested;
    if (requested == 1) {
        if (!OpenAll(s, "Run")) return KIVBF_ERR_DUMP_OPEN;
    } else if (requested == 0) {
        Bf_DumpCloseAll(s);
    } else {
        DML_PRINT(s.debug_level, DML_ERR, "[%s] %s[BF] [Run] Fail! [%s] Dump export error\t\n",
                  "KivBf_Run");
    }
    return KIVBF_OK;
}

void Bf_DumpWrite(FILE *file, const int16_t *samples, uint32_t count) {
    if (file != nullptr) std::fwrite(samples, sizeof(int16_t), count, file);
}

void Bf_DumpCloseAll(BfCoreState &s) {
    for (FILE *&file : s.dump_input) CloseFile(file);
    CloseFile(s.dump_output);
}
