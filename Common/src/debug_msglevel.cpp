// Reading the message level from its JSON file.
#include "debug_msglevel.h"

#include <cjson/cJSON.h>

#include <cstdio>
#include <cstdlib>

#include "bf_internal_parameter.h"
#include "platform.h"

namespace {

constexpr const char *kDefaultLevelPath = "/config/audioAlgo.json";
constexpr uint32_t kOpenForReading = 0x10001;
constexpr uint32_t kAccessMode = 0644;
constexpr int32_t kSeekStart = 0;
constexpr int32_t kSeekEnd = 2;
// The file holds one small object; anything larger is not a level file and
// is not read into memory.
constexpr int64_t kMaxLevelFileBytes = 64 * 1024;

bool IsAcceptedLevel(int32_t level) {
    return level == 1 || level == 3 || level == 7 || level == 15;
}

int32_t ParseLevel(const char *text, size_t length) {
    int32_t level = kivbf::kDefaultMsgLevel;
    cJSON *root = cJSON_ParseWithLength(text, length);
    if (cJSON_IsObject(root)) {
        const cJSON *item = cJSON_GetObjectItem(root, "debug_level");
        if (cJSON_IsNumber(item)) level = IsAcceptedLevel(item->valueint) ? item->valueint
                                                                          : kivbf::kDefaultMsgLevel;
    }
    cJSON_Delete(root);
    return level;
}

// Reads the whole file into memory from PelOsMemAlloc, NUL-terminated.
int32_t ReadLevelFrom(intptr_t file) {
    const int64_t size = PelFsSeek(file, 0, kSeekEnd);
    if (size <= 0 || size > kMaxLevelFileBytes || PelFsSeek(file, 0, kSeekStart) != 0)
        return kivbf::kDefaultMsgLevel;
    auto *text = static_cast<char *>(PelOsMemAlloc(static_cast<uint64_t>(size) + 1));
    if (text == nullptr) return kivbf::kDefaultMsgLevel;
    int64_t length = 0;
    while (length < size) {
        const int64_t count = PelFsRead(file, text + length, static_cast<uint64_t>(size - length));
        if (count <= 0) break;
        length += count;
    }
    text[length] = '\0';
    const int32_t level =
        length > 0 ? ParseLevel(text, static_cast<size_t>(length)) : kivbf::kDefaultMsgLevel;
    PelOsMemRelease(text);
    return level;
}

}  // namespace

int32_t DebugMsgLevel_Read(void) {
    const char *path = kDefaultLevelPath;
    char tmp_path[128];
    if (const char *env = std::getenv("DML_PATH"); env != nullptr) {
        const int written = std::snprintf(tmp_path, sizeof tmp_path, "%s", env);
        if (written < 0 || static_cast<size_t>(written) >= sizeof tmp_path)
            return kivbf::kDefaultMsgLevel;  // a cut path would name another file
        path = tmp_path;
    }
    intptr_t file = 0;
    if (PelFsOpen(&file, path, kOpenForReading, kAccessMode) != 0) return kivbf::kDefaultMsgLevel;
    const int32_t level = ReadLevelFrom(file);
    PelFsClose(file);
    return level;
}
