// POSIX implementation of the platform calls. Every definition is weak: an
// integrator linking the static library supplies its own to replace them, and
// the shared library exports them so that the program's own take precedence.
#include "platform.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#define PEL_WEAK __attribute__((weak, visibility("default")))

extern "C" {

// Only regular files are opened: a FIFO or device named by mistake must not
// block or feed the reader forever. The flags and mode are the platform's
// own; this implementation only ever reads.
PEL_WEAK int32_t PelFsOpen(intptr_t *handle, const char *path, uint32_t, uint32_t) {
    if (handle == nullptr || path == nullptr) return -1;
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return -1;
    struct stat info {};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        close(fd);
        return -1;
    }
    *handle = fd;
    return 0;
}

PEL_WEAK int64_t PelFsSeek(intptr_t handle, int64_t offset, int32_t origin) {
    int whence;
    switch (origin) {
    case 0: whence = SEEK_SET; break;
    case 1: whence = SEEK_CUR; break;
    case 2: whence = SEEK_END; break;
    default: return -1;
    }
    return lseek(static_cast<int>(handle), static_cast<off_t>(offset), whence);
}

PEL_WEAK int64_t PelFsRead(intptr_t handle, void *buffer, uint64_t length) {
    const ssize_t count = read(static_cast<int>(handle), buffer, static_cast<size_t>(length));
    return count < 0 ? 0 : count;
}

PEL_WEAK int32_t PelFsClose(intptr_t handle) { return close(static_cast<int>(handle)); }

PEL_WEAK void *PelOsMemAlloc(uint64_t size) { return std::malloc(static_cast<size_t>(size)); }

PEL_WEAK void PelOsMemRelease(void *memory) { std::free(memory); }

}
