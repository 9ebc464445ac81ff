// Login latency as a login service pays it: every login is a fresh process
// (sshd, su and login fork one per login), so the module is loaded, relocated
// and run once per login. Each sample execs login_driver, which looks the
// account up, then runs pam_start_confdir, the account check (and for
// "session" the session opening) and pam_end.
//
// Candidates, interleaved in rounds so that each ratio compares them under
// the same machine load:
//   pam_permit                          the floor: the smallest module
//   pam_access, a two-line file
//   pam_mg_acl without rule files, and with 10-line user, group and default files
// once with the kernel module absent and once simulated (libmgsim.so preloaded
// into every candidate alike). Each figure is the median over rounds of the
// mean time of a batch of logins. Runs as root in a private sandbox.
//
// Usage: login_bench [--rounds N] [--batch N]
#include "sandbox.hpp"

#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#ifndef MG_PAM_MODULE_PATH
#error "the build must define MG_PAM_MODULE_PATH, MG_LOGIN_DRIVER and MG_SIM_PRELOAD"
#endif

extern char **environ;

namespace {

const std::string kStock = "/usr/lib/x86_64-linux-gnu/security/";

struct Candidate {
    const char *label;
    std::string service;
    bool rules;  // pam_mg_acl's 10-line rule files in place
};

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

class LoginBench {
public:
    LoginBench(mgtest::Sandbox &sb, std::string confdir) : sb_(sb), confdir_(std::move(confdir)) {}

    void set_kernel(bool simulated) {
        env_.clear();
        for (char **e = environ; *e != nullptr; ++e)
            if (std::strncmp(*e, "LD_PRELOAD=", 11) != 0 && std::strncmp(*e, "MGSIM_", 6) != 0) env_.push_back(*e);
        if (simulated) {
            env_.push_back("LD_PRELOAD=" MG_SIM_PRELOAD);
            env_.push_back("MGSIM_STATE=" + sb_.scratch() + "/kernel.state");
        }
    }

    void rules(bool present) {
        const std::string dir = "security/pam_acl_conf/";
        if (present) {
            std::string user, group, dflt;
            for (int i = 0; i < 9; ++i) {
                const std::string host = "10.9.0." + std::to_string(i + 1);
                user += "u" + std::to_string(i) + ":-:sshd:" + host + "::\n";
                group += "g" + std::to_string(i) + ":-:ftp:" + host + "::\n";
                dflt += "d" + std::to_string(i) + ":-:telnet:" + host + "::\n";
            }
            sb_.write_etc(dir + "user/alice", user + "u:+:sshd:*::\n");
            sb_.write_etc(dir + "group/staff", group + "g:+:ftp:*::\n");
            sb_.write_etc(dir + "default.conf", dflt + "d:+:*:*::\n");
        } else {
            for (const char *f : {"user/alice", "group/staff", "default.conf"}) unlink(("/etc/" + dir + f).c_str());
        }
    }

