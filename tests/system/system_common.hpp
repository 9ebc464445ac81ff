// Shared set-up of the PAM system tests: the accounts every test may use and
// a runner that builds a fresh sandboxed World per test, with the kernel
// module simulated or absent.
#pragma once

#include "pam_harness.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace mgsys {

enum class Kernel { absent, present };

using Lines = std::vector<std::string>;

// Items of a remote login: remote host and terminal.
inline Items from(const std::string &rhost, const std::string &tty = "pts/3") { return {rhost, tty, std::nullopt}; }

inline std::string kernel_name(const ::testing::TestParamInfo<Kernel> &info) {
    return info.param == Kernel::absent ? "KernelAbsent" : "KernelPresent";
}

// Accounts of every world:
//   alice 5001, primary group staff (5000), also in ops (5200)
//   bob   5002, primary group dev (5100), also in staff
//   carol 5003, primary group staff
// Hosts: build-host 10.1.2.3, lab-host 192.168.1.1.
void add_test_accounts(mgtest::Sandbox &sb);

// The secure-log entries of the module carry this host's address.
inline constexpr const char *kLocalAddress = mgtest::Sandbox::kHostAddress;
inline constexpr int kEventAccess = 0x2020001;
inline constexpr int kEventSession = 0x2020002;

// Runs `body` in a fresh sandbox with a World, the test accounts and the
// kernel module present (simulated) or absent. Skips (non-root) or fails
// the current test as appropriate.
void in_world(Kernel kernel, const std::function<void(World &)> &body, const WorldOptions &opts = {});

// Role code, level and category name that a violation entry shows for a
// user without an MLS record: "--", 0, "" with the module absent; with the
// module present the kernel look-up fails and the zeroed record reads as
// role "UX".
struct LabelText {
    std::string role;
    int level = 0;
    std::string category;
};
LabelText unlabelled(Kernel kernel);

// Expected violation entry text for an access refusal.
std::string access_violation(Kernel kernel, const std::string &service, const std::string &user,
                             const std::string &rhost, const std::string &rule_label, const std::string &mode_word,
                             const std::string &ruser = "(unknown)");

// Expected violation entry text for a session-limit refusal with the usual
// "has exceed max session" message; the detail's RuleName is the rule label
// too ("user alice", "IP 10.0.0.0").
std::string session_violation(Kernel kernel, const std::string &service, const std::string &user,
                              const std::string &rhost, const std::string &rule_label, int current, int max,
                              const std::string &mode_word);

// Checks the fixed fields of one of the module's entries and returns its text.
std::string entry_text(const AuditEntry &entry, int flag, int level);

// Checks that a transaction reported `text` the way refusals of unusable
// hosts are reported, to syslog (LOG_ERR) and to the user; an empty text:
// that it reported nothing at all.
void expect_reported(World &w, const Outcome &out, const std::string &text);

}  // namespace mgsys
