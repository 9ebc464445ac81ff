// The entry points on a real libpam handle, called directly, inside the test
// sandbox (own /etc, utmpx file and syslog socket). The kernel module is
// absent here, so secure-log entries arrive in syslog under "MGLog".
#include "pam_test_util.hpp"

#include "sandbox.hpp"

#include <gtest/gtest.h>
#include <security/pam_appl.h>

#include <mossgrove/common.h>
#include <unistd.h>

#include <filesystem>

using mgtest::Sandbox;

namespace {

class Handle {
public:
    Handle(Sandbox &sb, const char *user, const char *service = "sshd") {
        std::string dir = sb.scratch() + "/pam.d";
        mkdir(dir.c_str(), 0755);
        for (const char *name : {service, "other"}) mgtest::write_file(dir + "/" + name, "account required pam_permit.so\n");
        conv_.conv = &Handle::converse;
        conv_.appdata_ptr = &shown;
        if (pam_start_confdir(service, user, &conv_, dir.c_str(), &pamh_) != PAM_SUCCESS) pamh_ = nullptr;
    }
    ~Handle() {
        if (pamh_ != nullptr) pam_end(pamh_, PAM_SUCCESS);
    }
    Handle &set(int item, const char *value) {
        pam_set_item(pamh_, item, value);
        return *this;
    }
    int account(std::vector<const char *> args = {}) {
        return pam_sm_acct_mgmt(pamh_, 0, static_cast<int>(args.size()), args.data());
    }
    int open(std::vector<const char *> args = {}) {
        return pam_sm_open_session(pamh_, 0, static_cast<int>(args.size()), args.data());
    }
    int close(std::vector<const char *> args = {}) {
        return pam_sm_close_session(pamh_, 0, static_cast<int>(args.size()), args.data());
    }
    std::vector<std::string> shown;

private:
    static int converse(int n, const struct pam_message **msg, struct pam_response **resp, void *data) {
        auto *shown = static_cast<std::vector<std::string> *>(data);
        for (int i = 0; i < n; ++i) shown->push_back(msg[i]->msg);
        *resp = static_cast<pam_response *>(calloc(static_cast<size_t>(n), sizeof(pam_response)));
        return PAM_SUCCESS;
    }
    pam_conv conv_{};
    pam_handle_t *pamh_ = nullptr;
};

// Texts sent with the given ident (the module's own lines or the secure log's).
std::vector<std::string> logged(Sandbox &sb, const char *ident) {
    std::vector<std::string> out;
    for (const auto &m : sb.take_syslog())
        if (m.ident == ident) out.push_back(m.text);
    return out;
}

// The message part of secure-log display lines: "src|flag|level|t|t|PAM-ACL|addr|message".
std::vector<std::string> audit(const std::vector<std::string> &lines) {
    std::vector<std::string> out;
    for (const auto &l : lines) {
        size_t pos = 0;
        for (int bars = 0; bars < 7 && pos != std::string::npos; ++bars) pos = l.find('|', pos + (bars ? 1 : 0));
        if (pos == std::string::npos) continue;
        std::string msg = l.substr(pos + 1);
        while (!msg.empty() && msg.back() == '\n') msg.pop_back();
        out.push_back(msg);
    }
    return out;
}

void modes(Sandbox &sb, const char *access, const char *session) {
    sb.write_etc("security/pam_acl_conf/pam_acl.conf",
                 std::string("ServiceAccessControl ") + access + "\nLimitLoginSession " + session + "\n");
}

MG_SANDBOX_TEST(Account, ConsoleExemptAndModes) {
    sb.add_user("alice", 2001, 2001);
    sb.write_etc("security/pam_acl_conf/user/alice", "x:-:sshd:*::\n");
    sb.clear_syslog();
    EXPECT_EQ(PAM_SUCCESS, Handle(sb, "alice").set(PAM_RHOST, "10.0.0.5").set(PAM_TTY, "/dev/tty1").account());
    EXPECT_EQ(PAM_PERM_DENIED, Handle(sb, "alice").set(PAM_RHOST, "10.0.0.5").set(PAM_TTY, "pts/1").account());
    std::string pid = std::to_string(getpid()), ppid = std::to_string(getppid());
    EXPECT_EQ((std::vector<std::string>{"'sshd' access is denied by user 'alice' from '10.0.0.5' [by user alice rule].::LOGIN(0):" +
                                        pid + ":" + ppid +
                                        ":alice:alice:--:0::sshd::::::::Deny:RemoteHost=10.0.0.5 ServiceName=sshd "
                                        "RemoteUser=(unknown)"}),
              audit(logged(sb, "MGLog")));

    modes(sb, "warn", "on");
    EXPECT_EQ(PAM_SUCCESS, Handle(sb, "alice").set(PAM_RHOST, "10.0.0.5").set(PAM_TTY, "pts/1").account());
    auto warned = audit(logged(sb, "MGLog"));
    ASSERT_EQ(1u, warned.size());
    EXPECT_NE(std::string::npos, warned[0].find(":sshd::::::::Warning:RemoteHost=10.0.0.5"));

    modes(sb, "nolog", "on");
    EXPECT_EQ(PAM_PERM_DENIED, Handle(sb, "alice").set(PAM_RHOST, "10.0.0.5").set(PAM_TTY, "pts/1").account());
    EXPECT_TRUE(logged(sb, "MGLog").empty());
}

MG_SANDBOX_TEST(Account, TerminalStandsInForMissingRemoteHost) {
    sb.add_user("alice", 2001, 2001);
    sb.write_etc("security/pam_acl_conf/default.conf", "x:-:*:*::\n");
    sb.clear_syslog();
    EXPECT_EQ(PAM_PERM_DENIED, Handle(sb, "alice").set(PAM_TTY, "/dev/pts/7").account());
    auto entries = audit(logged(sb, "MGLog"));
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ(0u, entries[0].find("'sshd' access is denied by user 'alice' from 'pts/7' [by default rule]."));
}

MG_SANDBOX_TEST(Account, Ipv6FollowsTheSessionMode) {
    sb.add_user("alice", 2001, 2001);
    const std::string text = "'sshd' access is denied for user 'alice' from '::ffff:10.0.0.1' - IPv6 address is not supported";
    modes(sb, "on", "warn");
    Handle warn(sb, "alice");
    EXPECT_EQ(PAM_SUCCESS, warn.set(PAM_RHOST, "::ffff:10.0.0.1").set(PAM_TTY, "pts/1").account());
    EXPECT_EQ(std::vector<std::string>{text}, warn.shown);
    modes(sb, "off", "on");
    EXPECT_EQ(PAM_PERM_DENIED, Handle(sb, "alice").set(PAM_RHOST, "::ffff:10.0.0.1").set(PAM_TTY, "pts/1").account());
    modes(sb, "on", "off");
    Handle off(sb, "alice");
    EXPECT_EQ(PAM_SUCCESS, off.set(PAM_RHOST, "::ffff:10.0.0.1").set(PAM_TTY, "pts/1").account());
    EXPECT_TRUE(off.shown.empty());
    EXPECT_EQ((std::vector<std::string>{text, text}), logged(sb, "mg_pam_acl"));
}

MG_SANDBOX_TEST(Account, HostileTextIsLoggedLiterally) {
    sb.add_user("%n%s%x", 2002, 2002);
    sb.write_etc("security/pam_acl_conf/default.conf", "x:-:*:10.0.0.0/8::\nx:-:*:*::\n");
    sb.clear_syslog();
    Handle h(sb, "%n%s%x");
    EXPECT_EQ(PAM_PERM_DENIED, h.set(PAM_RHOST, "%n%s%x%p.example").set(PAM_TTY, "pts/1").account({"%n%s"}));
    std::vector<std::string> texts, secure;
    for (const auto &m : sb.take_syslog()) (m.ident == "MGLog" ? secure : texts).push_back(m.text);
    auto entries = audit(secure);
    ASSERT_EQ(2u, texts.size());
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ("_pam_parse : unknown option; %n%s", texts[0]);
    EXPECT_EQ("cannot get IP address or unsupported address format (host=%n%s%x%p.example).", texts[1]);
    EXPECT_EQ(0u, entries[0].find("'sshd' access is denied by user '%n%s%x' from '%n%s%x%p.example'"));
}

MG_SANDBOX_TEST(Session, WarnModeOpensAndRecordsTheViolation) {
    sb.add_user("bob", 2003, 2003);
    sb.write_etc("security/pam_acl_conf/user_session.conf", "x:bob:2::\n");
    sb.add_utmpx("bob", "pts/1", "10.0.0.5");
    sb.add_utmpx("bob", "pts/2", "10.0.0.6");
    sb.add_utmpx("bob", "pts/3", "10.0.0.5");  // the login being opened
    modes(sb, "on", "warn");
    sb.clear_syslog();
    EXPECT_EQ(PAM_SUCCESS, Handle(sb, "bob").set(PAM_RHOST, "10.0.0.5").set(PAM_TTY, "/dev/pts/3").open());
    auto lines = sb.take_syslog();
    std::vector<std::string> module, entries;
    for (const auto &m : lines) (m.ident == "mg_pam_acl" ? module : entries).push_back(m.text);
    EXPECT_EQ((std::vector<std::string>{
                  "user 'bob'(from 10.0.0.5) has exceed max login session, but operation mode is 'Warning'",
                  "session opened for user 'bob'(from 10.0.0.5) with service 'sshd' [#3]"}),
              module);
    auto msgs = audit(entries);
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ(0u, msgs[0].find("User 'bob' has exceed max session. 'sshd' login is denied [by user bob rule].::"));
    EXPECT_NE(std::string::npos,
              msgs[0].find(":Warning:RemoteHost=10.0.0.5 ServiceName=sshd SessionCount(Current=2 Max=2) RuleName=user bob"));

    modes(sb, "on", "nolog");
    EXPECT_EQ(PAM_SESSION_ERR, Handle(sb, "bob").set(PAM_RHOST, "10.0.0.5").set(PAM_TTY, "pts/3").open());
    EXPECT_TRUE(logged(sb, "MGLog").empty());
}

MG_SANDBOX_TEST(Session, ItemsAndShortCuts) {
    sb.add_user("alice", 2001, 2001);
    sb.add_user(".x", 2004, 2004);
    sb.write_etc("security/pam_acl_conf/default_session.conf", "x:any:0::\n");
    sb.clear_syslog();
    // No terminal, or a console: nothing checked, nothing said.
    EXPECT_EQ(PAM_SUCCESS, Handle(sb, "alice").set(PAM_RHOST, "10.0.0.5").open());
    EXPECT_EQ(PAM_SUCCESS, Handle(sb, "alice").set(PAM_RHOST, "10.0.0.5").set(PAM_TTY, "").open());
    EXPECT_EQ(PAM_SUCCESS, Handle(sb, "alice").set(PAM_RHOST, "10.0.0.5").set(PAM_TTY, "tty2").open());
    EXPECT_TRUE(logged(sb, "mg_pam_acl").empty());
    EXPECT_TRUE(logged(sb, "MGLog").empty());

    Handle unknown(sb, "alice");
    EXPECT_EQ(PAM_SESSION_ERR, unknown.set(PAM_RHOST, "nowhere").set(PAM_TTY, "pts/1").open());
    EXPECT_EQ(std::vector<std::string>{"invalid hostname or IP address is assigned (user=alice, hostname=nowhere)."},
              unknown.shown);
    EXPECT_EQ(PAM_SESSION_ERR, Handle(sb, "alice").set(PAM_TTY, "pts/1").open());  // localhost, max 0
    sb.clear_syslog();

    EXPECT_EQ(PAM_SUCCESS, Handle(sb, ".x").set(PAM_TTY, "pts/1").close());
    EXPECT_EQ(PAM_SUCCESS, Handle(sb, "alice").set(PAM_RHOST, "pts/4").set(PAM_TTY, "/dev/pts/1").close({"log"}));
    auto module = logged(sb, "mg_pam_acl");
    EXPECT_EQ(std::vector<std::string>{"session closed for 'alice' from 'localhost' with service 'sshd'"}, module);
}

}  // namespace

