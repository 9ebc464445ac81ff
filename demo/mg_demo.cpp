// Demonstration: real PAM transactions through libpam against the sample
// policy, with the kernel module simulated, in a private mount namespace.
// For every login it prints the decision, the syslog lines, the secure-log
// entries and what the kernel module was told; at the end, mgctl check
// explains an allowed and a refused login.
//
// Usage: mg_demo POLICY_DIR   (as root; scripts/demo.sh builds and runs it)
#include "faketime.hpp"
#include "sandbox.hpp"

#include "mgsim.h"

#include <mossgrove/kernel.h>

#include <fcntl.h>
#include <security/pam_appl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#ifndef MG_PAM_MODULE_PATH
#error "the build must define MG_PAM_MODULE_PATH"
#endif

namespace {

namespace fs = std::filesystem;

const char *kAclDir = "/etc/security/pam_acl_conf";

const char *pam_name(int rc) {
    switch (rc) {
    case PAM_SUCCESS: return "PAM_SUCCESS";
    case PAM_PERM_DENIED: return "PAM_PERM_DENIED";
    case PAM_USER_UNKNOWN: return "PAM_USER_UNKNOWN";
    case PAM_SESSION_ERR: return "PAM_SESSION_ERR";
    case PAM_ABORT: return "PAM_ABORT";
    default: return "PAM error";
    }
}

struct Login {
    std::string user, service, rhost, tty;
    const char *when = nullptr;  // frozen clock ("2024-01-15 10:00:00"), nullptr: as before
};

class Demo {
public:
    Demo(mgtest::Sandbox &sb, const std::string &policy) : sb_(sb) {
        root_ = sb.scratch() + "/mossgrove";
        confdir_ = sb.scratch() + "/pam.d";
        for (const char *dir : {"/conf", "/data", "/log"}) fs::create_directories(root_ + dir);
        fs::create_directories(confdir_);
        sb.write_etc(".evmg", "MG_ROOT=" + root_ + "\n");
        std::ofstream(root_ + "/conf/mgopt.conf") << "SecureLogDir\t" << root_ << "/log\n"
                                                  << "SecureLogSize\t10\nSecureLogFileCount\t5\n";
        fs::copy(policy, kAclDir, fs::copy_options::recursive | fs::copy_options::overwrite_existing);

        // The lines the README gives for sshd, su and login.
        const std::string lines = std::string("account    required   ") + MG_PAM_MODULE_PATH + " allowlog\n" +
                                  "session    required   " + MG_PAM_MODULE_PATH + " log\n";
        for (const char *service : {"sshd", "su", "login"}) std::ofstream(confdir_ + "/" + service) << lines;
        std::ofstream(confdir_ + "/other") << "# nothing by default\n";
    }

    void heading(const std::string &text) { std::printf("\n==== %s ====\n", text.c_str()); }

    void set_mode(const char *key, const char *mode) {
        std::string path = std::string(kAclDir) + "/pam_acl.conf";
        std::string text = "ServiceAccessControl    " + (std::string(key) == "ServiceAccessControl" ? mode : access_) +
                           "\nLimitLoginSession       " + (std::string(key) == "LimitLoginSession" ? mode : session_) +
                           "\n";
        if (std::string(key) == "ServiceAccessControl")
            access_ = mode;
        else
            session_ = mode;
        std::ofstream(path, std::ios::trunc) << text;
        std::printf("\n  [pam_acl.conf: ServiceAccessControl %s, LimitLoginSession %s]\n", access_.c_str(),
                    session_.c_str());
    }

    // One transaction; prints everything it produced.
    int run(const char *why, const Login &l, bool session) {
        if (l.when != nullptr) setenv("FAKETIME", l.when, 1);
        std::printf("\n-- %s\n", why);
        std::printf("   %s %s: user %s, service %s, from %s, terminal %s", session ? "open session" : "account",
                    clock_text().c_str(), l.user.c_str(), l.service.c_str(), l.rhost.empty() ? "-" : l.rhost.c_str(),
                    l.tty.c_str());
        std::printf("\n");
        int rc = transaction(l, session ? 1 : 0);
        report(rc);
        return rc;
    }

