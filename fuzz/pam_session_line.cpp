// Fuzzes the session rule reader: the input is a whole session rule file,
// searched as a user, group, default and address rule file in turn.
#include "pam/pam_acl.hpp"
#include "pam_memfile.hpp"

#include <arpa/inet.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <initializer_list>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace mg::pam;
    set_log_sink([](int, const char *) {});

    int fd = pamfuzz::memory_file(data, size);
    const in_addr_t address = inet_addr("10.1.2.3");
    for (int kind : {'u', 'g', '*', 'i'}) {
        int copy = dup(fd);
        if (copy < 0 || lseek(copy, 0, SEEK_SET) != 0) abort();
        SessionRule rule;
        rule.kind = kind;
        int found = scan_session_file(kind == 'g' ? "staff" : "alice", address, rule, copy, "fuzz");
        if (found < -1 || found > 1) abort();
        if (found == 1 && kind == 'i') {
            uint32_t host = ntohl(address);
            if (rule.low > host || rule.high < host) abort();
        }
    }
    close(fd);
    return 0;
}
