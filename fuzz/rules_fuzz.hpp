// Shared set-up of the rule store fuzz targets: the input as a stream, and a
// scratch installation root with a simulated kernel for the readers that only
// work through the root or the kernel.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "common/paths.hpp"

namespace rulesfuzz {

inline void check(bool ok) {
    if (!ok) abort();
}

// The input as a read-only stream.
inline FILE *stream_of(const uint8_t *data, size_t size) {
    static const uint8_t empty[1] = {0};
    FILE *f = fmemopen(const_cast<uint8_t *>(size > 0 ? data : empty), size, "r");
    check(f != nullptr);
    return f;
}

inline std::string &root() {
    static std::string path;
    return path;
}

inline void remove_root() {
    std::string cmd = "rm -rf '" + root() + "'";
    if (system(cmd.c_str()) != 0) perror("rm");
}

// "<root>/data/<name>" holding the input; the root and its evmg are made once.
// With a simulated kernel the state sits in the root too (set by the caller).
inline std::string store_file(const char *name, const uint8_t *data, size_t size) {
    if (root().empty()) {
        const char *tmp = getenv("TMPDIR");
        std::string templ = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/mgfuzz_rules.XXXXXX";
        check(mkdtemp(templ.data()) != nullptr);
        root() = templ;
        atexit(remove_root);
        check(mkdir((root() + "/data").c_str(), 0755) == 0);
        FILE *evmg = fopen((root() + "/evmg").c_str(), "w");
        check(evmg != nullptr);
        fprintf(evmg, "MG_ROOT=%s\n", root().c_str());
        fclose(evmg);
        static std::string evmg_path = root() + "/evmg";
        mg::paths::override_for_tests(evmg_path.c_str(), nullptr, nullptr);
    }
    const std::string path = root() + "/data/" + name;
    unlink(path.c_str());
    FILE *f = fopen(path.c_str(), "w");
    check(f != nullptr);
    check(fwrite(data, 1, size, f) == size);
    check(fclose(f) == 0);
    return path;
}

}  // namespace rulesfuzz
