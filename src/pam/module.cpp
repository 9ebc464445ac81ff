// The three PAM entry points, the request record, the reports (syslog, the
// PAM conversation, the secure log) and the registration of accepted logins.
#include "pam/pam_acl.hpp"

#include <mossgrove/common.h>
#include <mossgrove/config.h>
#include <mossgrove/defs.h>
#include <mossgrove/kernel.h>
#include <mossgrove/seclog.h>

#include "common/paths.hpp"
#include "kernel/gateway.hpp"

#include <arpa/inet.h>
#include <pwd.h>
#include <security/pam_appl.h>
#include <security/pam_modules.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <syslog.h>
#include <unistd.h>

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <strings.h>

namespace mg::pam {

int nOptAllowLog = 0;
int nOptSessionLog = 0;
int nPamacOpMode = kModeWarn;
int nPamsmOpMode = kModeWarn;
const char *pPamacOpMode = "Warning";
const char *pPamsmOpMode = "Warning";
int nSessionCount = 0;

namespace {

LogSink g_log_sink = nullptr;

constexpr const char *kLogIdent = "MGLog";

// Process label blocks for the raise to the security officer's role and the
// restore afterwards (only the role is put back; level and category stay 0).
int set_process_label(unsigned char role, int level, int category) noexcept {
    MGProcLabel block{};
    block.role = role;
    block.level = level;
    block.category = category;
    block.pid = getpid();
    return _sys_setmp2(&block);
}

bool read_process_role(unsigned char *role) noexcept {
    MGProcLabel block{};
    block.pid = getpid();
    if (_sys_getmp2(&block) < 0) return false;
    *role = block.role;
    return true;
}

bool raise_process_label() noexcept { return set_process_label(MG_ROLE_SO, 1, 1) >= 0; }
void restore_process_label(unsigned char role) noexcept { set_process_label(role, 0, 0); }

int init_without_file() noexcept { return InitSecureLog(kLogIdent, nullptr, 0, 0, 0); }

// Steps of the set-up that run under the raised label.
int init_from_option_file() noexcept {
    char root[1024];
    if (get_mgroot(root, sizeof root) != 0) return init_without_file();
    char path[1024];
    bformat(path, sizeof path, "%s/%s/%s", root, "conf", "mgopt.conf");
    MGOptionBuf options;
    if (ReadMGOptionConfig(path, &options) < 0) return init_without_file();
    char log_path[1024];
    bformat(log_path, sizeof log_path, "%s/%s.01", options.SecureLogDir, "mglog");
    int rotate = options.ModulePending == 'Y' || options.ModulePending == 'y' ? 0 : 1;
    int rc = InitSecureLog(kLogIdent, log_path, options.SecureLogSize * 1000000, options.SecureLogFileCount, rotate);
    return rc != 0 ? init_without_file() : rc;
}

const char *get_text_item(pam_handle_t *pamh, int type, int *rc) noexcept {
    const void *item = nullptr;
    *rc = pam_get_item(pamh, type, &item);
    return static_cast<const char *>(item);
}

bool is_blank(char c) noexcept { return isblank(static_cast<unsigned char>(c)) != 0; }

// The IPv6 refusal follows the session-limit mode in both phases.
int refuse_ipv6(pam_handle_t *pamh, const PamRequest &request) noexcept {
    if (nPamsmOpMode == kModeOff) return PAM_SUCCESS;
    char text[512];
    bformat(text, sizeof text, "'%s' access is denied for user '%s' from '%s' - IPv6 address is not supported",
             request.service.or_("(unknown)"), request.account.name, request.rhost.or_("(unknown)"));
    _log_err(LOG_ERR, "%s", text);
    _make_remark(pamh, PAM_TEXT_INFO, text);
    return nPamsmOpMode == kModeWarn ? PAM_SUCCESS : PAM_PERM_DENIED;
}

// Remote host of the session phases: a local pseudo-terminal or nothing
// stands for "localhost".
const char *session_remote_host(const char *rhost) noexcept {
    if (rhost == nullptr || *rhost == '\0' || starts_with(rhost, "pts/")) return "localhost";
    return rhost;
}

void fill_request(PamRequest &request, const struct passwd &pw, const char *service, const char *rhost,
                  const char *tty, const char *ruser) noexcept {
    copy_account(request.account, pw);
    request.rule_kind = 'u';
    bformat(request.rule_name, sizeof request.rule_name, "%s", request.account.name);
    request.service.assign(service);
    request.rhost.assign(rhost);
    request.rhost_addr = kNoAddr;
    request.tty.assign(tty);
    request.ruser.assign(ruser);
}

// Everything an opened session gets, allowed or allowed despite its limit.
void announce_session(const PamRequest &request) noexcept {
    _log_err(LOG_INFO, "session opened for user '%s'(from %s) with service '%s' [#%d]", request.account.name,
             request.rhost.or_("(unknown)"), request.service.or_("(unknown)"), nSessionCount + 1);
    log_session_opened(request);
    register_login_origin(request);
}

// Gathering of pam_sm_acct_mgmt; PAM_SUCCESS with the request filled, or the
// result to return.
int gather_account_request(pam_handle_t *pamh, PamRequest &request) noexcept {
    int rc;
    const char *service = get_text_item(pamh, PAM_SERVICE, &rc);
    if (rc != PAM_SUCCESS || service == nullptr || is_blank(service[0])) {
        _log_err(LOG_ERR, "cannot find the service name");
        return PAM_ABORT;
    }
    const char *user = nullptr;
    if (pam_get_user(pamh, &user, nullptr) != PAM_SUCCESS || user == nullptr || *user == '\0') {
        _log_err(LOG_ERR, "%s: cannot determine the user's name", service);
        return PAM_USER_UNKNOWN;
    }
    const struct passwd *pw = getpwnam(user);
    if (pw == nullptr) {
        _log_err(LOG_ERR, "%s: couldn't get user information of '%s'", service, user);
        return PAM_USER_UNKNOWN;
    }
    const char *rhost = get_text_item(pamh, PAM_RHOST, &rc);
    if (rc != PAM_SUCCESS) {
        _log_err(LOG_ERR, "%s: cannot find the remote host name", service);
        return PAM_ABORT;
    }
    if (rhost == nullptr || *rhost == '\0') {
        // No remote host: the terminal stands in for it.
        rhost = get_text_item(pamh, PAM_TTY, &rc);
        if (rc != PAM_SUCCESS || rhost == nullptr) {
            rhost = nullptr;
            if (isatty(0) == 1) {
                const char *name = ttyname(0);
                if (name == nullptr) {
                    _log_err(LOG_ERR, "%s: couldn't get the tty name", service);
                    return PAM_ABORT;
                }
                if (pam_set_item(pamh, PAM_TTY, name) != PAM_SUCCESS) {
                    _log_err(LOG_ERR, "%s: couldn't set the tty name", service);
                    return PAM_ABORT;
                }
                rhost = name;
            }
        }
    }
    rhost = cut_device_prefix(rhost);
    const char *tty = get_text_item(pamh, PAM_TTY, &rc);
    if (rc != PAM_SUCCESS) {
        _log_err(LOG_ERR, "%s: cannot find the tty name", service);
        return PAM_ABORT;
    }
    tty = cut_device_prefix(tty);
    const char *ruser = get_text_item(pamh, PAM_RUSER, &rc);
    fill_request(request, *pw, service, rhost, tty, ruser);
    return PAM_SUCCESS;
}

// First steps of account management and session opening: a login service
// never takes a path from the environment; then the secure log, the modes and
// the options.
void begin_checked_call(int argc, const char **argv) noexcept {
    paths::pin_system_defaults();
    init_pam_securelog();
    read_operation_modes();
    _pam_parse(argc, argv);
}

}  // namespace

void bformat(char *dst, size_t size, const char *format, ...) noexcept {
    if (dst == nullptr || size == 0) return;
    va_list args;
    va_start(args, format);
    vsnprintf(dst, size, format, args);
    va_end(args);
}

void OptText::assign(const char *value) noexcept {
    if (value == nullptr) {
        clear();
        return;
    }
    set_ = true;
    bformat(text_, sizeof text_, "%s", value);
}

void copy_account(Account &account, const struct passwd &pw) noexcept {
    auto copy = [](char *dst, size_t size, const char *src) { bformat(dst, size, "%s", src ? src : ""); };
    copy(account.name, sizeof account.name, pw.pw_name);
    copy(account.passwd, sizeof account.passwd, pw.pw_passwd);
    account.uid = pw.pw_uid;
    account.gid = pw.pw_gid;
    copy(account.gecos, sizeof account.gecos, pw.pw_gecos);
    copy(account.dir, sizeof account.dir, pw.pw_dir);
    copy(account.shell, sizeof account.shell, pw.pw_shell);
}

void set_log_sink(LogSink sink) noexcept { g_log_sink = sink; }

DecisionTrace g_decision_trace = nullptr;
time_t g_dry_run_now = 0;

void set_dry_run(DecisionTrace trace, time_t now) noexcept {
    g_decision_trace = trace;
    g_dry_run_now = trace != nullptr ? now : 0;
}

void trace_step(const char *format, ...) noexcept {
    if (g_decision_trace == nullptr) return;
    char text[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    g_decision_trace(text);
}

void _log_err(int priority, const char *format, ...) noexcept {
    char text[8192];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    if (g_log_sink != nullptr) {
        g_log_sink(priority, text);
        return;
    }
    openlog("mg_pam_acl", LOG_CONS | LOG_PID, LOG_AUTH);
    syslog(priority, "%s", text);
    closelog();
}

int _make_remark(pam_handle_t *pamh, int style, const char *text) noexcept {
    const void *item = nullptr;
    int rc = pam_get_item(pamh, PAM_CONV, &item);
    if (rc != PAM_SUCCESS) return rc;
    const auto *conv = static_cast<const struct pam_conv *>(item);
    if (conv == nullptr || conv->conv == nullptr) return PAM_CONV_ERR;
    struct pam_message message;
    message.msg_style = style;
    message.msg = text;
    const struct pam_message *messages = &message;
    struct pam_response *response = nullptr;
    rc = conv->conv(1, &messages, &response, conv->appdata_ptr);
    if (response != nullptr) {
        free(response->resp);
        free(response);
    }
    return rc;
}

int _pam_parse(int argc, const char **argv) noexcept {
    int debug = 0;
    for (int i = 0; i < argc && argv != nullptr; ++i) {
        const char *arg = argv[i];
        if (arg == nullptr) continue;
        if (strcasecmp(arg, "debug") == 0)
            debug = 1;
        else if (strcasecmp(arg, "allowlog") == 0)
            nOptAllowLog = 1;
        else if (strcasecmp(arg, "log") == 0)
            nOptSessionLog = 1;
        else
            _log_err(LOG_ERR, "%s : unknown option; %s", "_pam_parse", arg);
    }
    return debug;
}

int init_pam_securelog() noexcept {
    if (!kernel::module_present()) {
        init_without_file();
        return 1;
    }
    unsigned char role;
    if (!read_process_role(&role)) return init_without_file();
    int rc = raise_process_label() ? init_from_option_file() : init_without_file();
    restore_process_label(role);
    return rc;
}

int save_pam_log(int event, int result, const char *text) noexcept {
    SecureLogRecord record;
    memset(&record, 0, sizeof record);
    record.nSource = 7;
    record.nFlag = event;
    record.nLevel = result;
    record.tLogged = 0;
    record.tEvent = static_cast<int32_t>(time(nullptr));
    bformat(record.szProgram, sizeof record.szProgram, "%s", "PAM-ACL");
    if (get_local_ip(record.szAddress, sizeof record.szAddress) == kNoAddr)
        bformat(record.szAddress, sizeof record.szAddress, "%s", "127.0.0.1");
    bformat(record.szMessage, sizeof record.szMessage, "%s", text != nullptr ? text : "");
    if (g_decision_trace != nullptr) {
        trace_step("secure log entry (event 0x%x, result %d): %s", event, result, record.szMessage);
        return 0;
    }

    unsigned char role;
    if (!kernel::module_present() || !read_process_role(&role)) return SaveSecureLog(MG_SECLOG_SYSLOG, &record);
    int targets = raise_process_label() ? MG_SECLOG_FILE : MG_SECLOG_SYSLOG;
    int rc = SaveSecureLog(targets, &record);
    restore_process_label(role);
    return rc;
}

int register_login_origin(const PamRequest &request) noexcept {
    if (request.service.set() && strcmp(request.service.get(), "su") == 0) return 1;
    if (!kernel::module_present()) return 1;
    if (g_decision_trace != nullptr) {
        trace_step("the login's terminal and address would be registered with the kernel module");
        return 1;
    }
    if (request.tty.empty()) return 0;

    bool sshd = request.service.set() && strcmp(request.service.get(), "sshd") == 0;
    MGLoginOrigin origin;
    memset(&origin, 0, sizeof origin);
    char device[300];
    bformat(device, sizeof device, "/dev/%s", request.tty.get());
    struct stat st;
    if (stat(device, &st) == 0) {
        origin.tty_major = static_cast<int32_t>(major(st.st_rdev));
        origin.tty_minor = static_cast<int32_t>(minor(st.st_rdev));
    } else if (!sshd) {
        return 0;
    }

    const char *host = request.rhost.get();
    in_addr_t addr = dot_quad_addr(host);
    if (addr == kNoAddr) {
        addr = convert_hostname(host);
        if (addr == kNoAddr) return 0;
    }
    origin.pid = getpid();
    origin.addr = addr;
    in_addr text_addr;
    text_addr.s_addr = addr;
    bformat(origin.addr_text, sizeof origin.addr_text, "%s", inet_ntoa(text_addr));
    return _sys_add_ipaddr_to_table(&origin) == 0 ? 1 : 0;
}

int normalize_remote_host(PamRequest &request) noexcept {
    if (!request.rhost.set()) return 1;
    char *host = request.rhost.data();
    if (request.service.set() && strcmp(request.service.get(), "dtlogin") == 0) {
        char *display = strrchr(host, ':');
        if (display != nullptr) *display = '\0';
    }
    in_addr v4;
    if (inet_pton(AF_INET, host, &v4) == 1) {
        request.rhost_addr = v4.s_addr;
        return 1;
    }
    unsigned char v6[16];
    if (inet_pton(AF_INET6, host, v6) == 1) {
        in_addr_t carried;
        if (!ipv6_carries_ipv4(v6, &carried)) return 0;
        const char *tail = strrchr(host, ':') + 1;
        memmove(host, tail, strlen(tail) + 1);
        request.rhost_addr = carried;
    }
    return 1;
}

}  // namespace mg::pam

using namespace mg::pam;

extern "C" MG_API int pam_sm_acct_mgmt(pam_handle_t *pamh, int /*flags*/, int argc, const char **argv) {
    begin_checked_call(argc, argv);

    PamRequest request;
    int rc = gather_account_request(pamh, request);
    if (rc != PAM_SUCCESS) return rc;
    // Console logins are exempt.
    if (starts_with(request.tty.get(), "tty")) return PAM_SUCCESS;
    if (normalize_remote_host(request) == 0) return refuse_ipv6(pamh, request);

    if (check_access_rules(request) == 0) {
        log_acl_violation(kEventAccess, 2, pPamacOpMode, request, nullptr);
        if (nPamacOpMode == kModeNolog || nPamacOpMode == kModeOn) return PAM_PERM_DENIED;
    }
    register_login_origin(request);
    if (nOptAllowLog != 0) log_access_allowed(request);
    return PAM_SUCCESS;
}

extern "C" MG_API int pam_sm_open_session(pam_handle_t *pamh, int /*flags*/, int argc, const char **argv) {
    begin_checked_call(argc, argv);

    int rc;
    const char *service = get_text_item(pamh, PAM_SERVICE, &rc);
    if (rc != PAM_SUCCESS || service == nullptr) {
        _log_err(LOG_ERR, "open_session - error recovering service");
        return PAM_SESSION_ERR;
    }
    const char *user = get_text_item(pamh, PAM_USER, &rc);
    if (rc != PAM_SUCCESS || user == nullptr) {
        _log_err(LOG_ERR, "open_session - error recovering username");
        return PAM_SESSION_ERR;
    }
    const char *tty = get_text_item(pamh, PAM_TTY, &rc);
    if (rc != PAM_SUCCESS) {
        _log_err(LOG_ERR, "open_session - fail to get the tty name");
        return PAM_SESSION_ERR;
    }
    tty = cut_device_prefix(tty);
    if (tty == nullptr || *tty == '\0') return PAM_SUCCESS;
    const char *rhost = get_text_item(pamh, PAM_RHOST, &rc);
    if (rc != PAM_SUCCESS) {
        _log_err(LOG_ERR, "open_session - fail to get the remote host name");
        return PAM_SESSION_ERR;
    }
    rhost = session_remote_host(rhost);
    const char *ruser = get_text_item(pamh, PAM_RUSER, &rc);
    const struct passwd *pw = getpwnam(user);
    if (pw == nullptr) {
        _log_err(LOG_ERR, "couldn't get user information of '%s'", user);
        return PAM_USER_UNKNOWN;
    }
    if (starts_with(tty, "tty")) return PAM_SUCCESS;

    PamRequest request;
    fill_request(request, *pw, service, rhost, tty, ruser);
    if (normalize_remote_host(request) == 0) return refuse_ipv6(pamh, request);
    // A host that only looks like a dotted quad ("10.0.0.01") is not looked
    // up: its address stays unknown, so no address limit applies to it.
    if (request.rhost_addr == kNoAddr && dot_quad_addr(request.rhost.get()) == kNoAddr) {
        in_addr_t addr = convert_hostname(request.rhost.get());
        if (addr == kNoAddr) {
            if (nPamsmOpMode == kModeOff) return PAM_SUCCESS;
            char text[512];
            bformat(text, sizeof text, "invalid hostname or IP address is assigned (user=%s, hostname=%s).",
                     request.account.name, request.rhost.or_("(unknown)"));
            _log_err(LOG_ERR, "%s", text);
            _make_remark(pamh, PAM_TEXT_INFO, text);
            return nPamsmOpMode == kModeWarn ? PAM_SUCCESS : PAM_SESSION_ERR;
        }
        request.rhost_addr = addr;
    }

    SessionRule rule;
    if (session_match(request, rule) == 0) {
        announce_session(request);
        return PAM_SUCCESS;
    }
    if (nPamsmOpMode == kModeOff || nPamsmOpMode == kModeWarn) {
        _log_err(LOG_INFO, "user '%s'(from %s) has exceed max login session, but operation mode is '%s'",
                 request.account.name, request.rhost.or_("(unknown)"), nPamsmOpMode == kModeOff ? "Off" : "Warning");
        announce_session(request);
    }
    log_acl_violation(kEventSession, 2, pPamsmOpMode, request, &rule);
    return nPamsmOpMode == kModeNolog || nPamsmOpMode == kModeOn ? PAM_SESSION_ERR : PAM_SUCCESS;
}

extern "C" MG_API int pam_sm_close_session(pam_handle_t *pamh, int /*flags*/, int argc, const char **argv) {
    mg::paths::pin_system_defaults();
    _pam_parse(argc, argv);

    int rc_service, rc_user, rc_tty;
    const char *service = get_text_item(pamh, PAM_SERVICE, &rc_service);
    const char *user = get_text_item(pamh, PAM_USER, &rc_user);
    const char *tty = get_text_item(pamh, PAM_TTY, &rc_tty);
    if (rc_service != PAM_SUCCESS || rc_user != PAM_SUCCESS || rc_tty != PAM_SUCCESS || service == nullptr ||
        user == nullptr)
        return PAM_SESSION_ERR;
    if (tty == nullptr) return PAM_SUCCESS;
    int rc;
    const char *rhost = get_text_item(pamh, PAM_RHOST, &rc);
    if (rc != PAM_SUCCESS) return PAM_SESSION_ERR;
    rhost = session_remote_host(rhost);
    const char *ruser = get_text_item(pamh, PAM_RUSER, &rc);
    if (rc != PAM_SUCCESS) return PAM_SESSION_ERR;
    const struct passwd *pw = getpwnam(user);
    if (pw == nullptr) return PAM_SUCCESS;

    PamRequest request;
    fill_request(request, *pw, service, rhost, tty, ruser);
    if (request.account.name[0] != '\0' && request.account.name[0] != '.') {
        _log_err(LOG_INFO, "session closed for '%s' from '%s' with service '%s'", request.account.name,
                 request.rhost.or_("(unknown)"), request.service.or_("(unknown)"));
        init_pam_securelog();
        log_session_closed(request);
    }
    return PAM_SUCCESS;
}
