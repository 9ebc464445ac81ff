#include "harness.hpp"

#include "mgsim.h"
#include "testsupport.hpp"

#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <tuple>

#ifndef MG_PAM_MODULE_PATH
#error "the build must define MG_PAM_MODULE_PATH"
#endif

namespace mgsys {
namespace {

// Records every message; prompts (libpam may issue them) get an empty answer.
int record_conv(int n, const pam_message **msgs, pam_response **resp, void *data) {
    *resp = static_cast<pam_response *>(calloc(static_cast<size_t>(n), sizeof(pam_response)));
    for (int i = 0; *resp != nullptr && i < n; ++i) {
        static_cast<decltype(Outcome::conv) *>(data)->emplace_back(msgs[i]->msg_style, msgs[i]->msg ? msgs[i]->msg : "");
        if (msgs[i]->msg_style == PAM_PROMPT_ECHO_ON || msgs[i]->msg_style == PAM_PROMPT_ECHO_OFF)
            (*resp)[i].resp = strdup("");
    }
    return *resp != nullptr ? PAM_SUCCESS : PAM_BUF_ERR;
}

std::optional<AuditEntry> parse_audit(const std::string &line, char sep) {
    std::vector<std::string> f;
    size_t start = 0;
    for (size_t at; f.size() < 7 && (at = line.find(sep, start)) != std::string::npos; start = at + 1)
        f.push_back(line.substr(start, at - start));
    if (f.size() != 7) return std::nullopt;
    return AuditEntry{std::stoi(f[0]), std::stoi(f[1]), std::stoi(f[2]), std::stol(f[3]), std::stol(f[4]), f[5], f[6],
                      line.substr(start), line};
}

const char *pam_result_name(int rc) {
    for (auto [code, name] : {std::pair{PAM_SUCCESS, "PAM_SUCCESS"}, {PAM_PERM_DENIED, "PAM_PERM_DENIED"},
                              {PAM_USER_UNKNOWN, "PAM_USER_UNKNOWN"}, {PAM_SESSION_ERR, "PAM_SESSION_ERR"},
                              {PAM_ABORT, "PAM_ABORT"}})
        if (code == rc) return name;
    return "another PAM error";
}

void expect_dry_run_agrees(const char *phase, const char *user, const Items &items, const std::string &service,
                           int rc) {
    std::vector<std::string> args = {MG_MGCTL_PATH, "check", "--phase", phase, "--service", service, "--user", user};
    for (auto [flag, value] : {std::pair{"--rhost", &items.rhost}, {"--tty", &items.tty}, {"--ruser", &items.ruser}})
        if (*value) args.insert(args.end(), {flag, **value});
    std::string out = mgtest::capture_stdout([&] {
        std::vector<char *> argv;
        for (auto &a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        unsetenv("MGSIM_STATE");
        execv(argv[0], argv.data());
        _exit(127);
    });
    EXPECT_NE(out.find(std::string("result: ") + pam_result_name(rc)), std::string::npos)
        << "mgctl check disagrees with the module (" << pam_result_name(rc) << "):\n" << out;
}

}  // namespace

const char *module_path() { return MG_PAM_MODULE_PATH; }
World::World(mgtest::Sandbox &sandbox) : sb(sandbox) {
    root = sb.scratch() + "/mgroot";
    log_dir = root + "/log";
    confdir = sb.scratch() + "/pam.d";
    for (const std::string &d : {root + "/conf", root + "/data", log_dir, confdir, std::string(kAclDir) + "/user",
                                 std::string(kAclDir) + "/group"})
        std::filesystem::create_directories(d);
    sb.write_etc(".evmg", "MG_ROOT=" + root + "\n");
    std::ofstream(root + "/conf/mgopt.conf") << "SecureLogDir\t" << log_dir
                                             << "\nSecureLogBakDir\t\nSecureLogSize\t1\nSecureLogFileCount\t3\n";
    for (const char *service : {"sshd", "su", "login", "dtlogin", "ftp"})
        service_file(service, "account required %M allowlog\nsession required %M log\n");
    service_file("other", "# libpam reads this at every start\n");
}

void World::service_file(const std::string &service, const std::string &lines) {
    std::string text = lines;
    for (size_t at; (at = text.find("%M")) != std::string::npos;) text.replace(at, 2, MG_PAM_MODULE_PATH);
    std::ofstream(confdir + "/" + service, std::ios::trunc) << text;
}

void World::modes(const std::string &access, const std::string &session) {
    acl_file("pam_acl.conf", "ServiceAccessControl " + access + "\nLimitLoginSession " + session + "\n");
}

void World::acl_file(const std::string &relative, const std::string &content) {
    sb.write_etc(std::string(kAclDir).substr(5) + "/" + relative, content);
}

Outcome World::run(int (*op)(pam_handle_t *, int), const char *user, const Items &items, const std::string &service) {
    Outcome out;
    pam_conv conv{record_conv, &out.conv};
    pam_handle_t *pamh = nullptr;
    if (pam_start_confdir(service.c_str(), user, &conv, confdir.c_str(), &pamh) != PAM_SUCCESS) {
        ADD_FAILURE() << "pam_start_confdir failed";
        return out;
    }
    for (auto [item, value] : {std::pair{PAM_RHOST, &items.rhost}, {PAM_TTY, &items.tty}, {PAM_RUSER, &items.ruser}})
        if (*value && pam_set_item(pamh, item, (*value)->c_str()) != PAM_SUCCESS) ADD_FAILURE() << "pam_set_item";
    out.rc = op(pamh, 0);
    pam_end(pamh, out.rc);
    if (check_with_mgctl && op != pam_close_session && user != nullptr && *user != '\0')
        expect_dry_run_agrees(op == pam_acct_mgmt ? "account" : "session", user, items, service, out.rc);
    return out;
}

void World::split_syslog() {
    for (const auto &m : sb.take_syslog()) {
        if (m.ident == "mg_pam_acl") {
            EXPECT_EQ(m.pid, getpid()) << m.raw;
            module_lines_.push_back("<" + std::to_string(m.priority) + ">" + m.text);
        } else if (m.ident == "MGLog") {
            auto e = parse_audit(m.text, '|');
            EXPECT_TRUE(e.has_value()) << "not a secure-log display line: " << m.raw;
            if (e) audit_from_syslog_.push_back(*e);
        }
    }
}

Lines World::take_module_syslog() { return split_syslog(), std::exchange(module_lines_, {}); }

std::vector<AuditEntry> World::take_audit() {
    split_syslog();
    std::vector<AuditEntry> out = std::exchange(audit_from_syslog_, {});
    EXPECT_TRUE(audit_sink != AuditSink::file || out.empty()) << "entries went to syslog: " << out.front().raw;
    std::ifstream in(log_dir + "/mglog.01");
    EXPECT_FALSE(in && audit_sink == AuditSink::syslog) << "the secure log file exists";
    in.seekg(static_cast<std::streamoff>(log_file_offset_));
    for (std::string line; in && std::getline(in, line); log_file_offset_ += line.size() + 1) {
        auto e = parse_audit(line, '\t');
        EXPECT_TRUE(e.has_value()) << "not a secure-log file line: " << line;
        if (e) out.push_back(*e);
    }
    return out;
}

void World::clear_logs() { take_module_syslog(), take_audit(); }

void in_world(Kernel kernel, const std::function<void(World &)> &body) {
    if (!mgtest::sandbox_or_skip()) return;
    int status = mgtest::run_sandboxed([&](mgtest::Sandbox &sb) {
        sb.append_etc("group", "staff:x:5000:bob\ndev:x:5100:\nops:x:5200:alice\n");
        for (auto [name, uid, gid] : {std::tuple{"alice", 5001, 5000}, {"bob", 5002, 5100}, {"carol", 5003, 5000}})
            sb.add_user(name, uid, gid, std::string("/home/") + name);
        sb.append_etc("hosts", "10.1.2.3\tbuild-host\n192.168.1.1\tlab-host\n");
        World world(sb);
        const bool present = kernel == Kernel::present;
        ASSERT_TRUE(present ? mgsim_use_state((sb.scratch() + "/kernel.state").c_str()) == 0 && mgsim_reset() == 0 &&
                                  mgsim_set_status(1) == 0 && mgsim_set_log((sb.scratch() + "/kernel.calls").c_str()) == 0
                            : mgsim_use_state(nullptr) == 0);
        world.audit_sink = present ? World::AuditSink::file : World::AuditSink::syslog;
        body(world);
    });
    EXPECT_EQ(status, 0) << "the sandboxed test body failed (its output is above)";
}

std::string violation_text(Str message, Str user, Str role, int level, Str category, Str service, Str mode_word, Str detail) {
    return (message + "::LOGIN(0):" + std::to_string(getpid()) + ":" + std::to_string(getppid()) + ":" + user + ":" +
            user + ":" + role + ":" + std::to_string(level) + ":" + category + ":" + service + "::::::::" + mode_word +
            ":" + detail).substr(0, 1023);
}

std::string access_violation(Kernel kernel, Str service, Str user, Str rhost, Str rule_label, Str mode_word, Str ruser) {
    return violation_text("'" + service + "' access is denied by user '" + user + "' from '" + rhost + "' [by " +
                              rule_label + " rule].",
                          user, kernel == Kernel::absent ? "--" : "UX", 0, "", service, mode_word,
                          "RemoteHost=" + rhost + " ServiceName=" + service + " RemoteUser=" + ruser);
}

std::string session_violation(Kernel kernel, Str service, Str user, Str rhost, Str rule_label, int current, int max,
                              Str mode_word) {
    return violation_text("User '" + user + "' has exceed max session. '" + service + "' login is denied [by " +
                              rule_label + " rule].",
                          user, kernel == Kernel::absent ? "--" : "UX", 0, "", service, mode_word,
                          "RemoteHost=" + rhost + " ServiceName=" + service + " SessionCount(Current=" +
                              std::to_string(current) + " Max=" + std::to_string(max) + ") RuleName=" + rule_label);
}

std::string entry_text(const AuditEntry &entry, int flag, int level) {
    EXPECT_EQ(std::tuple(entry.source, entry.flag, entry.level, entry.program, entry.address),
              std::tuple(7, flag, level, std::string("PAM-ACL"), std::string(kLocalAddress))) << entry.raw;
    EXPECT_TRUE(entry.event != 0 && entry.event <= entry.logged) << entry.raw;
    return entry.message;
}

void expect_reported(World &w, const Outcome &out, const std::string &text) {
    EXPECT_EQ(w.take_module_syslog(), text.empty() ? Lines{} : Lines{"<35>" + text});
    using Shown = decltype(out.conv);
    EXPECT_EQ(out.conv, (text.empty() ? Shown{} : Shown{{PAM_TEXT_INFO, text}}));
}

}  // namespace mgsys
