// Fuzzes the service-rule file reader: every list it builds holds headers
// whose rule arrays match their counts, and is freed whole.
#include <mossgrove/rules.h>

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "pam_memfile.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    int fd = pamfuzz::memory_file(data, size);
    char path[64];
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    alsvc_load *list = nullptr;
    const int r = make_load_header(0, path, &list);
    for (alsvc_load *n = list; n != nullptr; n = n->next) {
        // A count past int reads as atoi cuts it and may come out negative:
        // such a header has no rules, and the upload refuses it.
        if (n->hdr == nullptr || (n->hdr->rule_cnt > 0) != (n->rules != nullptr)) abort();
        if (strnlen(n->hdr->name, sizeof n->hdr->name) == sizeof n->hdr->name) abort();
        for (int i = 0; i < n->hdr->rule_cnt; ++i)
            if (strnlen(n->rules[i].service, 16) == 16) abort();
    }
    if (r != 0 && r != -1) abort();
    free_load_hdr_all(list);
    close(fd);
    return 0;
}
