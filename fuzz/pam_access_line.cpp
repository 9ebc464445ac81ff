// Fuzzes the access rule reader: the input is a whole rule file (read through
// the same buffered line reader as a real one) checked against a fixed remote
// request, so every line reaches the permission, service, host, terminal and
// time matching. Addresses in the input are only parsed, never resolved.
#include "pam/pam_acl.hpp"
#include "pam_memfile.hpp"

#include <mossgrove/common.h>

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace {

// The module's one-pass field splitter must cut exactly where xparse_string
// cuts, on any text.
void compare_splitters(const uint8_t *data, size_t size) {
    char a[mg::pam::kLineBuffer], b[mg::pam::kLineBuffer];
    size_t n = size < sizeof a - 1 ? size : sizeof a - 1;
    memcpy(a, data, n);
    a[n] = '\0';
    memcpy(b, a, n + 1);
    for (int want : {5, 6}) {
        char *fa[6] = {}, *fb[6] = {};
        int stored = mg::pam::split_fields(a, ':', fa, want);
        int rc = xparse_string(b, ':', fb, want);
        if (rc == 0 || (rc == 1) != (stored == want)) abort();
        for (int i = 0; i < stored; ++i)
            if (fb[i] == nullptr || fa[i] - a != fb[i] - b || strcmp(fa[i], fb[i]) != 0) abort();
        memcpy(a, data, n);
        memcpy(b, data, n);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace mg::pam;
    set_log_sink([](int, const char *) {});
    compare_splitters(data, size);

    // The first byte picks the remote host's form, so the '!' and pts/ paths
    // are reached as well as address matching.
    static const char *const kHosts[] = {"10.1.2.3", "pts/4", " local", nullptr};
    PamRequest request;
    snprintf(request.account.name, sizeof request.account.name, "%s", "alice");
    request.service.assign("sshd");
    request.rhost.assign(kHosts[size > 0 ? data[0] % 4 : 0]);
    request.tty.assign(size > 1 && (data[1] & 1) ? nullptr : "pts/3");
    request.have_now = true;
    request.now.tm_hour = 17;
    request.now.tm_mday = 2;
    request.now.tm_mon = 5;
    request.now.tm_wday = 1;
    snprintf(request.rule_path, sizeof request.rule_path, "%s", "fuzz");

    int result = scan_rule_file(request, pamfuzz::memory_file(data, size));
    if (result < 0 || result > 2) abort();
    return 0;
}
