// The PAM fuzz targets hand their input to the module's readers as a file
// held in memory.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace pamfuzz {

// A memory file holding data, positioned at its start.
inline int memory_file(const uint8_t *data, size_t size) {
    int fd = memfd_create("pamfuzz", MFD_CLOEXEC);
    if (fd < 0) abort();
    for (size_t done = 0; done < size;) {
        ssize_t n = write(fd, data + done, size - done);
        if (n <= 0) abort();
        done += static_cast<size_t>(n);
    }
    if (lseek(fd, 0, SEEK_SET) != 0) abort();
    return fd;
}

}  // namespace pamfuzz
