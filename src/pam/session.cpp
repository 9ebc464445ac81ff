// Login session limits: session rule files, counting from the utmpx file, and
// the user, group, default and address checks.
#include "pam/pam_acl.hpp"

#include <mossgrove/common.h>

#include "common/paths.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>
#include <utmpx.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace mg::pam {
namespace {

const char *session_file(int kind) noexcept {
    switch (kind) {
        case 'u': return "user_session.conf";
        case 'g': return "group_session.conf";
        case 'i': return "ip_session.conf";
        default: return "default_session.conf";
    }
}

// A fixed utmpx field equals a C string.
template <size_t N>
bool field_equals(const char (&field)[N], const char *text) noexcept {
    if (text == nullptr) return false;
    size_t len = strnlen(field, N);
    return strlen(text) == len && memcmp(field, text, len) == 0;
}

template <size_t N>
bool field_starts_with(const char (&field)[N], const char *prefix) noexcept {
    size_t plen = strlen(prefix);
    return plen <= N && strncmp(field, prefix, plen) == 0;
}

// Calls fn for every whole record of the utmpx file, read in large blocks.
// The records are those getutxent would give, in file order.
template <typename Fn>
void for_each_utmpx(Fn &&fn) noexcept {
    const char *path = paths::utmpx();
    if (path == nullptr) path = _PATH_UTMPX;
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    ReadBlock block;
    char *bytes = block.data();
    if (bytes != nullptr) {
        constexpr size_t kWhole = ReadBlock::kSize / sizeof(struct utmpx) * sizeof(struct utmpx);
        size_t have = 0;
        for (;;) {
            ssize_t n = read(fd, bytes + have, kWhole - have);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            have += static_cast<size_t>(n);
            size_t whole = have / sizeof(struct utmpx) * sizeof(struct utmpx);
            for (size_t off = 0; off < whole; off += sizeof(struct utmpx)) {
                struct utmpx entry;
                memcpy(&entry, bytes + off, sizeof entry);
                fn(entry);
            }
            if (have > whole) memmove(bytes, bytes + whole, have - whole);
            have -= whole;
        }
    }
    close(fd);
}

// Resolves utmpx host names with a small memory per count, so that a name
// that recurs is looked up once.
class HostCache {
public:
    in_addr_t resolve(const char *name) noexcept {
        for (size_t i = 0; i < used_; ++i)
            if (strcmp(entries_[i].name, name) == 0) return entries_[i].addr;
        in_addr_t addr = convert_hostname(name);
        Entry &e = entries_[next_];
        bformat(e.name, sizeof e.name, "%s", name);
        e.addr = addr;
        next_ = (next_ + 1) % kEntries;
        if (used_ < kEntries) ++used_;
        return addr;
    }

private:
    static constexpr size_t kEntries = 16;
    struct Entry {
        char name[257];
        in_addr_t addr;
    };
    Entry entries_[kEntries];
    size_t used_ = 0, next_ = 0;
};

// The IPv4 address (network order) a utmpx host field stands for, or kNoAddr.
in_addr_t utmpx_host_address(const struct utmpx &entry, HostCache &cache) noexcept {
    char host[sizeof entry.ut_host + 1];
    size_t len = strnlen(entry.ut_host, sizeof entry.ut_host);
    memcpy(host, entry.ut_host, len);
    host[len] = '\0';
    const char *text = host;
    unsigned char v6[16];
    if (inet_pton(AF_INET6, host, v6) == 1) {
        in_addr_t carried;
        if (!ipv6_carries_ipv4(v6, &carried)) return kNoAddr;
        text = strrchr(host, ':') + 1;
    } else {
        char *colon = strchr(host, ':');
        if (colon != nullptr) *colon = '\0';
    }
    in_addr_t addr = dot_quad_addr(text);
    return addr != kNoAddr ? addr : cache.resolve(text);
}

// Shared tail of the user, group and default checks once a rule was found.
int apply_user_limit(const PamRequest &request, SessionRule &rule, bool console_exempt) noexcept {
    if (rule.max == 0) return 0;
    if (rule.max == -1) return 1;
    if (rule.max == -2) return 2;
    if (console_exempt && starts_with(request.tty.get(), "tty")) return 1;
    rule.current = count_user_sessions(request.account.name, request.tty.get(), rule.skip_console != 0);
    trace_step("sessions of '%s' counted%s: %d, limit %d", request.account.name,
               rule.skip_console != 0 ? " (console sessions skipped)" : "", rule.current, rule.max);
    return rule.current >= 0 && rule.current < rule.max ? 1 : 0;
}

// Outcome of read_session_info for the checks: the final answer for an error
// (-1) or no rule (0); -2 when a rule was found and the limit decides.
int rule_lookup_outcome(int found, SessionRule &rule) noexcept {
    if (found < 0) {
        rule.current = -1;
        return 0;
    }
    return found == 0 ? 2 : -2;
}

}  // namespace

