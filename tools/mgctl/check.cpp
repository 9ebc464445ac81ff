// mgctl check and mgctl sessions: the PAM module's own entry points run as a
// dry run, and the utmpx sessions the limits count.
#include "mgctl/mgctl.hpp"

#include <security/pam_appl.h>
#include <security/pam_modules.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utmpx.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <utility>

#include "common/paths.hpp"
#include "pam/pam_acl.hpp"

namespace mgctl {
namespace {

const char *mode_word(int mode) {
    switch (mode) {
        case mg::pam::kModeOff: return "off";
        case mg::pam::kModeWarn: return "warn";
        case mg::pam::kModeNolog: return "nolog";
        default: return "on";
    }
}

const char *pam_result(int rc) {
    switch (rc) {
        case PAM_SUCCESS: return "PAM_SUCCESS";
        case PAM_PERM_DENIED: return "PAM_PERM_DENIED";
        case PAM_USER_UNKNOWN: return "PAM_USER_UNKNOWN";
        case PAM_SESSION_ERR: return "PAM_SESSION_ERR";
        case PAM_ABORT: return "PAM_ABORT";
        default: return "another PAM error";
    }
}

// What the user would be shown through the conversation.
int show_conv(int n, const pam_message **msg, pam_response **resp, void *) {
    *resp = static_cast<pam_response *>(calloc(static_cast<size_t>(n), sizeof(pam_response)));
    if (*resp == nullptr) return PAM_BUF_ERR;
    for (int i = 0; i < n; ++i) std::printf("  shown to the user: %s\n", msg[i]->msg);
    return PAM_SUCCESS;
}

// A PAM handle for the items only: its service stack is an empty directory,
// so that no other module is loaded.
class Handle {
public:
    Handle(const char *service, const char *user) {
        char tmpl[] = "/tmp/mgctl.XXXXXX";
        if (mkdtemp(tmpl) == nullptr) return;
        dir_ = tmpl;
        if (FILE *f = std::fopen((dir_ + "/other").c_str(), "w")) std::fclose(f);
        pam_conv conv{show_conv, nullptr};
        conv_ = conv;
        if (pam_start_confdir(service, user, &conv_, dir_.c_str(), &pamh_) != PAM_SUCCESS) pamh_ = nullptr;
    }
    ~Handle() {
        if (pamh_ != nullptr) pam_end(pamh_, PAM_SUCCESS);
        if (!dir_.empty()) {
            unlink((dir_ + "/other").c_str());
            rmdir(dir_.c_str());
        }
    }
    pam_handle_t *get() const { return pamh_; }

private:
    std::string dir_;
    pam_conv conv_{};
    pam_handle_t *pamh_ = nullptr;
};

}  // namespace

int cmd_check(const Args &args) {
    if (!args.ok()) return usage_error(args.error());
    const char *service = args.value("service"), *user = args.value("user");
    if (service == nullptr || user == nullptr || !args.positional().empty())
        return usage_error("check needs --service and --user");
    time_t at = 0;
    if (args.value("at") != nullptr && !parse_time(args.value("at"), &at))
        return usage_error("--at takes \"YYYY-MM-DD HH:MM\"");
    const char *phase = args.value("phase");
    if (phase != nullptr && std::strcmp(phase, "account") != 0 && std::strcmp(phase, "session") != 0)
        return usage_error("--phase takes account or session");

    Handle pamh(service, user);
    if (pamh.get() == nullptr) {
        std::fprintf(stderr, "mgctl: cannot make a PAM handle\n");
        return kFailed;
    }
    for (auto [item, name] : {std::pair{PAM_RHOST, "rhost"}, std::pair{PAM_TTY, "tty"}, std::pair{PAM_RUSER, "ruser"}})
        if (args.value(name) != nullptr) pam_set_item(pamh.get(), item, args.value(name));

    mg::pam::set_log_sink([](int, const char *text) { std::printf("  syslog: %s\n", text); });
    mg::pam::set_dry_run([](const char *step) { std::printf("  %s\n", step); }, at);

    int account = PAM_SUCCESS, session = PAM_SUCCESS;
    if (phase == nullptr || std::strcmp(phase, "account") == 0) {
        std::printf("account (service access control):\n");
        account = pam_sm_acct_mgmt(pamh.get(), 0, 0, nullptr);
        std::printf("  mode: ServiceAccessControl %s\n", mode_word(mg::pam::nPamacOpMode));
        std::printf("  result: %s (%s)\n", pam_result(account), account == PAM_SUCCESS ? "allowed" : "refused");
    }
    if (account == PAM_SUCCESS && (phase == nullptr || std::strcmp(phase, "session") == 0)) {
        std::printf("session (login session limits):\n");
        session = pam_sm_open_session(pamh.get(), 0, 0, nullptr);
        std::printf("  mode: LimitLoginSession %s\n", mode_word(mg::pam::nPamsmOpMode));
        std::printf("  result: %s (%s)\n", pam_result(session), session == PAM_SUCCESS ? "allowed" : "refused");
    }
    mg::pam::set_dry_run(nullptr, 0);
    mg::pam::set_log_sink(nullptr);
    return account == PAM_SUCCESS && session == PAM_SUCCESS ? kOk : kFailed;
}

int cmd_sessions(const Args &args) {
    if (!args.ok()) return usage_error(args.error());
    if (args.positional().size() > 1) return usage_error("sessions takes at most one user");
    const char *only = args.positional().empty() ? nullptr : args.positional()[0].c_str();
    if (const char *file = mg::paths::utmpx()) {
        if (utmpxname(file) != 0) return library_error(file);
    }
    std::map<std::string, int> users;
    std::printf("%-16s %-12s %s\n", "USER", "TERMINAL", "FROM");
    setutxent();
    while (const struct utmpx *e = getutxent()) {
        if (e->ut_type != USER_PROCESS) continue;
        std::string name(e->ut_user, strnlen(e->ut_user, sizeof e->ut_user));
        if (only != nullptr && name != only) continue;
        std::printf("%-16s %-12.*s %.*s\n", name.c_str(), static_cast<int>(sizeof e->ut_line), e->ut_line,
                    static_cast<int>(sizeof e->ut_host), e->ut_host);
        users[name];
    }
    endutxent();
    // The counts are the module's own, for a login on a terminal not yet in use.
    std::printf("\n%-16s %8s %16s\n", "USER", "SESSIONS", "NOT ON CONSOLE");
    for (const auto &[name, unused] : users)
        std::printf("%-16s %8d %16d\n", name.c_str(), mg::pam::count_user_sessions(name.c_str(), "", false),
                    mg::pam::count_user_sessions(name.c_str(), "", true));
    return kOk;
}

}  // namespace mgctl
