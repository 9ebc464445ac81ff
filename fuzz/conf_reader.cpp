// Fuzzes the configuration reader: the input is written to a file, read with
// read_conf, queried, and read again as the installation-root file.
#include <mossgrove/common.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/paths.hpp"

namespace {

std::string g_path;

void remove_file() { unlink(g_path.c_str()); }

// One scratch file per process, removed at exit.
const char *scratch_file() {
    if (g_path.empty()) {
        const char *tmp = getenv("TMPDIR");
        std::string templ = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/mgfuzz_conf.XXXXXX";
        int fd = mkstemp(templ.data());
        if (fd < 0) abort();
        close(fd);
        g_path = templ;
        atexit(remove_file);
        mg::paths::override_for_tests(g_path.c_str(), nullptr, nullptr);
    }
    return g_path.c_str();
}

void check(bool ok) {
    if (!ok) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const uint8_t empty[1] = {0};
    if (data == nullptr) data = empty;  // the replayer passes no buffer for an empty file
    const char *path = scratch_file();
    FILE *f = fopen(path, "w");
    check(f != nullptr);
    check(fwrite(data, 1, size, f) == size);
    check(fclose(f) == 0);

    if (read_conf(path) == 1) {
        char value[1024];
        // The first word of the input is likely a key.
        std::string first(reinterpret_cast<const char *>(data), size);
        first = first.substr(0, first.find_first_of(std::string(" \t\n=#\0", 6)));
        for (const char *key : {"MG_ROOT", "ServiceAccessControl", "", first.c_str()}) {
            const int found = get_conf(key, value);
            const char *ptr = get_conf_ptr(key);
            check((found == 1) == (ptr != nullptr));
            check(strlen(value) <= 1023);
            if (ptr != nullptr) check(strcmp(ptr, value) == 0);
        }
        close_conf();
    }
    check(get_conf_ptr("MG_ROOT") == nullptr);

    char root[64];
    if (get_mgroot(root, sizeof root) == 0) check(strlen(root) >= 1 && strlen(root) < sizeof root);

    f = fopen(path, "r");
    check(f != nullptr);
    check(count_lines(f) >= 0);
    fclose(f);
    return 0;
}
