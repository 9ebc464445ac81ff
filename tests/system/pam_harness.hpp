// Driving pam_mg_acl.so through the real libpam inside a test sandbox.
//
// A World sets up, inside a Sandbox, what a login host has: the mode file
// and rule files under /etc/security/pam_acl_conf, "/etc/.evmg" naming an
// installation root with conf/mgopt.conf, test accounts and groups, and a
// directory of PAM service files (used with pam_start_confdir). Each PAM call
// is one transaction as a login service makes it: pam_start_confdir, items,
// the operation, pam_end.
#pragma once

#include "sandbox.hpp"

#include <security/pam_appl.h>

#include <optional>
#include <string>
#include <vector>

namespace mgsys {

// Path of the module under test (set by the build).
const char *module_path();

// One message the module showed the user through the conversation.
struct ConvMessage {
    int style = 0;
    std::string text;
    bool operator==(const ConvMessage &) const = default;
};

// What one transaction gave back.
struct Outcome {
    int rc = -1;
    std::vector<ConvMessage> conv;
};

// Request items; an unset optional is not set on the handle at all.
struct Items {
    std::optional<std::string> rhost;
    std::optional<std::string> tty;
    std::optional<std::string> ruser;
};

enum class Phase { account, open_session, close_session };

// One parsed secure-log entry, from the log file (tab form) or from syslog
// (the "|" display form the writer falls back to).
struct AuditEntry {
    int source = 0, flag = 0, level = 0;
    long logged = 0, event = 0;
    std::string program, address, message;
    std::string raw;
};
std::optional<AuditEntry> parse_audit(const std::string &line, char separator);

// The text of a violation entry as the module composes it, for the calling
// process (its pid and parent pid are part of the text).
std::string violation_text(const std::string &message, const std::string &user, const std::string &role,
                           int level, const std::string &category, const std::string &service,
                           const std::string &mode_word, const std::string &detail);

struct WorldOptions {
    // Module arguments of the account and session lines of the service file.
    std::string account_args = "allowlog";
    std::string session_args = "log";
};

class World {
public:
    static constexpr const char *kAclDir = "/etc/security/pam_acl_conf";

    explicit World(mgtest::Sandbox &sb, const WorldOptions &opts = {});

    mgtest::Sandbox &sb;
    std::string root;     // installation root (MG_ROOT)
    std::string log_dir;  // SecureLogDir of mgopt.conf
    std::string confdir;  // PAM service files

    // Writes one PAM service file `service` with the given lines (each a full
    // "type control module args" line); "%M" stands for the module path.
    void service_file(const std::string &service, const std::string &lines);

    // pam_acl.conf: "ServiceAccessControl <access>" and "LimitLoginSession <session>".
    void modes(const std::string &access, const std::string &session);
    void acl_file(const std::string &relative, const std::string &content);  // below kAclDir
    void user_rules(const std::string &user, const std::string &content) { acl_file("user/" + user, content); }
    void group_rules(const std::string &group, const std::string &content) { acl_file("group/" + group, content); }
    void default_rules(const std::string &content) { acl_file("default.conf", content); }

    // One transaction on `service` (default "sshd") as a login service makes it.
    Outcome run(Phase phase, const char *user, const Items &items, const std::string &service = "sshd");
    Outcome account(const char *user, const Items &items, const std::string &service = "sshd") {
        return run(Phase::account, user, items, service);
    }
    Outcome open_session(const char *user, const Items &items, const std::string &service = "sshd") {
        return run(Phase::open_session, user, items, service);
    }
    Outcome close_session(const char *user, const Items &items, const std::string &service = "sshd") {
        return run(Phase::close_session, user, items, service);
    }

    // Syslog lines of the module (ident "mg_pam_acl") received since the last
    // take, as "<PRI>text" (the pid is checked to be ours and left out).
    std::vector<std::string> take_module_syslog();
    // Where the secure-log entries are expected to go; take_audit() checks it.
    enum class AuditSink { file, syslog, any };
    AuditSink audit_sink = AuditSink::any;

    // Secure-log entries since the last take: from the log file when it
    // exists, plus those that went to syslog (ident "MGLog").
    std::vector<AuditEntry> take_audit();
    // Syslog lines of every other sender, as SyslogMessage::line() gives them.
    std::vector<std::string> take_other_syslog();
    // Forgets everything logged so far.
    void clear_logs();

private:
    void split_syslog();
    std::vector<std::string> module_lines_;
    std::vector<std::string> other_lines_;
    std::vector<AuditEntry> audit_from_syslog_;
    size_t log_file_offset_ = 0;
};

}  // namespace mgsys
