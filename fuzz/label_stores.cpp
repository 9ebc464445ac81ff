// Fuzzes the readers of the binary label stores. The input becomes, all at
// once, the MLS user store, the category store, the transition list and the
// security password store of a scratch installation root (the kernel module
// is absent, so only files are touched). Every enumeration and look-up must
// get through it, every record handed out must lie within the file, and a
// category move over whatever tree the file holds must keep the store a whole
// number of records.
#include <mossgrove/labels.h>
#include <mossgrove/sopass.h>
#include <mossgrove/stores.h>
#include "common/paths.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

std::string g_root;

void check(bool ok) {
    if (!ok) abort();
}

void remove_root() {
    std::string cmd = "rm -rf '" + g_root + "'";
    if (system(cmd.c_str()) != 0) fprintf(stderr, "could not remove %s\n", g_root.c_str());
}

const std::string &root() {
    if (g_root.empty()) {
        const char *tmp = getenv("TMPDIR");
        std::string templ = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/mgfuzz_labels.XXXXXX";
        check(mkdtemp(templ.data()) != nullptr);
        g_root = templ;
        atexit(remove_root);
        check(mkdir((g_root + "/data").c_str(), 0755) == 0 && mkdir((g_root + "/etc").c_str(), 0755) == 0);
        FILE *f = fopen((g_root + "/evmg").c_str(), "w");
        check(f != nullptr && fprintf(f, "MG_ROOT=%s\n", g_root.c_str()) > 0 && fclose(f) == 0);
        mg::paths::override_for_tests((g_root + "/evmg").c_str(), nullptr, nullptr);
        check(chk_mgrootdir() == 1 && set_dbpath() == 1 && set_supath() == 1);
    }
    return g_root;
}

void put(const std::string &path, const uint8_t *data, size_t size) {
    unlink(path.c_str());
    FILE *f = fopen(path.c_str(), "w");
    check(f != nullptr);
    check((size == 0 || fwrite(data, 1, size, f) == size) && fclose(f) == 0);
}

long file_size(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

template <class Get, class End>
size_t count_all(Get get, End end, size_t record, size_t size) {
    size_t n = 0;
    while (get() != nullptr) ++n;
    end();
    check(n == size / record);
    return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string &dir = root();
    const std::string data_dir = dir + "/data/";
    for (const char *name : {"mls_user", "mls_cat", "su_file", ".mls_user_bak", ".mls_cat_bak", ".su_file_bak"})
        unlink((data_dir + name).c_str());
    put(data_dir + "mls_user", data, size);
    put(data_dir + "mls_cat", data, size);
    put(data_dir + "su_file", data, size);
    put(dir + "/etc/mgpasswd", data, size);

    setmuent();
    count_all(getmuent, endmuent, sizeof(MGMlsUser), size);
    getmunam("root");
    getmuuid(0);
    setcatent();
    count_all(getcatent, endcatent, sizeof(MGCategory), size);
    getcatnam("ROOT");
    int cid = createcid();
    check(cid == -1 || (cid >= 3 && cid <= 127));
    get_cat_role(5);
    cnamecmp(static_cast<int>(size % 17), 1, "x");
    setsuent();
    count_all(getsuent, endsuent, sizeof(MGSuEntry), size);
    getsuuid(0);

    const bool whole = size >= sizeof(MGSecPasswd) && size % sizeof(MGSecPasswd) == 0;
    check((setmgpwdent() == 1) == whole);
    size_t n = 0;
    while (getmgpwdent() != nullptr) ++n;
    endmgpwdent();
    check(n == (whole ? size / sizeof(MGSecPasswd) : 0));
    get_login_retry("root");

    // Move the first stored category (whatever it holds) under the root.
    if (size >= sizeof(MGCategory)) {
        MGCategory moved;
        memcpy(&moved, data, sizeof moved);
        MGCategory parent{};
        parent.id = 1;
        parent.role = 3;
        parent.path[0] = 1;
        check(modcatent(1, "moved", &moved, &parent) == 1);
        check(file_size(data_dir + "mls_cat") == static_cast<long>(size / sizeof(MGCategory) * sizeof(MGCategory)));
    }
    return 0;
}
