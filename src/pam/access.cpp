// Service access control: the mode file, the user, group and default rule
// files, and the violation entries of the secure log.
#include "pam/pam_acl.hpp"

#include <mossgrove/common.h>
#include <mossgrove/kernel.h>

#include "common/paths.hpp"
#include "kernel/gateway.hpp"

#include <fcntl.h>
#include <grp.h>
#include <syslog.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace mg::pam {
namespace {

struct ModeWord {
    const char *word;
    int mode;
};
constexpr ModeWord st_key_ent[] = {
    {"off", kModeOff}, {"warn", kModeWarn}, {"nolog", kModeNolog}, {"on", kModeOn}};

// MLS user record (sub-command 15) and category record (sub-command 19): only
// these offsets are read here.
constexpr size_t kMuRecordSize = 1324;
constexpr size_t kMuLevelOffset = 8;
constexpr size_t kMuCategoryOffset = 12;
constexpr size_t kMuRoleOffset = 18;
constexpr size_t kCatRecordSize = 56;
constexpr size_t kCatNameOffset = 7;

void set_mode_from(const char *key, int &mode) noexcept {
    char value[1024];
    if (get_conf(key, value) == 0) {
        mode = kModeOn;
        return;
    }
    int found = lookup_mode(value);
    if (found >= 0) mode = found;  // an unknown word leaves the mode as it was
}

// True when `value` equals one entry of the ','-separated list.
bool list_contains(const char *list, const char *value) noexcept {
    if (value == nullptr) return false;
    size_t vlen = strlen(value);
    for (const char *p = list;;) {
        const char *comma = strchr(p, ',');
        size_t len = comma != nullptr ? static_cast<size_t>(comma - p) : strlen(p);
        if (len == vlen && memcmp(p, value, len) == 0) return true;
        if (comma == nullptr) return false;
        p = comma + 1;
    }
}

bool match_any_or_list(const char *field, const char *value) noexcept {
    if (field[0] == '\0' || field[0] == '*') return true;
    return list_contains(field, value);
}

// The remote host's address as the hosts field compares it, looked up once
// per request (a name is resolved, and reported when it does not resolve,
// only the first time a hosts field needs it).
in_addr_t request_host_address(PamRequest &request) noexcept {
    if (request.host_lookup == 0) {
        const char *host = request.rhost.get();
        in_addr_t addr = dot_quad_addr(host);
        if (addr == kNoAddr) addr = convert_hostname(host);
        if (addr == kNoAddr)
            _log_err(LOG_ERR, "cannot get IP address or unsupported address format (host=%s).",
                     request.rhost.or_("(null)"));
        request.host_addr = addr;
        request.host_lookup = addr == kNoAddr ? -1 : 1;
    }
    return request.host_addr;
}

// One time subfield against a value: "*", "a-b" or "n". Hours exclude the
// end of a range, so "n" alone never matches an hour.
bool match_time_part(const char *part, int value, bool hours) noexcept {
    if (part[0] == '*') return true;
    int low, high;
    const char *dash = strchr(part, '-');
    if (dash != nullptr) {
        low = atoi(part);
        high = atoi(dash + 1);
    } else {
        low = high = atoi(part);
    }
    if (hours) return low <= value && value <= high - 1;
    return low <= value && value <= high;
}

// Builds "<dir>/<a>" or "<dir>/<a>/<b>" into the request's path field.
void set_rule_path(PamRequest &request, const char *a, const char *b) noexcept {
    if (b == nullptr)
        bformat(request.rule_path, sizeof request.rule_path, "%s/%s", paths::pam_acl_dir(), a);
    else
        bformat(request.rule_path, sizeof request.rule_path, "%s/%s/%s", paths::pam_acl_dir(), a, b);
}

// Opens the rule file named in the request: descriptor, or -1 with errno.
int open_rule_file(const PamRequest &request) noexcept {
    int fd = open(request.rule_path, O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (g_decision_trace != nullptr && fd < 0) {
        int cause = errno;
        if (cause == ENOENT)
            trace_step("%s: not present", request.rule_path);
        else
            trace_step("%s: cannot be opened (%s): denies", request.rule_path, strerror(cause));
        errno = cause;
    }
    return fd;
}

void decided_by(PamRequest &request, int kind, const char *name) noexcept {
    request.rule_kind = kind;
    bformat(request.rule_name, sizeof request.rule_name, "%s", name);
}

bool has_member(const struct group &g, const char *user) noexcept {
    for (char **member = g.gr_mem; member != nullptr && *member != nullptr; ++member)
        if (strcmp(*member, user) == 0) return true;
    return false;
}

// Appends ",name" when the text stays within size - 1 characters.
bool append_group(char *buffer, size_t size, size_t &len, const char *name) noexcept {
    size_t name_len = strlen(name);
    if (len + 1 + name_len > size - 1) return false;
    buffer[len] = ',';
    memcpy(buffer + len + 1, name, name_len + 1);
    len += 1 + name_len;
    return true;
}

// The group list as getgrgid and a scan of every group build it: the primary
// group's name, then every other group that lists the user, up to the first
// name that does not fit.
int user_groups_two_scans(gid_t gid, const char *user, char *buffer, size_t size) noexcept {
    const struct group *primary = getgrgid(gid);
    if (primary == nullptr) return 0;
    bformat(buffer, size, "%s", primary->gr_name);
    size_t primary_len = strlen(buffer);
    size_t len = primary_len;
    int count = 1;
    setgrent();
    for (const struct group *g = getgrent(); g != nullptr; g = getgrent()) {
        if (strncmp(g->gr_name, buffer, primary_len) == 0 && g->gr_name[primary_len] == '\0') continue;
        if (!has_member(*g, user)) continue;
        if (!append_group(buffer, size, len, g->gr_name)) break;
        ++count;
    }
    endgrent();
    return count;
}

// Groups: 1 or 0 when a group file decided or on error, 2 when none applied.
int check_group_rules(PamRequest &request) noexcept {
    char groups[1024];
    if (get_user_groups(request.account.gid, request.account.name, groups, sizeof groups) == 0)
        return 2;
    trace_step("groups of '%s', primary first: %s", request.account.name, groups);
    int slot = get_tokslot();
    if (slot < 0) {
        decided_by(request, 'g', kInternalError);
        return 0;
    }
    int result = 2;
    for (char *group = xsplit_at(groups, ',', slot); group != nullptr;
         group = xsplit_at(nullptr, ',', slot)) {
        set_rule_path(request, "group", group);
        int fd = open_rule_file(request);
        if (fd < 0) {
            if (errno == ENOENT) continue;
            _log_err(LOG_ERR, "couldn't open access rule file for group '%s' (user=%s)", group,
                     request.account.name);
            decided_by(request, 'g', kInternalError);
            result = 0;
            break;
        }
        result = scan_rule_file(request, fd);
        if (result != 2) {
            decided_by(request, 'g', group);
            break;
        }
    }
    return_tokslot(slot);
    return result;
}

}  // namespace

int lookup_mode(const char *word) noexcept {
    if (word == nullptr) return -1;
    for (const auto &entry : st_key_ent)
        if (strcasecmp(word, entry.word) == 0) return entry.mode;
    return -1;
}

const char *mode_display_word(int mode) noexcept { return mode == kModeWarn ? "Warning" : "Deny"; }

void read_operation_modes() noexcept {
    char path[1024];
    bformat(path, sizeof path, "%s/%s", paths::pam_acl_dir(), kConfFile);
    if (read_conf(path) == 0) {
        nPamacOpMode = kModeOn;
        nPamsmOpMode = kModeOn;
    } else {
        set_mode_from("ServiceAccessControl", nPamacOpMode);
        set_mode_from("LimitLoginSession", nPamsmOpMode);
        close_conf();
    }
    pPamacOpMode = mode_display_word(nPamacOpMode);
    pPamsmOpMode = mode_display_word(nPamsmOpMode);
}

bool match_hosts(PamRequest &request, char *field) noexcept {
    if (field[0] == '\0' || field[0] == '*' || starts_with(field, "0.0.0.0/")) return true;
    const char *host = request.rhost.get();
    if (field[0] == '!') return host == nullptr || isblank(static_cast<unsigned char>(host[0]));
    if (host == nullptr || starts_with(host, "pts/")) return false;
    in_addr_t addr = request_host_address(request);
    if (addr == kNoAddr) return false;
    uint32_t host_order = ntohl(addr);
    for (char *entry = field; entry != nullptr;) {
        char *next = split_at(entry, ',');
        in_addr_t quad = dot_quad_addr(entry);
        if (quad != kNoAddr) {
            if (quad == addr) return true;
        } else if (strchr(entry, '/') != nullptr) {
            uint32_t range[2];
            if (split_ip_subnet(range, entry) == 0) return false;
            if (range[0] <= host_order && host_order <= range[1]) return true;
        } else {
            return false;  // the scan ends at the first entry that is no address
        }
        entry = next;
    }
    return false;
}

bool match_time(const struct tm &now, char *field) noexcept {
    if (count_char(field, ' ') <= 2) return false;
    char *part[4];
    char *p = field;
    for (char *&slot : part) {
        slot = p;
        char *blank = p != nullptr ? strchr(p, ' ') : nullptr;
        if (blank != nullptr) *blank = '\0';
        p = blank != nullptr ? blank + 1 : nullptr;
    }
    return match_time_part(part[0], now.tm_hour, true) && match_time_part(part[1], now.tm_mday, false) &&
           match_time_part(part[2], now.tm_mon + 1, false) && match_time_part(part[3], now.tm_wday, false);
}

int check_rule_line(PamRequest &request, char *line, int lineno) noexcept {
    // Missing fields of a short line are empty.
    char empty[6][1] = {};
    char *field[6];
    for (int i = 0; i < 6; ++i) field[i] = empty[i];
    split_fields(line, ':', field, 6);

    const char *permission = field[1];
    if (permission[0] == '\0') {
        _log_err(LOG_ERR, "%s: line %d: empty permission field", request.rule_path, lineno);
        return 0;
    }
    if (permission[0] != '+' && permission[0] != '-') {
        _log_err(LOG_ERR, "%s: line %d: bad permission field", request.rule_path, lineno);
        return 0;
    }
    if (!match_any_or_list(field[2], request.service.get())) return 2;
    if (!match_hosts(request, field[3])) return 2;
    if (field[4][0] != '\0' && field[4][0] != '*' &&
        (!request.tty.set() || !list_contains(field[4], request.tty.get())))
        return 2;
    if (field[5][0] != '\0') {
        if (!request.have_now) {
            time_t t = g_dry_run_now != 0 ? g_dry_run_now : time(nullptr);
            if (localtime_r(&t, &request.now) == nullptr) return 2;
            request.have_now = true;
        }
        if (!match_time(request.now, field[5])) return 2;
    }
    return permission[0] == '+' ? 1 : 0;
}

int scan_rule_file(PamRequest &request, int fd) noexcept {
    LineReader reader(fd);
    if (!reader.ok()) return 0;
    char line[kLineBuffer];
    for (int lineno = 1; reader.next(line); ++lineno) {
        char *text = significant_line(line, request.rule_path, lineno);
        if (text == nullptr) continue;
        char shown[kLineBuffer];
        if (g_decision_trace != nullptr) bformat(shown, sizeof shown, "%s", text);
        int result = check_rule_line(request, text, lineno);
        if (result != 2) {
            trace_step("%s:%d: decides: %s  [%s]", request.rule_path, lineno, result == 1 ? "allow" : "deny",
                       shown);
            return result;
        }
    }
    trace_step("%s: no line applies", request.rule_path);
    return 2;
}

int get_user_groups(gid_t gid, const char *user, char *buffer, size_t size) noexcept {
    if (buffer == nullptr || size == 0) return 0;
    buffer[0] = '\0';
    if (user == nullptr) return 0;
    // One scan finds the primary group (the first entry with the gid, which is
    // what getgrgid gives) and the groups that list the user. Whatever that
    // scan cannot settle goes the long way: getgrgid, then a second scan.
    char primary[256];
    bool found = false, overflow = false;
    char names[2048];  // member groups, each NUL terminated, in scan order
    size_t used = 0;
    setgrent();
    for (const struct group *g = getgrent(); g != nullptr && !overflow; g = getgrent()) {
        if (!found && g->gr_gid == gid) {
            found = true;
            overflow = strlen(g->gr_name) >= sizeof primary;
            if (!overflow) memcpy(primary, g->gr_name, strlen(g->gr_name) + 1);
            continue;
        }
        if (!has_member(*g, user)) continue;
        size_t n = strlen(g->gr_name) + 1;
        if (used + n > sizeof names) {
            overflow = true;
            break;
        }
        memcpy(names + used, g->gr_name, n);
        used += n;
    }
    endgrent();
    if (!found || overflow) return user_groups_two_scans(gid, user, buffer, size);

    bformat(buffer, size, "%s", primary);
    size_t len = strlen(buffer);
    int count = 1;
    for (const char *name = names; name < names + used; name += strlen(name) + 1) {
        if (strcmp(name, primary) == 0) continue;
        if (!append_group(buffer, size, len, name)) break;
        ++count;
    }
    return count;
}

int check_access_rules(PamRequest &request) noexcept {
    init_tokslot();

    set_rule_path(request, "user", request.account.name);
    int fd = open_rule_file(request);
    if (fd >= 0) {
        int result = scan_rule_file(request, fd);
        if (result != 2) return result;
    } else if (errno != ENOENT) {
        _log_err(LOG_ERR, "couldn't open access rule file for user '%s'", request.account.name);
        return 0;
    }

    int result = check_group_rules(request);
    if (result != 2) return result;

    set_rule_path(request, "default.conf", nullptr);
    fd = open_rule_file(request);
    if (fd < 0) {
        if (errno == ENOENT) return 1;
        _log_err(LOG_ERR, "couldn't open default access rule file for user '%s'", request.account.name);
        decided_by(request, '*', kInternalError);
        return 0;
    }
    result = scan_rule_file(request, fd);
    if (result == 2) return 1;  // nothing applied: allowed
    decided_by(request, '*', "[default]");
    return result;
}

int log_acl_violation(int event, int result, const char *mode_word, const PamRequest &request,
                      const SessionRule *rule) noexcept {
    bool access = event == kEventAccess;
    int mode = access ? nPamacOpMode : nPamsmOpMode;
    if (mode == kModeOff || mode == kModeNolog) return 0;

    const char *user = request.account.name;
    char label[64];
    int kind = access ? request.rule_kind : (rule != nullptr ? rule->kind : '*');
    const char *name = access ? (kind == 'u' ? user : request.rule_name) : (rule != nullptr ? rule->name : "");
    switch (kind) {
        case 'u': bformat(label, sizeof label, "user %s", name); break;
        case 'g': bformat(label, sizeof label, "group %s", name); break;
        case 'i':
            if (!access) {
                bformat(label, sizeof label, "IP %s", name);
                break;
            }
            [[fallthrough]];
        default: bformat(label, sizeof label, "default"); break;
    }

    // The user's kernel label: security level, category name and role.
    const char *role = "--";
    int level = 0;
    char category[40] = "";
    if (kernel::module_present()) {
        unsigned char mu[kMuRecordSize] = {};
        if (_sys_getmu(mu, static_cast<int>(request.account.uid)) >= 0) {
            int32_t cat_id;
            memcpy(&level, mu + kMuLevelOffset, sizeof level);
            memcpy(&cat_id, mu + kMuCategoryOffset, sizeof cat_id);
            unsigned char cat[kCatRecordSize] = {};
            // A label is reported whole or not at all.
            if (_sys_getcat(cat, cat_id) >= 0)
                bformat(category, sizeof category, "%.*s", static_cast<int>(kCatRecordSize - kCatNameOffset),
                         reinterpret_cast<const char *>(cat + kCatNameOffset));
            else
                level = 0;
        }
        switch (mu[kMuRoleOffset]) {
            case 1: role = "MU"; break;
            case 2: role = "SA"; break;
            case 3: role = "SO"; break;
            default: role = "UX"; break;
        }
    }

    const char *rhost = request.rhost.or_("(unknown)");
    const char *service = request.service.or_("(unknown)");
    char message[512];
    char detail[512];
    if (access) {
        bformat(message, sizeof message, "'%s' access is denied by user '%s' from '%s' [by %s rule].",
                 service, user, rhost, label);
        bformat(detail, sizeof detail, "RemoteHost=%s ServiceName=%s RemoteUser=%s", rhost,
                 request.service.or_(""), request.ruser.or_("(unknown)"));
    } else {
        int max = rule != nullptr ? rule->max : 0;
        int current = rule != nullptr ? rule->current : -1;
        if (max == 0)
            bformat(message, sizeof message,
                     "User '%s' has no available session. '%s' login is allways denied.", user, service);
        else if (current < 0)
            bformat(message, sizeof message,
                     "Error is occurred while reading session information of '%s'. '%s' login is not permitted.",
                     user, service);
        else
            bformat(message, sizeof message, "User '%s' has exceed max session. '%s' login is denied [by %s rule].",
                     user, service, label);
        bformat(detail, sizeof detail, "RemoteHost=%s ServiceName=%s SessionCount(Current=%d Max=%d) RuleName=%s",
                 rhost, request.service.or_(""), current, max, label);
    }

    char text[1024];
    bformat(text, sizeof text, "%s::%s:%ld:%ld:%s:%s:%s:%d:%s:%s::::::::%s:%s", message, "LOGIN(0)",
             static_cast<long>(getpid()), static_cast<long>(getppid()), user, user, role, level, category,
             request.service.or_("(null)"), mode_word != nullptr ? mode_word : "", detail);
    return save_pam_log(event, result, text);
}

int log_access_allowed(const PamRequest &request) noexcept {
    char text[1024];
    bformat(text, sizeof text, "User '%s (from %s)' has allowed to connect to '%s' service.",
             request.account.name, request.rhost.or_("(unknown)"), request.service.or_("(unknown)"));
    return save_pam_log(kEventInfo, 1, text);
}

}  // namespace mg::pam
