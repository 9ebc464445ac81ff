// Cost of pam_mg_acl.so as a login service sees it, beside stock modules on
// the same inputs.
//
// Every call is a whole transaction: pam_start_confdir, the items, the
// operation, pam_end (as sshd or login make it; libpam loads the module at
// pam_start and unloads it at pam_end). Measured:
//   - account decisions over user rule files of 10, 100, 1,000 and 10,000
//     lines, against pam_permit (the floor) and pam_access with the same
//     rules in its format (accessfile=, with and without nodefgroup);
//   - session openings with 10, 100, 1,000 and 10,000 utmpx entries,
//     against pam_permit and pam_limits (maxlogins, conf=).
// The candidates run interleaved in rounds; each figure is the median of the
// rounds' per-call means. Runs as root in a private sandbox (own /etc, /run,
// /dev/log served by another process), with no kernel module: the kernel calls cost microseconds on a
// real kernel and would be dominated here by the simulator's state file.
//
// Usage: pam_bench [--rounds N] [--quick]
//        pam_bench --profile account|session N SECONDS [SERVICE]
//            only one candidate (default "mg", pam_mg_acl; also "permit",
//            "access", "access_ndg", "limits"), N rule lines or utmpx entries,
//            for a profiler
#include "sandbox.hpp"

#include <security/pam_appl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#ifndef MG_PAM_MODULE_PATH
#error "the build must define MG_PAM_MODULE_PATH"
#endif

namespace {

const std::string kStock = "/usr/lib/x86_64-linux-gnu/security/";

int silent_conv(int n, const pam_message **, pam_response **resp, void *) {
    *resp = static_cast<pam_response *>(calloc(static_cast<size_t>(n), sizeof(pam_response)));
    return *resp != nullptr ? PAM_SUCCESS : PAM_BUF_ERR;
}

struct Candidate {
    std::string name;
    std::string service;  // service file in the bench's PAM directory
};

enum class Op { account, open_session };

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

struct Samples {
    std::vector<std::vector<double>> us;  // [candidate][round]

    double at(size_t i) const { return median(us[i]); }
    // Median over rounds of a / b.
    double ratio(size_t a, size_t b) const {
        std::vector<double> r;
        for (size_t k = 0; k < us[a].size(); ++k) r.push_back(us[a][k] / us[b][k]);
        return median(r);
    }
    // Median over rounds of (a - floor) / (b - floor): the work beyond the transaction floor.
    double above(size_t a, size_t b, size_t floor) const {
        std::vector<double> r;
        for (size_t k = 0; k < us[a].size(); ++k) r.push_back((us[a][k] - us[floor][k]) / (us[b][k] - us[floor][k]));
        return median(r);
    }
};

class Bench {
public:
    explicit Bench(mgtest::Sandbox &sb) : sb_(sb), confdir_(sb.scratch() + "/pam.d") {
        mkdir(confdir_.c_str(), 0755);
    }

    void service(const std::string &name, const std::string &line) {
        std::ofstream(confdir_ + "/" + name) << line << "\n";
    }

    // One transaction; aborts the run when it is refused.
    void call(const std::string &service, Op op) {
        pam_conv conv{silent_conv, nullptr};
        pam_handle_t *pamh = nullptr;
        if (pam_start_confdir(service.c_str(), "alice", &conv, confdir_.c_str(), &pamh) != PAM_SUCCESS) die(service);
        pam_set_item(pamh, PAM_RHOST, "10.0.0.5");
        pam_set_item(pamh, PAM_TTY, "/dev/pts/3");
        int rc = op == Op::account ? pam_acct_mgmt(pamh, 0) : pam_open_session(pamh, 0);
        pam_end(pamh, rc);
        if (rc != PAM_SUCCESS) die(service + " refused: " + std::to_string(rc));
    }

    // Per-call microseconds of every candidate in every round (the mean of a
    // batch); the candidates run interleaved, round by round, so that a ratio
    // taken within one round compares them under the same machine load.
    Samples measure(const std::vector<Candidate> &cands, Op op, int rounds) {
        Samples out;
        out.us.resize(cands.size());
        std::vector<int> batch(cands.size(), 1);
        // Size each batch to some 20 ms.
        for (size_t i = 0; i < cands.size(); ++i) {
            call(cands[i].service, op);  // warm-up
            double one = time_batch(cands[i].service, op, 3) / 3;
            batch[i] = std::clamp(static_cast<int>(20000.0 / std::max(one, 1.0)), 3, 5000);
        }
        for (int r = 0; r < rounds; ++r)
            for (size_t i = 0; i < cands.size(); ++i)
                out.us[i].push_back(time_batch(cands[i].service, op, batch[i]) / batch[i]);
        return out;
    }

private:
    double time_batch(const std::string &service, Op op, int n) {
        auto t0 = std::chrono::steady_clock::now();
        for (int i = 0; i < n; ++i) call(service, op);
        return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count();
    }

