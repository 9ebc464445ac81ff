// mgctl lint: checks the installation's configuration and rule files and
// prints compiler-style lines "FILE:LINE: error|warning: message". Lines are
// read with the PAM module's own reader, so line numbers and skipped lines
// are those of the module's own messages.
#include "mgctl/mgctl.hpp"
#include "mgctl/lint.hpp"

#include <mossgrove/common.h>
#include <mossgrove/config.h>
#include <mossgrove/labels.h>
#include <mossgrove/rules.h>
#include <mossgrove/sopass.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "common/paths.hpp"
#include "common/text.hpp"
#include "pam/pam_acl.hpp"

namespace mgctl {
namespace {

// The module's messages about the line being read, kept while a file is checked.
std::string g_module_message;

// Calls fn(lineno, text) for every line the module would examine; reports the
// lines it skips. False when the file is absent.
template <class Fn>
bool each_rule_line(Report &report, const std::string &path, Fn fn) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno != ENOENT) report.error(path, 0, std::string("cannot be read (") + strerror(errno) + "): denies");
        return false;
    }
    mg::pam::LineReader reader(fd);
    char line[mg::pam::kLineBuffer];
    for (int lineno = 1; reader.next(line); ++lineno) {
        g_module_message.clear();
        char *text = mg::pam::significant_line(line, path.c_str(), lineno);
        if (!g_module_message.empty())
            report.error(path, lineno, "skipped by the module: no newline, or longer than 510 characters");
        if (text != nullptr) fn(lineno, text);
    }
    return true;
}

int count(const char *text, char c) {
    int n = 0;
    for (; *text != '\0'; ++text) n += *text == c;
    return n;
}

void check_hosts(Report &report, const std::string &path, int lineno, const std::string &field) {
    if (field.empty() || field[0] == '*' || field[0] == '!') return;
    size_t start = 0;
    while (start <= field.size()) {
        size_t comma = field.find(',', start);
        std::string entry = field.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        std::vector<char> copy(entry.begin(), entry.end());
        copy.push_back('\0');
        uint32_t range[2];
        bool address = mg::pam::dot_quad_addr(copy.data()) != mg::pam::kNoAddr ||
                       (entry.find('/') != std::string::npos && mg::pam::split_ip_subnet(range, copy.data()) != 0);
        if (!address) {
            report.warning(path, lineno,
                           "host list entry '" + entry + "' is no address or range: the list ends there" +
                               (comma != std::string::npos ? " (the entries after it are never reached)" : ""));
            return;
        }
        if (comma == std::string::npos) return;
        start = comma + 1;
    }
}

void check_time(Report &report, const std::string &path, int lineno, const char *field) {
    if (field[0] == '\0') return;
    if (count(field, ' ') <= 2) {
        report.warning(path, lineno, "time field needs hours, days, months and weekdays: the line never applies");
        return;
    }
    const std::string hours(field, std::strcspn(field, " "));
    if (hours != "*" && hours.find('-') == std::string::npos)
        report.warning(path, lineno, "a single hour never matches (the end hour of a range is excluded)");
}

void lint_access_file(Report &report, const std::string &path) {
    each_rule_line(report, path, [&](int lineno, char *text) {
        char empty[6][1] = {};
        char *field[6];
        for (int i = 0; i < 6; ++i) field[i] = empty[i];
        int n = mg::pam::split_fields(text, ':', field, 6);
        if (field[1][0] == '\0')
            report.error(path, lineno, "empty permission field: the module denies here");
        else if (field[1][0] != '+' && field[1][0] != '-')
            report.error(path, lineno, std::string("bad permission field '") + field[1] + "': the module denies here");
        if (n < 6) report.warning(path, lineno, "fewer than six fields: the missing ones match anything");
        check_hosts(report, path, lineno, field[3]);
        check_time(report, path, lineno, field[5]);
    });
}

void lint_session_file(Report &report, const std::string &path) {
    each_rule_line(report, path, [&](int lineno, char *text) {
        mg::pam::SessionRule rule;
        if (mg::pam::parse_session_info(rule, text, lineno, path.c_str()) < 0)
            report.error(path, lineno,
                         "empty name or a non-numeric field: the module refuses every session that reads this line");
    });
}

void lint_modes(Report &report, const std::string &path) {
    each_rule_line(report, path, [&](int lineno, char *text) {
        // Split as the configuration reader splits: "key value" or "key=value".
        char *next = nullptr;
        const char *key = mg::text::scan_token(text, &next);
        if (key == nullptr) return;
        const char *value = next != nullptr ? mg::text::scan_token(next, &next) : nullptr;
        if (value == nullptr) value = "";
        if (strcasecmp(key, "ServiceAccessControl") != 0 && strcasecmp(key, "LimitLoginSession") != 0)
            report.warning(path, lineno, std::string("unknown key '") + key + "'");
        else if (mg::pam::lookup_mode(value) < 0)
            report.error(path, lineno, std::string("unknown mode '") + value +
                                           "': the mode stays as it was (warn, in a fresh login process)");
    });
}