    void close(const char *why, const Login &l) {
        std::printf("\n-- %s\n", why);
        std::printf("   close session: user %s, service %s, from %s, terminal %s\n", l.user.c_str(), l.service.c_str(),
                    l.rhost.c_str(), l.tty.c_str());
        report(transaction(l, 2));
    }

private:
    static std::string clock_text() {
        char buf[64];
        time_t now = time(nullptr);
        strftime(buf, sizeof buf, "at %a %Y-%m-%d %H:%M", gmtime(&now));
        return buf;
    }

    static int conv(int n, const pam_message **msgs, pam_response **resp, void *data) {
        auto *shown = static_cast<std::vector<std::string> *>(data);
        *resp = static_cast<pam_response *>(calloc(static_cast<size_t>(n), sizeof(pam_response)));
        if (*resp == nullptr) return PAM_BUF_ERR;
        for (int i = 0; i < n; ++i) shown->push_back(msgs[i]->msg ? msgs[i]->msg : "");
        return PAM_SUCCESS;
    }

    int transaction(const Login &l, int phase) {
        shown_.clear();
        pam_conv c{conv, &shown_};
        pam_handle_t *pamh = nullptr;
        int rc = pam_start_confdir(l.service.c_str(), l.user.c_str(), &c, confdir_.c_str(), &pamh);
        if (rc != PAM_SUCCESS) return rc;
        if (!l.rhost.empty()) pam_set_item(pamh, PAM_RHOST, l.rhost.c_str());
        pam_set_item(pamh, PAM_TTY, l.tty.c_str());
        rc = phase == 0 ? pam_acct_mgmt(pamh, 0) : phase == 1 ? pam_open_session(pamh, 0) : pam_close_session(pamh, 0);
        pam_end(pamh, rc);
        return rc;
    }

    void report(int rc) {
        std::printf("   result: %s\n", pam_name(rc));
        for (const auto &text : shown_) std::printf("   user sees: %s\n", text.c_str());
        for (const auto &m : sb_.take_syslog()) std::printf("   syslog: %s\n", m.line().c_str());
        for (const auto &line : new_log_lines()) std::printf("   secure log: %s\n", line.c_str());
        std::vector<MGLoginOrigin> now(256);
        int n = mgsim_read_table(MGSIM_T_ORIGIN, now.data(), static_cast<int>(now.size()));
        now.resize(n > 0 ? static_cast<size_t>(n) : 0);
        for (const auto &o : now) {
            bool seen = false;
            for (const auto &p : origins_)
                seen |= std::memcmp(&o, &p, sizeof o) == 0;
            if (!seen)
                std::printf("   kernel: login origin registered: terminal %d/%d, pid %lld, address %s\n", o.tty_major,
                            o.tty_minor, static_cast<long long>(o.pid), o.addr_text);
        }
        origins_ = now;
    }

    // Lines appended to the secure log since the last call, fields separated by " | ".
    std::vector<std::string> new_log_lines() {
        std::vector<std::string> out;
        std::ifstream in(root_ + "/log/mglog.01");
        if (!in) return out;
        in.seekg(static_cast<std::streamoff>(log_offset_));
        std::string line;
        while (std::getline(in, line)) {
            log_offset_ += line.size() + 1;
            std::string pretty;
            for (char ch : line) pretty += ch == '\t' ? std::string(" | ") : std::string(1, ch);
            out.push_back(pretty);
        }
        return out;
    }