    [[noreturn]] static void die(const std::string &what) {
        std::fprintf(stderr, "pam_bench: %s\n", what.c_str());
        std::exit(1);
    }

    mgtest::Sandbox &sb_;
    std::string confdir_;
};

// N rule lines that do not apply to the request (other addresses), then one
// that allows it: every line is read and examined.
void write_access_rules(mgtest::Sandbox &sb, const std::string &access_file, int lines) {
    std::string ours, theirs;
    for (int i = 0; i < lines - 1; ++i) {
        std::string host = "10.9." + std::to_string(i / 250 % 250) + "." + std::to_string(i % 250 + 1);
        ours += "rule" + std::to_string(i) + ":-:sshd:" + host + "::\n";
        theirs += "- : alice : " + host + "\n";
    }
    ours += "last:+:sshd:*::\n";
    theirs += "+ : alice : ALL\n";
    sb.write_etc("security/pam_acl_conf/user/alice", ours);
    std::ofstream(access_file) << theirs;
}

void write_utmpx(mgtest::Sandbox &sb, int entries) {
    sb.clear_utmpx();
    const char *users[] = {"alice", "bob", "carol"};
    for (int i = 0; i < entries; ++i)
        sb.add_utmpx(users[i % 3], "pts/" + std::to_string(i + 10), "10.0." + std::to_string(i / 250 % 250) + "." +
                                                                        std::to_string(i % 250 + 1));
}

// Microseconds for dlopen + dlclose of one module (libpam is already loaded),
// the part of every transaction that comes before any module code runs.
std::vector<double> load_unload(const std::vector<std::string> &paths, int rounds) {
    std::vector<std::vector<double>> samples(paths.size());
    for (int r = 0; r < rounds; ++r)
        for (size_t i = 0; i < paths.size(); ++i) {
            const int n = 200;
            auto t0 = std::chrono::steady_clock::now();
            for (int k = 0; k < n; ++k) {
                void *h = dlopen(paths[i].c_str(), RTLD_NOW | RTLD_LOCAL);
                if (h == nullptr) {
                    std::fprintf(stderr, "pam_bench: %s\n", dlerror());
                    std::exit(1);
                }
                dlclose(h);
            }
            samples[i].push_back(
                std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count() / n);
        }
    std::vector<double> out;
    for (auto &s : samples) out.push_back(median(s));
    return out;
}

void print_row(int size, const Samples &s) {
    std::printf("%8d", size);
    for (size_t i = 0; i < s.us.size(); ++i) std::printf(" %12.1f", s.at(i));
}

}  // namespace

