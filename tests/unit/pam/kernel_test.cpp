// The module against the simulated kernel module: the secure log under a
// raised label, the user's label in violation entries, and the registration
// of accepted logins. Each test runs in the sandbox with its own state file.
#include "pam_test_util.hpp"

#include "sandbox.hpp"

#include <gtest/gtest.h>
#include <mgsim.h>
#include <mossgrove/kernel.h>

#include <unistd.h>

using namespace mg::pam;
using mgtest::Sandbox;

namespace {

// A loaded module, an installation root whose option file puts the secure log
// in scratch space, and the calling process at role 2, level 3, category 4.
std::string set_up(Sandbox &sb) {
    std::string state = sb.scratch() + "/sim";
    EXPECT_EQ(0, mgsim_use_state(state.c_str()));
    EXPECT_EQ(0, mgsim_reset());
    EXPECT_EQ(0, mgsim_set_log((sb.scratch() + "/calls").c_str()));
    EXPECT_EQ(0, mgsim_set_proc_label(0, 2, 3, 4));
    std::string root = sb.scratch() + "/root", logs = sb.scratch() + "/logs";
    mkdir(root.c_str(), 0755);
    mkdir((root + "/conf").c_str(), 0755);
    mkdir(logs.c_str(), 0755);
    sb.write_etc(".evmg", "MG_ROOT=" + root + "\n");
    mgtest::write_file(root + "/conf/mgopt.conf",
                       "SecureLogDir\t" + logs + "\nSecureLogSize\t1\nSecureLogFileCount\t3\n");
    return logs + "/mglog.01";
}

std::vector<long> calls_of(long sub) {
    std::vector<mgsim_call> calls(4096);
    int n = mgsim_read_log(nullptr, calls.data(), static_cast<int>(calls.size()));
    std::vector<long> out;
    for (int i = 0; i < n && i < 4096; ++i)
        if (calls[static_cast<size_t>(i)].sub == sub) out.push_back(calls[static_cast<size_t>(i)].result);
    return out;
}

std::vector<std::string> secure_log_syslog(Sandbox &sb) {
    std::vector<std::string> out;
    for (const auto &m : sb.take_syslog())
        if (m.ident == "MGLog") out.push_back(m.text);
    return out;
}

MG_SANDBOX_TEST(KernelSecureLog, EntriesGoToTheFileUnderARaisedLabel) {
    std::string file = set_up(sb);
    EXPECT_EQ(0, init_pam_securelog());
    // Raised and put back: only the role returns, level and category stay 0.
    EXPECT_EQ((std::vector<long>{0, 0}), calls_of(13));
    int role, level, category;
    ASSERT_GE(mgsim_get_proc_label(0, &role, &level, &category), 0);
    EXPECT_EQ(2, role);
    EXPECT_EQ(0, level);
    EXPECT_EQ(0, category);

    sb.clear_syslog();
    EXPECT_EQ(0, save_pam_log(kEventSession, 2, "limit %n%s"));
    std::string content = mgtest::read_file(file);
    EXPECT_NE(std::string::npos, content.find("7\t33685506\t2\t"));
    EXPECT_NE(std::string::npos, content.find("\tPAM-ACL\t192.0.2.10\tlimit %n%s\n"));
    EXPECT_TRUE(secure_log_syslog(sb).empty());

    // A refused raise or an unreadable label sends the entry to syslog instead.
    for (const char *fail : {"13:1", "12:13"}) {
        ASSERT_EQ(0, mgsim_set_fail(fail));
        EXPECT_EQ(0, save_pam_log(kEventInfo, 1, fail));
        auto lines = sb.wait_syslog(1);
        ASSERT_EQ(1u, lines.size()) << fail;
        EXPECT_NE(std::string::npos, lines[0].text.find(std::string("|PAM-ACL|192.0.2.10|") + fail)) << fail;
        sb.clear_syslog();
    }
    EXPECT_EQ(std::string::npos, mgtest::read_file(file).find("13:1"));
}

MG_SANDBOX_TEST(KernelSecureLog, NoFileWithoutAnOptionFile) {
    set_up(sb);
    sb.write_etc(".evmg", "nothing here\n");
    EXPECT_EQ(0, init_pam_securelog());
    sb.clear_syslog();
    EXPECT_EQ(0, save_pam_log(kEventInfo, 1, "to syslog"));
    auto lines = secure_log_syslog(sb);
    ASSERT_EQ(1u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("|to syslog"));
}

MG_SANDBOX_TEST(KernelSecureLog, ViolationCarriesTheUsersLabel) {
    std::string file = set_up(sb);
    unsigned char mu[1324] = {};
    int32_t uid = 2001, lvl = 3, cat = 5;
    memcpy(mu, &uid, 4);
    memcpy(mu + 8, &lvl, 4);
    memcpy(mu + 12, &cat, 4);
    mu[18] = 2;
    ASSERT_GE(_sys_setmu(mu, 1), 0);
    unsigned char catrec[56] = {};
    memcpy(catrec, &cat, 4);
    catrec[4] = 1;
    catrec[5] = 2;
    memcpy(catrec + 7, "Ops", 4);
    catrec[40] = 1;
    catrec[41] = 5;
    ASSERT_GE(_sys_setcat(catrec, 1), 0);

    ASSERT_EQ(0, init_pam_securelog());
    nPamacOpMode = kModeOn;
    PamRequest req = pamtest::request("alice", "sshd", "10.0.0.5", "pts/1");
    req.account.uid = 2001;
    EXPECT_EQ(0, log_acl_violation(kEventAccess, 2, "Deny", req, nullptr));
    std::string content = mgtest::read_file(file);
    EXPECT_NE(std::string::npos, content.find(":alice:alice:SA:3:Ops:sshd::::::::Deny:RemoteHost=10.0.0.5 "))
        << content;

    req.account.uid = 2002;  // no MLS record: an ordinary account
    EXPECT_EQ(0, log_acl_violation(kEventAccess, 2, "Deny", req, nullptr));
    EXPECT_NE(std::string::npos, mgtest::read_file(file).find(":alice:alice:UX:0::sshd:"));
}

MG_SANDBOX_TEST(KernelOrigin, AcceptedLoginsAreRegistered) {
    set_up(sb);
    sb.make_device("term/1", 136, 42);
    sb.add_host("10.0.0.7", "gw.example");
    auto origins = [] {
        std::vector<MGLoginOrigin> v(16);
        v.resize(static_cast<size_t>(mgsim_read_table(MGSIM_T_ORIGIN, v.data(), 16)));
        return v;
    };

    EXPECT_EQ(1, register_login_origin(pamtest::request("alice", "login", "10.0.0.5", "term/1")));
    auto v = origins();
    ASSERT_EQ(1u, v.size());
    EXPECT_EQ(136, v[0].tty_major);
    EXPECT_EQ(42, v[0].tty_minor);
    EXPECT_EQ(getpid(), v[0].pid);
    EXPECT_EQ(inet_addr("10.0.0.5"), v[0].addr);
    EXPECT_STREQ("10.0.0.5", v[0].addr_text);

    // A terminal without a device: only sshd goes on, with numbers 0.
    EXPECT_EQ(0, register_login_origin(pamtest::request("alice", "login", "10.0.0.5", "pts/99")));
    PamRequest named = pamtest::request("alice", "sshd", "gw.example", "pts/99");
    EXPECT_EQ(1, register_login_origin(named));
    v = origins();
    ASSERT_EQ(1u, v.size());  // one record per pid
    EXPECT_EQ(0, v[0].tty_major);
    EXPECT_STREQ("10.0.0.7", v[0].addr_text);

    EXPECT_EQ(0, register_login_origin(pamtest::request("alice", "sshd", "unknown.example", "pts/99")));
    EXPECT_EQ(0, register_login_origin(pamtest::request("alice", "sshd", "10.0.0.5", nullptr)));
    EXPECT_EQ(1, register_login_origin(pamtest::request("alice", "su", "10.0.0.5", "term/1")));
    ASSERT_EQ(0, mgsim_set_fail("64:1"));
    EXPECT_EQ(0, register_login_origin(pamtest::request("alice", "login", "10.0.0.5", "term/1")));
    ASSERT_EQ(0, mgsim_set_absent(1));
    size_t before = calls_of(64).size();
    EXPECT_EQ(1, register_login_origin(pamtest::request("alice", "login", "10.0.0.5", "term/1")));
    EXPECT_EQ(before, calls_of(64).size());
}

}  // namespace
