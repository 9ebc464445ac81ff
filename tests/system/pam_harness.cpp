#include "pam_harness.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#ifndef MG_PAM_MODULE_PATH
#error "the build must define MG_PAM_MODULE_PATH"
#endif

namespace mgsys {
namespace {

// Conversation: records every message; prompts (which the module never
// issues, libpam may) are answered with an empty text.
int record_conv(int n, const pam_message **msgs, pam_response **resp, void *data) {
    auto *out = static_cast<std::vector<ConvMessage> *>(data);
    auto *answers = static_cast<pam_response *>(calloc(static_cast<size_t>(n), sizeof(pam_response)));
    if (answers == nullptr) return PAM_BUF_ERR;
    for (int i = 0; i < n; ++i) {
        out->push_back({msgs[i]->msg_style, msgs[i]->msg ? msgs[i]->msg : ""});
        if (msgs[i]->msg_style == PAM_PROMPT_ECHO_ON || msgs[i]->msg_style == PAM_PROMPT_ECHO_OFF)
            answers[i].resp = strdup("");
    }
    *resp = answers;
    return PAM_SUCCESS;
}

std::string replace_all(std::string text, const std::string &from, const std::string &to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

void make_dirs(const std::string &path) {
    std::string cur;
    std::stringstream ss(path);
    std::string part;
    while (std::getline(ss, part, '/')) {
        if (part.empty()) continue;
        cur += "/" + part;
        if (mkdir(cur.c_str(), 0755) != 0 && errno != EEXIST)
            throw std::runtime_error("mkdir " + cur + ": " + std::strerror(errno));
    }
}

}  // namespace

const char *module_path() { return MG_PAM_MODULE_PATH; }

std::optional<AuditEntry> parse_audit(const std::string &line, char sep) {
    std::string text = line;
    while (!text.empty() && text.back() == '\n') text.pop_back();
    std::vector<std::string> parts;
    size_t start = 0;
    for (int i = 0; i < 7; ++i) {
        size_t at = text.find(sep, start);
        if (at == std::string::npos) return std::nullopt;
        parts.push_back(text.substr(start, at - start));
        start = at + 1;
    }
    AuditEntry e;
    e.raw = line;
    try {
        e.source = std::stoi(parts[0]);
        e.flag = std::stoi(parts[1]);
        e.level = std::stoi(parts[2]);
        e.logged = std::stol(parts[3]);
        e.event = std::stol(parts[4]);
    } catch (const std::exception &) {
        return std::nullopt;
    }
    e.program = parts[5];
    e.address = parts[6];
    e.message = text.substr(start);
    return e;
}

std::string violation_text(const std::string &message, const std::string &user, const std::string &role,
                           int level, const std::string &category, const std::string &service,
                           const std::string &mode_word, const std::string &detail) {
    std::ostringstream out;
    out << message << "::LOGIN(0):" << getpid() << ":" << getppid() << ":" << user << ":" << user << ":" << role
        << ":" << level << ":" << category << ":" << service << "::::::::" << mode_word << ":" << detail;
    return out.str().substr(0, 1023);
}

World::World(mgtest::Sandbox &sandbox, const WorldOptions &opts) : sb(sandbox) {
    root = sb.scratch() + "/mgroot";
    log_dir = root + "/log";
    confdir = sb.scratch() + "/pam.d";
    make_dirs(root + "/conf");
    make_dirs(root + "/data");
    make_dirs(log_dir);
    make_dirs(confdir);
    sb.write_etc(".evmg", "MG_ROOT=" + root + "\n");
    std::ofstream(root + "/conf/mgopt.conf") << "SecureLogDir\t" << log_dir
                                             << "\nSecureLogBakDir\t\nSecureLogSize\t1\nSecureLogFileCount\t3\n";
    make_dirs(kAclDir);
    std::string lines = "account required %M " + opts.account_args + "\n" +
                        "session required %M " + opts.session_args + "\n";
    service_file("sshd", lines);
    service_file("su", lines);
    service_file("login", lines);
    service_file("dtlogin", lines);
    service_file("ftp", lines);
    service_file("other", "# libpam reads this at every start\n");
}

void World::service_file(const std::string &service, const std::string &lines) {
    std::ofstream out(confdir + "/" + service, std::ios::trunc);
    out << replace_all(lines, "%M", module_path());
    if (!out) throw std::runtime_error("cannot write service file " + service);
}

void World::modes(const std::string &access, const std::string &session) {
    acl_file("pam_acl.conf", "# modes of the access control and the session limits\n"
                             "ServiceAccessControl " + access + "\nLimitLoginSession " + session + "\n");
}

void World::acl_file(const std::string &relative, const std::string &content) {
    sb.write_etc(std::string(kAclDir).substr(5) + "/" + relative, content);
}

Outcome World::run(Phase phase, const char *user, const Items &items, const std::string &service) {
    Outcome out;
    pam_conv conv{record_conv, &out.conv};
    pam_handle_t *pamh = nullptr;
    int rc = pam_start_confdir(service.c_str(), user, &conv, confdir.c_str(), &pamh);
    if (rc != PAM_SUCCESS) {
        ADD_FAILURE() << "pam_start_confdir: " << rc;
        return out;
    }
    auto set = [&](int item, const std::optional<std::string> &value) {
        if (value) {
            EXPECT_EQ(pam_set_item(pamh, item, value->c_str()), PAM_SUCCESS);
        }
    };
    set(PAM_RHOST, items.rhost);
    set(PAM_TTY, items.tty);
    set(PAM_RUSER, items.ruser);
    switch (phase) {
    case Phase::account: out.rc = pam_acct_mgmt(pamh, 0); break;
    case Phase::open_session: out.rc = pam_open_session(pamh, 0); break;
    case Phase::close_session: out.rc = pam_close_session(pamh, 0); break;
    }
    pam_end(pamh, out.rc);
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
        } else {
            other_lines_.push_back(m.line());
        }
    }
}

std::vector<std::string> World::take_module_syslog() {
    split_syslog();
    return std::exchange(module_lines_, {});
}

std::vector<std::string> World::take_other_syslog() {
    split_syslog();
    return std::exchange(other_lines_, {});
}

std::vector<AuditEntry> World::take_audit() {
    split_syslog();
    std::vector<AuditEntry> out = std::exchange(audit_from_syslog_, {});
    if (audit_sink == AuditSink::file) {
        EXPECT_TRUE(out.empty()) << "secure-log entries went to syslog: " << out.front().raw;
    }
    std::ifstream in(log_dir + "/mglog.01");
    if (in && audit_sink == AuditSink::syslog) {
        ADD_FAILURE() << "the secure log file exists although no entry should reach it";
    }
    if (in) {
        in.seekg(static_cast<std::streamoff>(log_file_offset_));
        std::string line;
        while (std::getline(in, line)) {
            auto e = parse_audit(line, '\t');
            EXPECT_TRUE(e.has_value()) << "not a secure-log file line: " << line;
            if (e) out.push_back(*e);
            log_file_offset_ += line.size() + 1;
        }
    }
    return out;
}

void World::clear_logs() {
    take_module_syslog();
    take_other_syslog();
    take_audit();
}

}  // namespace mgsys
