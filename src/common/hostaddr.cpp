// The IPv4 address of a host name, and of this host, for log records.
#include <mossgrove/common.h>
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

#include "common/text.hpp"

namespace {

constexpr size_t kHostNameBuf = 300;

}  // namespace

// The result is the address itself (network order), so 255.255.255.255 reads
// as failure; callers only test for -1 and use the dotted text.
int get_ipaddr_by_hostname(const char *name, char *dst, int size) noexcept {
    if (name == nullptr || dst == nullptr || size < 1) return -1;
    const hostent *host = gethostbyname(name);
    if (host == nullptr || host->h_addrtype != AF_INET || host->h_length != sizeof(in_addr) ||
        host->h_addr_list == nullptr || host->h_addr_list[0] == nullptr)
        return -1;
    in_addr addr;
    memcpy(&addr, host->h_addr_list[0], sizeof addr);
    mg::text::copy_cut(dst, static_cast<size_t>(size), inet_ntoa(addr));
    int32_t result;
    memcpy(&result, &addr.s_addr, sizeof result);
    return result;
}

int get_host_ipaddr(char *dst, int size) noexcept {
    if (dst == nullptr || size < 1) return -1;
    char name[kHostNameBuf];
    if (gethostname(name, sizeof name) != 0) return -1;
    name[sizeof name - 1] = '\0';  // a cut name is not terminated
    return get_ipaddr_by_hostname(name, dst, size);
}