namespace {

size_t open_descriptors() {
    size_t n = 0;
    for ([[maybe_unused]] const auto &e : std::filesystem::directory_iterator("/proc/self/fd")) ++n;
    return n;
}

MG_SANDBOX_TEST(Transactions, RepeatedCallsKeepNoDescriptorsOrSlots) {
    sb.add_user("carol", 2005, 2005);
    sb.add_group("carol", 2005);
    sb.add_group("dev", 5001, {"carol"});
    sb.write_etc("security/pam_acl_conf/group/dev", "x:+:sshd:10.0.0.0/8::\n");
    sb.write_etc("security/pam_acl_conf/group_session.conf", "x:dev:5::\n");
    sb.write_etc("security/pam_acl_conf/ip_session.conf", "x:10.0.0.0/8:50::\n");
    sb.add_utmpx("carol", "pts/2", "10.0.0.9");
    Handle warm(sb, "carol");
    warm.set(PAM_RHOST, "10.0.0.5").set(PAM_TTY, "pts/1");
    ASSERT_EQ(PAM_SUCCESS, warm.account());
    size_t before = open_descriptors();
    for (int i = 0; i < 300; ++i) {
        Handle h(sb, "carol");
        h.set(PAM_RHOST, "10.0.0.5").set(PAM_TTY, "pts/1");
        ASSERT_EQ(PAM_SUCCESS, h.account({"allowlog"})) << i;
        ASSERT_EQ(PAM_SUCCESS, h.open({"log"})) << i;
        ASSERT_EQ(PAM_SUCCESS, h.close()) << i;
        if (i % 50 == 0) sb.clear_syslog();
    }
    EXPECT_EQ(before, open_descriptors());
    int free_slots = 0;
    while (get_tokslot() >= 0) ++free_slots;
    EXPECT_EQ(10, free_slots);
}

}  // namespace
