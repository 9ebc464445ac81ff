// pam_mg_acl.so through the real libpam in a test sandbox. A World is a login
// host: rule files under kAclDir, "/etc/.evmg" naming a root with
// conf/mgopt.conf, test accounts, PAM service files; each call is one
// transaction (pam_start_confdir, items, the operation, pam_end).
#pragma once

#include "sandbox.hpp"

#include <gtest/gtest.h>
#include <security/pam_appl.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace mgsys {

using Lines = std::vector<std::string>;
const char *module_path();

struct Outcome {
    int rc = -1;
    std::vector<std::pair<int, std::string>> conv;  // style and text of every message shown
};

// Request items; an unset optional is not set on the handle at all.
struct Items {
    std::optional<std::string> rhost, tty, ruser;
};
inline Items from(const std::string &rhost, const std::string &tty = "pts/3") { return {rhost, tty, std::nullopt}; }

// One secure-log entry, from the log file (tab form) or syslog ('|' form).
struct AuditEntry {
    int source = 0, flag = 0, level = 0;
    long logged = 0, event = 0;
    std::string program, address, message, raw;
};

class World {
public:
    static constexpr const char *kAclDir = "/etc/security/pam_acl_conf";
    explicit World(mgtest::Sandbox &sb);

    mgtest::Sandbox &sb;
    std::string root, log_dir, confdir;  // MG_ROOT, SecureLogDir, PAM service files

    // A service file with full "type control module args" lines; "%M" is the module.
    void service_file(const std::string &service, const std::string &lines);
    void modes(const std::string &access, const std::string &session);  // pam_acl.conf
    void acl_file(const std::string &relative, const std::string &content);  // below kAclDir
    void user_rules(const std::string &user, const std::string &text) { acl_file("user/" + user, text); }
    void group_rules(const std::string &group, const std::string &text) { acl_file("group/" + group, text); }
    void default_rules(const std::string &text) { acl_file("default.conf", text); }

    Outcome account(const char *user, const Items &i, const std::string &s = "sshd") { return run(pam_acct_mgmt, user, i, s); }
    Outcome open_session(const char *user, const Items &i, const std::string &s = "sshd") { return run(pam_open_session, user, i, s); }
    Outcome close_session(const char *user, const Items &i, const std::string &s = "sshd") { return run(pam_close_session, user, i, s); }

    // Every account and session-opening transaction also runs through mgctl's
    // dry run (kernel module absent: the simulator is left alone), which must
    // reach the same PAM result. Off where the result depends on this process's past.
    bool check_with_mgctl = true;

    // The module's syslog lines (ident "mg_pam_acl") since the last take, as "<PRI>text".
    Lines take_module_syslog();
    // Where secure-log entries must go; take_audit() checks it.
    enum class AuditSink { file, syslog, any } audit_sink = AuditSink::any;
    // Secure-log entries since the last take, from the log file and syslog (ident "MGLog").
    std::vector<AuditEntry> take_audit();
    void clear_logs();

private:
    Outcome run(int (*op)(pam_handle_t *, int), const char *user, const Items &items, const std::string &service);
    void split_syslog();
    Lines module_lines_;
    std::vector<AuditEntry> audit_from_syslog_;
    size_t log_file_offset_ = 0;
};

// Accounts of every world: alice 5001 (primary staff 5000, also in ops 5200),
// bob 5002 (primary dev 5100, also in staff), carol 5003 (primary staff).
// Hosts: build-host 10.1.2.3, lab-host 192.168.1.1.
enum class Kernel { absent, present };
inline std::string kernel_name(const ::testing::TestParamInfo<Kernel> &info) {
    return info.param == Kernel::absent ? "KernelAbsent" : "KernelPresent";
}
// Runs `body` in a fresh sandbox with a World and the kernel module present
// (simulated, running, calls logged) or absent.
void in_world(Kernel kernel, const std::function<void(World &)> &body);

// A suite of world tests run once per kernel given; each MG_WORLD_TEST body runs
// in_world with `World &w` and `Kernel kernel`.
#define MG_WORLD_SUITE(suite, ...)                                    \
    class suite : public ::testing::TestWithParam<Kernel> {};         \
    INSTANTIATE_TEST_SUITE_P(System, suite, ::testing::Values(__VA_ARGS__), kernel_name)
#define MG_WORLD_TEST(suite, name)                                                        \
    static void suite##_##name##_body(World &w, Kernel kernel);                           \
    TEST_P(suite, name) {                                                                 \
        in_world(GetParam(), [&](World &w) { suite##_##name##_body(w, GetParam()); });   \
    }                                                                                     \
    static void suite##_##name##_body([[maybe_unused]] World &w, [[maybe_unused]] Kernel kernel)

inline constexpr const char *kLocalAddress = mgtest::Sandbox::kHostAddress;
inline constexpr int kEventAccess = 0x2020001;
inline constexpr int kEventSession = 0x2020002;

using Str = const std::string &;
// The text of a violation entry as the module composes it in this process.
std::string violation_text(Str message, Str user, Str role, int level, Str category, Str service, Str mode_word, Str detail);
// For a user without an MLS record: role "--" without the module, "UX" with it.
std::string access_violation(Kernel kernel, Str service, Str user, Str rhost, Str rule_label, Str mode_word,
                             Str ruser = "(unknown)");
std::string session_violation(Kernel kernel, Str service, Str user, Str rhost, Str rule_label, int current, int max,
                              Str mode_word);
// Checks the fixed fields of one of the module's entries and returns its text.
std::string entry_text(const AuditEntry &entry, int flag, int level);
// Checks that `text` went to syslog (LOG_ERR) and to the user; empty: nothing reported.
void expect_reported(World &w, const Outcome &out, const std::string &text);

}  // namespace mgsys
