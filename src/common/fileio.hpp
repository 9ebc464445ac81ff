// Whole-buffer transfers and the durable replacement of a file through a
// temporary file: the generic steps every file writer of the library shares.
#pragma once

#include <cstddef>

namespace mg::fileio {

// Read or write the whole buffer, going on after short transfers and EINTR;
// an end of file before the last byte is EIO. 0 or -1.
int read_all(int fd, void *buf, size_t len) noexcept;
int write_all(int fd, const void *buf, size_t len) noexcept;

// A temporary file given up: closes fd (when >= 0) and removes tmp (when not
// null); errno is kept.
void discard_temp(int fd, const char *tmp) noexcept;

// Creates (or truncates) the temporary file tmp of a text store or
// configuration file that is replaced through a fixed temporary name: nothing
// but a regular file may stand under the name (errno 10017 otherwise, also
// when it cannot be examined), a link there is never followed, and the file is
// made 0444 at once so that it rests read-only once renamed. Returns the
// descriptor (open for writing) or -1.
int create_named_temp(const char *tmp) noexcept;

// Makes the temporary file tmp (open as fd) durable and renames it onto
// target: fsync, close, rename, so that a crash or power cut leaves either the
// old or the new file. On failure the temporary file is removed and -1
// returned with the system's errno.
int install_temp(int fd, const char *tmp, const char *target) noexcept;

}  // namespace mg::fileio