    // Microseconds per login over a batch of n fresh processes.
    double batch(const Candidate &c, const char *op, int n) {
        rules(c.rules);
        std::vector<std::string> args = {MG_LOGIN_DRIVER, confdir_, c.service, "alice", op};
        std::vector<char *> argv, envp;
        for (auto &a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        for (auto &e : env_) envp.push_back(e.data());
        envp.push_back(nullptr);
        auto t0 = std::chrono::steady_clock::now();
        for (int i = 0; i < n; ++i) {
            pid_t pid;
            if (posix_spawn(&pid, MG_LOGIN_DRIVER, nullptr, nullptr, argv.data(), envp.data()) != 0) die("spawn");
            int status = 0;
            if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
                die(std::string(c.label) + " " + op + ": login failed, status " + std::to_string(status));
        }
        return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count() / n;
    }

private:
    [[noreturn]] static void die(const std::string &what) {
        std::fprintf(stderr, "login_bench: %s\n", what.c_str());
        std::exit(1);
    }

    mgtest::Sandbox &sb_;
    std::string confdir_;
    std::vector<std::string> env_;
};

}  // namespace

int main(int argc, char **argv) {
    int rounds = 15, batch = 20;
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], "--rounds") == 0) rounds = std::max(1, std::atoi(argv[++i]));
        else if (std::strcmp(argv[i], "--batch") == 0) batch = std::max(1, std::atoi(argv[++i]));
    }
    if (geteuid() != 0) {
        std::fprintf(stderr, "login_bench: needs root (it runs in a private mount namespace)\n");
        return 1;
    }
    mgtest::Sandbox sb(mgtest::Sandbox::SyslogReader::discarding_process);
    sb.add_group("staff", 5000, {"alice"});
    sb.add_user("alice", 5001, 5000);
    sb.write_etc(".evmg", "MG_ROOT=" + sb.scratch() + "/mgroot\n");
    sb.write_etc("security/pam_acl_conf/pam_acl.conf", "ServiceAccessControl on\nLimitLoginSession on\n");
    const std::string confdir = sb.scratch() + "/pam.d", access = sb.scratch() + "/access.conf";
    mkdir(confdir.c_str(), 0755);
    auto service = [&](const std::string &name, const std::string &text) {
        std::ofstream(confdir + "/" + name) << text << "\n";
    };
    const std::string module = MG_PAM_MODULE_PATH;
    service("other", "# no defaults");
    service("permit", "account required " + kStock + "pam_permit.so\nsession required " + kStock + "pam_permit.so");
    service("access", "account required " + kStock + "pam_access.so accessfile=" + access + "\nsession required " +
                          kStock + "pam_permit.so");
    service("sshd", "account required " + module + "\nsession required " + module);
    std::ofstream(access) << "- : bob : ALL\n+ : alice : ALL\n";
    std::ofstream(sb.scratch() + "/kernel.state");  // the simulator's state, filled on first use

    const Candidate cands[] = {{"pam_permit", "permit", false},
                               {"pam_access", "access", false},
                               {"mg, no rules", "sshd", false},
                               {"mg, 10 lines", "sshd", true}};
    enum { kPermit, kAccess, kMgNone, kMgRules, kCount };
    LoginBench bench(sb, confdir);

    std::printf("Whole-process logins: microseconds per login (spawn + lookups + PAM + exit),\n"
                "median of %d rounds of %d logins each, ratios taken within each round\n", rounds, batch);
    double target_permit = 0, target_access = 0;
    for (bool simulated : {false, true}) {
        bench.set_kernel(simulated);
        for (const char *op : {"account", "session"}) {
            std::vector<std::vector<double>> us(kCount);
            for (int k = 0; k < kCount; ++k) bench.batch(cands[k], op, 2);  // warm the caches
            for (int r = 0; r < rounds; ++r)
                for (int k = 0; k < kCount; ++k) us[k].push_back(bench.batch(cands[k], op, batch));
            auto ratio = [&](int a, int b) {
                std::vector<double> q;
                for (int r = 0; r < rounds; ++r) q.push_back(us[a][r] / us[b][r]);
                return median(q);
            };
            std::printf("\nkernel module %s, %s\n", simulated ? "simulated" : "absent", op);
            for (int k = 0; k < kCount; ++k)
                std::printf("  %-14s %8.0f us  %5.2fx pam_permit  %5.2fx pam_access\n", cands[k].label,
                            median(us[k]), ratio(k, kPermit), ratio(k, kAccess));
            if (!simulated && std::strcmp(op, "account") == 0) {
                target_permit = std::max(ratio(kMgNone, kPermit), ratio(kMgRules, kPermit));
                target_access = std::max(ratio(kMgNone, kAccess), ratio(kMgRules, kAccess));
            }
            std::fflush(stdout);
        }
    }
    auto verdict = [](bool ok) { return ok ? "met" : "MISSED"; };
    std::printf("\nTargets (account, kernel module absent, the slower of the two pam_mg_acl rows)\n");
    std::printf("  %.2fx pam_permit (target <= 1.15x)  %s\n", target_permit, verdict(target_permit <= 1.15));
    std::printf("  %.2fx pam_access (target <= 1.00x)  %s\n", target_access, verdict(target_access <= 1.0));
    return 0;
}