int parse_session_info(SessionRule &rule, char *line, int lineno, const char *file) noexcept {
    char empty[5][1] = {};
    char *field[5];
    for (int i = 0; i < 5; ++i) field[i] = empty[i];
    split_fields(line, ':', field, 5);

    if (field[1][0] == '\0') {
        _log_err(LOG_ERR, "%s: line %d: empty name field", file, lineno);
        return -1;
    }
    for (int i = 2; i < 5; ++i)
        if (field[i][0] != '\0' && !is_num(field[i])) return -1;
    bformat(rule.name, sizeof rule.name, "%s", field[1]);
    rule.max = field[2][0] != '\0' ? atoi(field[2]) : -1;
    rule.limit_console = field[3][0] != '\0' && atoi(field[3]) != 0 ? 1 : 0;
    rule.skip_console = field[4][0] != '\0' && atoi(field[4]) != 0 ? 1 : 0;
    return 1;
}

int scan_session_file(const char *name, in_addr_t address, SessionRule &rule, int fd,
                      const char *file) noexcept {
    LineReader reader(fd);
    if (!reader.ok()) {
        rule.max = 0;
        return -1;
    }
    char line[kLineBuffer];
    for (int lineno = 1; reader.next(line); ++lineno) {
        char *text = significant_line(line, file, lineno);
        if (text == nullptr) continue;
        SessionRule candidate;
        candidate.kind = rule.kind;
        if (parse_session_info(candidate, text, lineno, file) < 0) return -1;
        switch (rule.kind) {
            case 'u':
            case 'g':
                if (name == nullptr || strcmp(candidate.name, name) != 0) continue;
                break;
            case 'i': {
                in_addr_t quad = dot_quad_addr(candidate.name);
                if (quad != kNoAddr) {
                    if (quad != address) continue;
                    candidate.low = candidate.high = ntohl(quad);
                } else if (strchr(candidate.name, '/') != nullptr) {
                    uint32_t range[2];
                    uint32_t host = ntohl(address);
                    if (split_ip_subnet(range, candidate.name) == 0 || host < range[0] || host > range[1])
                        continue;
                    candidate.low = range[0];
                    candidate.high = range[1];
                } else {
                    continue;
                }
                break;
            }
            default: break;  // the default file: the first rule line
        }
        rule = candidate;
        trace_step("%s:%d: rule for '%s': max sessions %d%s", file, lineno, rule.name, rule.max,
                   rule.max == -1 ? " (unlimited)" : rule.max == -2 ? " (look further)" : "");
        return 1;
    }
    trace_step("%s: no rule applies", file);
    rule.max = -1;
    return 0;
}

int read_session_info(const char *name, in_addr_t address, SessionRule &rule) noexcept {
    char path[1024];
    bformat(path, sizeof path, "%s/%s", paths::pam_acl_dir(), session_file(rule.kind));
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        if (errno == ENOENT) {
            trace_step("%s: not present", path);
            rule.max = -1;
            return 0;
        }
        _log_err(LOG_ERR, "%s: fail to read session rule file '%s' [errno = %d]", "read_session_info", path,
                 errno);
        rule.max = 0;
        return -1;
    }
    return scan_session_file(name, address, rule, fd, path);
}

int count_user_sessions(const char *user, const char *tty, bool skip_console) noexcept {
    int count = 0;
    for_each_utmpx([&](const struct utmpx &entry) {
        if (entry.ut_type != USER_PROCESS || !field_equals(entry.ut_user, user)) return;
        if (skip_console && field_starts_with(entry.ut_line, "tty")) return;
        if (field_equals(entry.ut_line, tty)) return;
        ++count;
    });
    nSessionCount = count;
    return count;
}