int main(int argc, char **argv) {
    int rounds = 9;
    bool quick = false;
    std::string profile, profile_service = "mg";
    int profile_size = 0;
    double profile_seconds = 0;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--rounds") == 0 && i + 1 < argc) rounds = std::max(1, std::atoi(argv[++i]));
        if (std::strcmp(argv[i], "--quick") == 0) quick = true;
        if (std::strcmp(argv[i], "--profile") == 0 && i + 3 < argc) {
            profile = argv[++i];
            profile_size = std::atoi(argv[++i]);
            profile_seconds = std::atof(argv[++i]);
            if (i + 1 < argc && argv[i + 1][0] != '-') profile_service = argv[++i];
        }
    }
    if (quick) rounds = 3;
    if (geteuid() != 0) {
        std::fprintf(stderr, "pam_bench: needs root (it runs in a private mount namespace)\n");
        return 1;
    }
    // Single-threaded like a login service: syslog is drained by another process.
    mgtest::Sandbox sb(mgtest::Sandbox::SyslogReader::discarding_process);
    sb.add_group("staff", 5000, {"bob"});
    sb.add_user("alice", 5001, 5000);
    sb.add_user("bob", 5002, 5000);
    sb.add_user("carol", 5003, 5000);
    sb.write_etc(".evmg", "MG_ROOT=" + sb.scratch() + "/mgroot\n");
    sb.write_etc("security/pam_acl_conf/pam_acl.conf", "ServiceAccessControl on\nLimitLoginSession on\n");

    Bench bench(sb);
    const std::string module = MG_PAM_MODULE_PATH;
    const std::string access_file = sb.scratch() + "/access.conf";
    const std::string limits_file = sb.scratch() + "/limits.conf";
    // libpam reads "other" at every pam_start and complains through syslog when it is missing.
    bench.service("other", "# no defaults");
    bench.service("permit", "account required " + kStock + "pam_permit.so\nsession required " + kStock + "pam_permit.so");
    bench.service("access", "account required " + kStock + "pam_access.so accessfile=" + access_file);
    bench.service("access_ndg", "account required " + kStock + "pam_access.so nodefgroup accessfile=" + access_file);
    bench.service("limits", "session required " + kStock + "pam_limits.so conf=" + limits_file);
    bench.service("mg", "account required " + module + "\nsession required " + module);
    std::ofstream(limits_file) << "alice - maxlogins 100000\n";
    sb.write_etc("security/pam_acl_conf/user_session.conf", "x:alice:100000::\n");

    if (!profile.empty()) {
        Op op = profile == "session" ? Op::open_session : Op::account;
        if (op == Op::account)
            write_access_rules(sb, access_file, profile_size);
        else
            write_utmpx(sb, profile_size);
        long calls = 0;
        auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(profile_seconds);
        while (std::chrono::steady_clock::now() < end) {
            for (int i = 0; i < 100; ++i) bench.call(profile_service, op);
            calls += 100;
        }
        std::printf("%ld calls\n", calls);
        return 0;
    }

    const int sizes[] = {10, 100, 1000, 10000};
    std::printf("pam_mg_acl benchmark: microseconds per call (pam_start_confdir + operation + pam_end),\n"
                "median of %d rounds, ratios taken within each round; kernel module absent\n\n", rounds);

    auto loads = load_unload({kStock + "pam_permit.so", kStock + "pam_access.so", kStock + "pam_limits.so", module},
                             rounds);
    std::printf("Module load + unload (dlopen + dlclose), part of every call\n");
    std::printf("%12s %12s %12s %12s\n", "pam_permit", "pam_access", "pam_limits", "pam_mg_acl");
    std::printf("%12.1f %12.1f %12.1f %12.1f\n\n", loads[0], loads[1], loads[2], loads[3]);

    enum { kPermit, kAccess, kAccessNdg, kMgAccount };
    std::printf("Account decision, user rule file of N lines (the last one decides)\n");
    std::printf("%8s %12s %12s %12s %12s   %9s %9s %9s\n", "lines", "pam_permit", "pam_access", "access-ndg",
                "pam_mg_acl", "x permit", "x access", "x acc-ndg");
    std::vector<Samples> account;
    for (int n : sizes) {
        write_access_rules(sb, access_file, n);
        Samples s = bench.measure({{"pam_permit", "permit"}, {"pam_access", "access"}, {"access-ndg", "access_ndg"},
                                   {"pam_mg_acl", "mg"}},
                                  Op::account, rounds);
        print_row(n, s);
        std::printf("   %9.2f %9.3f %9.3f\n", s.ratio(kMgAccount, kPermit), s.ratio(kMgAccount, kAccess),
                    s.ratio(kMgAccount, kAccessNdg));
        account.push_back(s);
        std::fflush(stdout);
    }

    enum { kSessPermit, kLimits, kMgSession };
    std::printf("\nSession opening with N utmpx entries (a third of them the user's)\n");
    std::printf("%8s %12s %12s %12s   %9s %9s\n", "entries", "pam_permit", "pam_limits", "pam_mg_acl", "x permit",
                "x limits");
    std::vector<Samples> session;
    for (int n : sizes) {
        write_utmpx(sb, n);
        Samples s = bench.measure({{"pam_permit", "permit"}, {"pam_limits", "limits"}, {"pam_mg_acl", "mg"}},
                                  Op::open_session, rounds);
        print_row(n, s);
        std::printf("   %9.2f %9.3f\n", s.ratio(kMgSession, kSessPermit), s.ratio(kMgSession, kLimits));
        session.push_back(s);
        std::fflush(stdout);
    }

    auto verdict = [](bool ok) { return ok ? "met" : "MISSED"; };
    std::printf("\nTargets\n");
    double r = account[0].ratio(kMgAccount, kPermit);
    std::printf("  account, 10 lines:      %.2fx pam_permit (target <= 1.3x)  %s\n", r, verdict(r <= 1.3));
    for (int k : {2, 3}) {
        double a = account[k].ratio(kMgAccount, kAccess), b = account[k].ratio(kMgAccount, kAccessNdg);
        std::printf("  account, %5d lines:   %.3fx pam_access, %.3fx with nodefgroup (target <= 0.05x)  %s\n",
                    sizes[k], a, b, verdict(std::max(a, b) <= 0.05));
        std::printf("    beyond the floor:     %.3fx pam_access, %.3fx with nodefgroup\n",
                    account[k].above(kMgAccount, kAccess, kPermit), account[k].above(kMgAccount, kAccessNdg, kPermit));
    }
    double t = account[3].at(kMgAccount);
    std::printf("  account, 10000 lines:   %.0f us (target < 10000 us)  %s\n", t, verdict(t < 10000));
    for (int k : {2, 3}) {
        double q = session[k].ratio(kMgSession, kLimits);
        std::printf("  session, %5d entries: %.3fx pam_limits (target <= 0.25x)  %s\n", sizes[k], q,
                    verdict(q <= 0.25));
    }
    std::printf("\nThe pam_permit column is the floor: a whole transaction with the smallest module.\n"
                "\"Beyond the floor\" compares what each module adds to it.\n");
    return 0;
}