std::vector<std::string> files_in(const std::string &dir) {
    std::vector<std::string> out;
    if (DIR *d = opendir(dir.c_str())) {
        while (const dirent *e = readdir(d))
            if (e->d_name[0] != '.') out.push_back(dir + "/" + e->d_name);
        closedir(d);
    }
    return out;
}

void lint_options(Report &report, const char *root) {
    const std::string path = std::string(root) + "/conf/mgopt.conf";
    MGOptionBuf opt;
    if (ReadMGOptionConfig(path.c_str(), &opt) != 0) {
        report.error(path, 0, "cannot be read as an option file: the secure log goes to syslog");
        return;
    }
    if (CheckMGOptionConfig(&opt) != 0) report.error(path, 0, "a value is out of range");
}

// ips.conf, read as module start reads it (from an all-unset block, without
// the kernel module): a bad keyword or value fails the whole file, and a mode
// left unset is not sent at start.
void lint_policy_modes(Report &report, const std::string &root) {
    const std::string path = root + "/data/ips.conf";
    if (access(path.c_str(), F_OK) != 0) return;
    unsigned char block[MG_RGCONF_SIZE] = {};
    std::fflush(stdout);
    if (make_rgconf_from_file(MG_RGCONF_REQ_UNSET, block, path.c_str()) < 0) {
        report.error(path, 0, "cannot be read as a policy mode file (the library's line above names the setting)");
        return;
    }
    uint32_t w[5];
    std::memcpy(w, block, sizeof w);
    if (verify_config(w[0], w[1], w[2], w[3], w[4]) != 1)
        report.warning(path, 0, "not every mode is set: module start keeps the kernel's modes");
}

// The fixed-record stores: a store that is not a whole number of records
// does not load, and a record with a value out of range is refused.
void lint_binary_stores(Report &report, const std::string &root) {
    struct Store {
        const char *name;
        size_t record;
    } stores[] = {{"data/mls_user", sizeof(MGMlsUser)}, {"data/mls_cat", sizeof(MGCategory)},
                  {"data/su_file", sizeof(MGSuEntry)},  {"data/cmd_file", sizeof(cmdent)},
                  {"etc/mgpasswd", sizeof(MGSecPasswd)}};
    for (const Store &st : stores) {
        const std::string path = root + "/" + st.name;
        FILE *f = std::fopen(path.c_str(), "rb");
        if (f == nullptr) continue;
        std::vector<unsigned char> rec(st.record);
        size_t n = 0, got;
        while ((got = std::fread(rec.data(), 1, st.record, f)) == st.record) {
            ++n;
            if (st.record == sizeof(MGMlsUser)) {
                MGMlsUser u;
                std::memcpy(&u, rec.data(), sizeof u);
                if (isvalid_role(u.role) != 1 || isvalid_level(u.level) != 1 || isvalid_cid(u.cid) != 1)
                    report.error(path, static_cast<int>(n),
                                 "record " + std::to_string(n) + " (uid " + std::to_string(u.uid) +
                                     "): role, level or category out of range");
            } else if (st.record == sizeof(MGCategory)) {
                MGCategory c;
                std::memcpy(&c, rec.data(), sizeof c);
                if (isvalid_cid(c.id) != 1 || c.depth > 15 || isvalid_role(c.role) != 1)
                    report.error(path, static_cast<int>(n),
                                 "record " + std::to_string(n) + ": id, depth or role out of range");
            }
        }
        std::fclose(f);
        if (got != 0)
            report.error(path, 0, "not a whole number of " + std::to_string(st.record) +
                                      "-byte records: the store does not load");
    }
}

}  // namespace

int cmd_lint(const Args &args) {
    if (!args.ok()) return usage_error(args.error());
    if (!args.positional().empty()) return usage_error("lint takes no arguments");
    mg::pam::set_log_sink([](int, const char *text) { g_module_message = text; });
    Report report;
    const std::string dir = mg::paths::pam_acl_dir();
    lint_modes(report, dir + "/" + mg::pam::kConfFile);
    for (const char *kind : {"user", "group"})
        for (const auto &file : files_in(dir + "/" + kind)) lint_access_file(report, file);
    lint_access_file(report, dir + "/default.conf");
    for (const char *f : {"user_session.conf", "group_session.conf", "ip_session.conf", "default_session.conf"})
        lint_session_file(report, dir + "/" + f);
    char root[1024];
    if (get_mgroot(root, sizeof root) != 0) {
        report.warning(mg::paths::evmg(), 0, "no installation root: mgopt.conf, ips.conf and the stores not checked");
    } else {
        lint_options(report, root);
        lint_policy_modes(report, root);
        lint_binary_stores(report, root);
        lint_text_stores(report, root);
    }
    mg::pam::set_log_sink(nullptr);
    std::printf("%d error(s), %d warning(s)\n", report.errors, report.warnings);
    return report.errors > 0 ? kFailed : kOk;
}

}  // namespace mgctl