    mgtest::Sandbox &sb_;
    std::string root_, confdir_;
    std::string access_ = "on", session_ = "on";
    std::vector<std::string> shown_;
    std::vector<MGLoginOrigin> origins_;
    size_t log_offset_ = 0;
};

// An MLS user record (sub-command 17) and its category (sub-command 21) in the
// simulated kernel, so that violation entries show a label.
void kernel_label(int uid, int level, int category, int role, const char *category_name) {
    static std::vector<std::vector<unsigned char>> users, cats;
    std::vector<unsigned char> mu(1324, 0);
    std::memcpy(&mu[0], &uid, 4);
    std::memcpy(&mu[8], &level, 4);
    std::memcpy(&mu[12], &category, 4);
    mu[18] = static_cast<unsigned char>(role);
    users.push_back(mu);
    std::vector<unsigned char> all;
    for (const auto &u : users) all.insert(all.end(), u.begin(), u.end());
    syscall(223, 17, all.data(), 0, static_cast<long>(users.size()), 0);
    std::vector<unsigned char> cat(56, 0);
    std::memcpy(&cat[0], &category, 4);
    std::snprintf(reinterpret_cast<char *>(&cat[7]), 33, "%s", category_name);
    cats.push_back(cat);
    all.clear();
    for (const auto &c : cats) all.insert(all.end(), c.begin(), c.end());
    syscall(223, 21, all.data(), 0, static_cast<long>(cats.size()), 0);
}

// Runs mgctl with the given arguments and prints what it says.
void explain(std::vector<std::string> args) {
    std::string shown = "mgctl";
    for (const auto &a : args) shown += a.find(' ') != std::string::npos ? " \"" + a + "\"" : " " + a;
    std::printf("\n$ %s\n", shown.c_str());
    std::fflush(stdout);
    args.insert(args.begin(), MG_MGCTL_PATH);
    pid_t pid = fork();
    if (pid == 0) {
        std::vector<char *> argv;
        for (auto &a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    if (pid > 0) waitpid(pid, &status, 0);
    std::printf("(exit status %d)\n", WIFEXITED(status) ? WEXITSTATUS(status) : -1);
}

int demo(const std::string &policy) {
    mgtest::Sandbox sb;
    sb.add_group("admins", 2000, {});
    sb.add_group("staff", 2100, {"alice"});
    sb.add_group("contractors", 2200, {});
    sb.add_group("backup", 2300, {});
    sb.add_user("alice", 2001, 2000, "/home/alice", "/bin/bash");
    sb.add_user("bob", 2101, 2100, "/home/bob", "/bin/bash");
    sb.add_user("mallory", 2102, 2100, "/home/mallory", "/bin/bash");
    sb.add_user("carol", 2201, 2200, "/home/carol", "/bin/bash");
    sb.add_user("backup", 2301, 2300, "/var/backups", "/bin/sh");
    sb.add_host("10.0.5.20", "backup-srv");
    sb.add_host("10.20.3.4", "carol-laptop.vpn");
    sb.add_host("203.0.113.50", "cafe-wifi.example");

    // The kernel module, simulated: loaded and running, with labels for two users.
    mgsim_use_state((sb.scratch() + "/kernel.state").c_str());
    mgsim_reset();
    mgsim_set_status(1);
    kernel_label(2101, 2, 3, 1, "engineering");
    kernel_label(2102, 1, 4, 0, "sales");

    // Terminals: a few real pseudo-terminals (pts/0 to pts/5).
    for (int i = 0; i < 6; ++i) {
        int fd = posix_openpt(O_RDWR | O_NOCTTY);
        if (fd < 0 || grantpt(fd) != 0 || unlockpt(fd) != 0) {
            std::perror("posix_openpt");
            return 1;
        }
    }

    Demo d(sb, policy);
    std::printf("Mossgrove PAM module demonstration\n");
    std::printf("  module:  %s, loaded by libpam for every transaction\n", MG_PAM_MODULE_PATH);
    std::printf("  policy:  %s, placed at %s in a private mount namespace\n", policy.c_str(), kAclDir);
    std::printf("  kernel:  the Mossgrove kernel module, simulated, running\n");
    std::printf("  PAM:     account required pam_mg_acl.so allowlog / session required pam_mg_acl.so log\n");
    std::printf("  host:    %s (%s); clock in UTC\n", mgtest::Sandbox::kHostName, mgtest::Sandbox::kHostAddress);

    d.heading("Service access control (account phase)");
    d.set_mode("ServiceAccessControl", "on");
    d.run("alice (admins) may log in from anywhere", {"alice", "sshd", "198.51.100.7", "pts/0", "2024-01-15 10:00:00"},
          false);
    d.run("bob (staff) from the office network: the default rules allow it", {"bob", "sshd", "10.1.2.3", "pts/1"}, false);
    d.run("bob from a cafe: the default rules refuse it", {"bob", "sshd", "cafe-wifi.example", "pts/1"}, false);
    d.run("carol (contractors) over the VPN on a Monday morning", {"carol", "sshd", "carol-laptop.vpn", "pts/2"}, false);
    d.run("carol again on Saturday night: outside her time window",
          {"carol", "sshd", "carol-laptop.vpn", "pts/2", "2024-01-20 23:30:00"}, false);
    d.run("mallory's own file refuses everything, su included", {"mallory", "su", "", "pts/3", "2024-01-15 10:05:00"},
          false);
    d.run("the backup account from the backup server", {"backup", "sshd", "backup-srv", "pts/4"}, false);
    d.run("the backup account from anywhere else", {"backup", "sshd", "10.1.2.3", "pts/4"}, false);
    d.run("mallory on the console: console logins are never checked", {"mallory", "login", "", "tty1"}, false);
    d.run("bob from an IPv6 address", {"bob", "sshd", "2001:db8::5", "pts/1"}, false);
    d.set_mode("ServiceAccessControl", "warn");
    d.run("bob from the cafe again, now in warn mode", {"bob", "sshd", "cafe-wifi.example", "pts/1"}, false);
    d.set_mode("ServiceAccessControl", "on");

    d.heading("Login session limits (session phase)");
    // Sessions open now, as the utmpx file shows them.
    sb.add_utmpx("bob", "pts/10", "10.1.2.3");
    sb.add_utmpx("bob", "pts/11", "10.1.2.4");
    sb.add_utmpx("bob", "tty2", "");
    sb.add_utmpx("carol", "pts/12", "10.20.3.4");
    sb.add_utmpx("carol", "pts/13", "10.20.3.4");
    for (int i = 0; i < 4; ++i) sb.add_utmpx("alice", "pts/" + std::to_string(20 + i), "192.168.100.1" + std::to_string(i));
    std::printf("\n  [utmpx: bob 2 remote sessions + 1 on tty2, carol 2, alice 4 from 192.168.100.0/24]\n");
    d.run("alice has no limit", {"alice", "sshd", "198.51.100.7", "pts/0"}, true);
    d.run("bob's third session (staff: 3, consoles not counted)", {"bob", "sshd", "10.1.2.3", "pts/1"}, true);
    d.run("carol's third session (contractors: 2)", {"carol", "sshd", "carol-laptop.vpn", "pts/2"}, true);
    d.run("a fifth session from 192.168.100.0/24 (4 per range)", {"mallory", "sshd", "192.168.100.50", "pts/3"}, true);
    d.run("the backup account, once", {"backup", "sshd", "backup-srv", "pts/4"}, true);
    d.set_mode("LimitLoginSession", "warn");
    d.run("carol's third session in warn mode", {"carol", "sshd", "carol-laptop.vpn", "pts/2"}, true);
    d.close("carol logs out", {"carol", "sshd", "carol-laptop.vpn", "pts/2"});
    d.set_mode("LimitLoginSession", "nolog");
    d.run("carol's third session in nolog mode: refused, not recorded", {"carol", "sshd", "carol-laptop.vpn", "pts/2"},
          true);

    d.heading("The administration tool explains decisions (mgctl check, a dry run)");
    d.set_mode("LimitLoginSession", "on");
    explain({"check", "--service", "sshd", "--user", "alice", "--rhost", "198.51.100.7", "--tty", "pts/0"});
    explain({"check", "--service", "sshd", "--user", "bob", "--rhost", "198.51.100.9", "--tty", "pts/1"});
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s POLICY_DIR\n", argv[0]);
        return 2;
    }
    if (geteuid() != 0) {
        std::fprintf(stderr, "mg_demo: run as root (it builds a private mount namespace)\n");
        return 1;
    }
    // Time windows are shown at fixed times: the clock comes from libfaketime
    // (without it they are shown at the real time).
    mgtest::reexec_with_faketime(argv);
    std::string policy = fs::absolute(argv[1]).lexically_normal().string();
    if (!fs::is_directory(policy)) {
        std::fprintf(stderr, "mg_demo: %s is no directory\n", policy.c_str());
        return 1;
    }
    try {
        return demo(policy);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "mg_demo: %s\n", e.what());
        return 1;
    }
}
