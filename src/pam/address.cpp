// IPv4 helpers of the rule matching: local address, strict dotted quads,
// host-name resolution that refuses true IPv6, address ranges, numeric fields.
#include "pam/pam_acl.hpp"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace mg::pam {

namespace {

// This host's address, looked up once a minute at most: a login writes few
// entries, but a host whose own name does not resolve must not pay a name
// service query (and a DNS time-out) for each of them.
constexpr time_t kLocalIpTtl = 60;

struct LocalIp {
    time_t looked_up = 0;  // 0: never
    in_addr_t addr = kNoAddr;
};
LocalIp g_local_ip;

in_addr_t look_up_local_ip() noexcept {
    char host[64] = {};
    if (gethostname(host, sizeof host - 1) != 0) return kNoAddr;
    const struct hostent *he = gethostbyname(host);
    if (he == nullptr || he->h_addr_list == nullptr || he->h_addr_list[0] == nullptr || he->h_length != 4)
        return kNoAddr;
    in_addr_t addr;
    memcpy(&addr, he->h_addr_list[0], sizeof addr);
    return addr;
}

}  // namespace

in_addr_t get_local_ip(char *buffer, size_t size) noexcept {
    time_t now = time(nullptr);
    if (g_local_ip.looked_up == 0 || now - g_local_ip.looked_up >= kLocalIpTtl || now < g_local_ip.looked_up) {
        g_local_ip.addr = look_up_local_ip();
        g_local_ip.looked_up = now;
    }
    if (buffer != nullptr && size > 0) {
        buffer[0] = '\0';
        if (g_local_ip.addr != kNoAddr) {
            in_addr addr;
            addr.s_addr = g_local_ip.addr;
            bformat(buffer, size, "%s", inet_ntoa(addr));
        }
    }
    return g_local_ip.addr;
}

int netmask_to_cidr(in_addr_t mask) noexcept {
    uint32_t rest = ~ntohl(mask);
    int shifts = 0;
    while (rest != 0) {
        rest >>= 1;
        ++shifts;
    }
    return 32 - shifts;
}

in_addr_t dot_quad_addr(const char *text) noexcept {
    if (text == nullptr) return kNoAddr;
    int runs = 0;
    bool in_run = false;
    for (const char *p = text; *p != '\0'; ++p) {
        if (*p == '.') {
            in_run = false;
        } else if (!in_run) {
            in_run = true;
            ++runs;
        }
    }
    return runs == 4 ? inet_addr(text) : kNoAddr;
}

int split_ip_subnet(uint32_t range[2], char *text) noexcept {
    if (text == nullptr) return 0;
    char *slash = strchr(text, '/');
    if (slash == nullptr) return 0;
    *slash = '\0';
    const char *bits = slash + 1;
    if (*bits == '\0') return 0;
    in_addr_t addr = dot_quad_addr(text);
    if (addr == kNoAddr) return 0;

    int prefix;
    in_addr_t mask = dot_quad_addr(bits);
    if (mask != kNoAddr)
        prefix = netmask_to_cidr(mask);
    else if (strcmp(bits, "255.255.255.255") == 0)
        prefix = 32;
    else
        prefix = atoi(bits);
    if (prefix < 0 || prefix > 32) return 0;

    uint32_t host = ntohl(addr);
    if (prefix == 32) {
        range[0] = range[1] = host;
    } else if (prefix == 0) {
        // Only 0.0.0.0/0 means every address; 10.0.0.0/0 matches 0.0.0.0 alone.
        bool any = strcmp(text, "0.0.0.0") == 0;
        range[0] = 0;
        range[1] = any ? 0xFFFFFFFFu : 0;
    } else {
        uint32_t netmask = 0xFFFFFFFFu << (32 - prefix);
        range[0] = host & netmask;
        range[1] = range[0] | ~netmask;
    }
    return 1;
}

bool ipv6_carries_ipv4(const unsigned char bytes[16], in_addr_t *addr) noexcept {
    for (int i = 0; i < 8; ++i)
        if (bytes[i] != 0) return false;
    if (bytes[8] != 0xFF || bytes[9] != 0xFF || bytes[10] != 0 || bytes[11] != 0) return false;
    memcpy(addr, bytes + 12, 4);
    return true;
}

in_addr_t convert_hostname(const char *name) noexcept {
    if (name == nullptr) return kNoAddr;
    const struct hostent *he = gethostbyname(name);
    if (he == nullptr || he->h_addr_list == nullptr || he->h_addr_list[0] == nullptr) return kNoAddr;
    if (he->h_addrtype != AF_INET && he->h_addrtype != AF_INET6) return kNoAddr;
    in_addr_t addr;
    if (he->h_length == 4) {
        memcpy(&addr, he->h_addr_list[0], 4);
        return addr;
    }
    if (he->h_length == 16) {
        if (ipv6_carries_ipv4(reinterpret_cast<const unsigned char *>(he->h_addr_list[0]), &addr))
            return addr;
        _log_err(LOG_ERR, "IPv6 address is not supported yet (hostname=%s).", name);
    }
    return kNoAddr;
}

int is_num(const char *text) noexcept {
    if (text == nullptr || *text == '\0') return 0;
    if (!isdigit(static_cast<unsigned char>(*text)) && *text != '-') return 0;
    for (const char *p = text + 1; *p != '\0'; ++p)
        if (!isdigit(static_cast<unsigned char>(*p))) return 0;
    return 1;
}

const char *cut_device_prefix(const char *text) noexcept {
    if (text == nullptr || text[0] != '/') return text;
    const char *second = strchr(text + 1, '/');
    return second != nullptr ? second + 1 : text;
}

}  // namespace mg::pam