int count_address_sessions(uint32_t low, uint32_t high, const char *tty) noexcept {
    int count = 0;
    HostCache cache;
    for_each_utmpx([&](const struct utmpx &entry) {
        if (entry.ut_type != USER_PROCESS || field_equals(entry.ut_line, tty)) return;
        in_addr_t addr = utmpx_host_address(entry, cache);
        if (addr == kNoAddr) return;
        uint32_t host = ntohl(addr);
        if (low <= host && host <= high) ++count;
    });
    nSessionCount = count;
    return count;
}

int check_user_session(PamRequest &request, SessionRule &rule) noexcept {
    rule = SessionRule{};
    rule.kind = 'u';
    int outcome = rule_lookup_outcome(read_session_info(request.account.name, request.rhost_addr, rule), rule);
    if (outcome != -2) return outcome;
    return apply_user_limit(request, rule, rule.limit_console == 0);
}

int check_group_session(PamRequest &request, SessionRule &rule) noexcept {
    rule = SessionRule{};
    rule.kind = 'g';
    char groups[1024];
    if (get_user_groups(request.account.gid, request.account.name, groups, sizeof groups) == 0) return 2;
    int slot = get_tokslot();
    if (slot < 0) {
        bformat(rule.name, sizeof rule.name, "%s", kInternalError);
        rule.current = -1;
        return 0;
    }
    int result = 2;
    for (char *group = xsplit_at(groups, ',', slot); group != nullptr; group = xsplit_at(nullptr, ',', slot)) {
        int outcome = rule_lookup_outcome(read_session_info(group, request.rhost_addr, rule), rule);
        if (outcome == 2) continue;
        result = outcome == -2 ? apply_user_limit(request, rule, rule.limit_console == 0) : outcome;
        break;
    }
    // The slot goes back: a long-running service opens any number of sessions.
    return_tokslot(slot);
    return result;
}

int check_default_session(PamRequest &request, SessionRule &rule) noexcept {
    rule = SessionRule{};
    rule.kind = '*';
    int outcome = rule_lookup_outcome(read_session_info(nullptr, request.rhost_addr, rule), rule);
    if (outcome != -2) return outcome;
    // The default rule exempts console logins when its flag is set: the
    // opposite sense of the user and group rules.
    return apply_user_limit(request, rule, rule.limit_console == 1);
}

int check_ip_session(PamRequest &request, SessionRule &rule) noexcept {
    rule = SessionRule{};
    rule.kind = 'i';
    if (starts_with(request.tty.get(), "tty")) return 1;
    int outcome = rule_lookup_outcome(read_session_info(nullptr, request.rhost_addr, rule), rule);
    if (outcome != -2) return outcome;
    if (rule.max == 0) return 0;
    if (rule.max == -1) return 1;
    if (rule.max == -2) return 2;
    rule.current = count_address_sessions(rule.low, rule.high, request.tty.get());
    trace_step("sessions from '%s' counted: %d, limit %d", rule.name, rule.current, rule.max);
    return rule.current < rule.max ? 1 : 0;
}

int session_match(PamRequest &request, SessionRule &rule) noexcept {
    int result = check_user_session(request, rule);
    if (result == 2) result = check_group_session(request, rule);
    if (result == 2) result = check_default_session(request, rule);
    if (result == 0) return PAM_SESSION_ERR;
    SessionRule address;
    if (check_ip_session(request, address) == 0) {
        rule = address;
        return PAM_SESSION_ERR;
    }
    return 0;
}

namespace {

int log_session_event(const PamRequest &request, const char *event) noexcept {
    if (nOptSessionLog == 0) return 1;
    char text[1024];
    bformat(text, sizeof text, "Session %s for user '%s' (from %s) on terminal '%s' with service '%s'", event,
            request.account.name, request.rhost.or_("(unknown)"), request.tty.or_("(unknown)"),
            request.service.or_("(unknown)"));
    return save_pam_log(kEventInfo, 1, text);
}

}  // namespace

int log_session_opened(const PamRequest &request) noexcept { return log_session_event(request, "opened"); }
int log_session_closed(const PamRequest &request) noexcept { return log_session_event(request, "closed"); }

}  // namespace mg::pam
