// Internals of the PAM service module: the request record, the rule readers
// and the checks behind pam_sm_acct_mgmt, pam_sm_open_session and
// pam_sm_close_session. Nothing here leaves the shared object; the unit tests
// link the static library and call these directly.
#pragma once

#include <netinet/in.h>
#include <pwd.h>
#include <security/pam_modules.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>

namespace mg::pam {

// ---- Constants ---------------------------------------------------------

inline constexpr in_addr_t kNoAddr = 0xFFFFFFFFu;  // "-1": address not known / invalid

// Operation modes of pam_acl.conf.
inline constexpr int kModeOff = 0;
inline constexpr int kModeWarn = 1;
inline constexpr int kModeNolog = 2;
inline constexpr int kModeOn = 3;

// Event codes of this module's secure-log entries.
inline constexpr int kEventAccess = 0x2020001;
inline constexpr int kEventSession = 0x2020002;
inline constexpr int kEventInfo = 0;

inline constexpr const char *kConfFile = "pam_acl.conf";
inline constexpr const char *kInternalError = "[internel system error]";

// Rule lines are read as fgets with a buffer of this size would read them.
inline constexpr size_t kLineBuffer = 512;

// ---- Module globals (process-wide, single-threaded) ---------------------

extern int nOptAllowLog;     // sticky once "allowlog" was given
extern int nOptSessionLog;   // sticky once "log" was given
extern int nPamacOpMode;     // service access control mode
extern int nPamsmOpMode;     // login session limit mode
extern const char *pPamacOpMode;  // "Warning" / "Deny"
extern const char *pPamsmOpMode;
extern int nSessionCount;    // last session count, for the "[#%d]" number

// ---- Records ------------------------------------------------------------

// A request string that may be absent (NULL), copied into 256 bytes.
class OptText {
public:
    void assign(const char *value) noexcept;
    void clear() noexcept { set_ = false; text_[0] = '\0'; }
    const char *get() const noexcept { return set_ ? text_ : nullptr; }
    bool set() const noexcept { return set_; }
    bool empty() const noexcept { return !set_ || text_[0] == '\0'; }
    char *data() noexcept { return text_; }  // in-place edits of a set value
    // Value, or `fallback` when absent.
    const char *or_(const char *fallback) const noexcept { return set_ ? text_ : fallback; }

private:
    char text_[256] = {};
    bool set_ = false;
};

// Copy of the seven struct passwd members.
struct Account {
    char name[256] = {};
    char passwd[256] = {};
    uid_t uid = 0;
    gid_t gid = 0;
    char gecos[256] = {};
    char dir[1024] = {};
    char shell[1024] = {};
};

struct PamRequest {
    int rule_kind = 'u';
    char rule_name[256] = {};
    Account account;
    OptText service;
    OptText rhost;
    in_addr_t rhost_addr = kNoAddr;  // network order
    OptText tty;
    OptText ruser;
    char rule_path[256] = {};

    // Per-call caches (not part of the record proper): the local time the
    // time fields are compared with, and the remote host's address as the
    // hosts field sees it (looked up at most once per call).
    bool have_now = false;
    struct tm now = {};
    int host_lookup = 0;  // 0 not yet, 1 found, -1 not found
    in_addr_t host_addr = kNoAddr;
};

struct SessionRule {
    int kind = '*';
    char name[256] = {};
    uint32_t low = 0, high = 0;  // host order
    int max = -1;
    int limit_console = 0;
    int skip_console = 0;
    int current = 0;
};

// snprintf into a fixed buffer: always terminated, cut when too long (the cut
// is intended wherever this is used).
void bformat(char *dst, size_t size, const char *format, ...) noexcept __attribute__((format(printf, 3, 4)));

// Fills a request's account from struct passwd.
void copy_account(Account &account, const struct passwd &pw) noexcept;

// ---- Reporting (module.cpp) ---------------------------------------------

void _log_err(int priority, const char *format, ...) noexcept __attribute__((format(printf, 2, 3)));
int _make_remark(pam_handle_t *pamh, int style, const char *text) noexcept;
int _pam_parse(int argc, const char **argv) noexcept;
int init_pam_securelog() noexcept;
int save_pam_log(int event, int result, const char *text) noexcept;
int register_login_origin(const PamRequest &request) noexcept;
int normalize_remote_host(PamRequest &request) noexcept;

// When set, _log_err hands its text here instead of syslog (tests, and the
// administration tool's dry run, which prints it).
using LogSink = void (*)(int priority, const char *text);
void set_log_sink(LogSink sink) noexcept;

// Dry run: the administration tool runs the entry points with a trace set,
// so that its explanation comes from the module's own code. The rule checks
// then describe each step (each file consulted, the line that decided, the
// sessions counted) in one line of text per step, and nothing is written or
// registered: secure-log entries and the kernel registration are described
// instead. `now`, when not 0, is the time the time fields are compared with.
// The module itself never sets it.
using DecisionTrace = void (*)(const char *step);
void set_dry_run(DecisionTrace trace, time_t now) noexcept;
void trace_step(const char *format, ...) noexcept __attribute__((format(printf, 1, 2)));
extern DecisionTrace g_decision_trace;
extern time_t g_dry_run_now;

// ---- Address helpers (address.cpp) -----------------------------------------

in_addr_t get_local_ip(char *buffer, size_t size) noexcept;
int netmask_to_cidr(in_addr_t mask) noexcept;
in_addr_t dot_quad_addr(const char *text) noexcept;
int split_ip_subnet(uint32_t range[2], char *text) noexcept;
in_addr_t convert_hostname(const char *name) noexcept;
int is_num(const char *text) noexcept;
// The IPv4 address carried by a 16-byte IPv6 address under the one accepted
// pattern (8 zero bytes, 0xFF 0xFF, 0 0, address), or false.
bool ipv6_carries_ipv4(const unsigned char bytes[16], in_addr_t *addr) noexcept;
// Terminal or remote-host text beginning with '/': the text after its second
// '/' (or the text itself when there is none).
const char *cut_device_prefix(const char *text) noexcept;
inline bool starts_with(const char *text, const char *prefix) noexcept {
    if (text == nullptr) return false;
    while (*prefix != '\0')
        if (*text++ != *prefix++) return false;
    return true;
}

// ---- Rule files (rulefile.cpp) ----------------------------------------------

// A 64 KiB block for reading rule and utmpx files: the module's one static
// block when it is free (no allocation, no heap growth per call), else a heap
// block. data() is nullptr when no memory could be had.
class ReadBlock {
public:
    static constexpr size_t kSize = 64 * 1024;
    ReadBlock() noexcept;
    ~ReadBlock();
    ReadBlock(const ReadBlock &) = delete;
    ReadBlock &operator=(const ReadBlock &) = delete;
    char *data() const noexcept { return data_; }

private:
    char *data_;
    bool static_;
};

// Reads a descriptor the way fgets with a 512-byte buffer reads a stream, in
// large blocks. Owns the descriptor.
class LineReader {
public:
    explicit LineReader(int fd) noexcept : fd_(fd) {}
    ~LineReader();
    LineReader(const LineReader &) = delete;
    LineReader &operator=(const LineReader &) = delete;
    bool ok() const noexcept { return block_.data() != nullptr; }
    // Next piece into line (NUL terminated); false at end of file.
    bool next(char (&line)[kLineBuffer]) noexcept;

private:
    bool fill() noexcept;
    int fd_;
    ReadBlock block_;
    size_t pos_ = 0, end_ = 0;
    bool eof_ = false;
};

// Splits text in place at sep into at most n fields, as xparse_string does
// (empty fields kept, the last field cut at the next separator), in one pass;
// returns the number of fields stored.
int split_fields(char *text, char sep, char **fields, int n) noexcept;

// The significant text of one piece: nullptr for a line to skip (reported when
// it lacks its newline, with `file` and `lineno` in the message); else the
// line with trailing white space removed.
char *significant_line(char (&line)[kLineBuffer], const char *file, int lineno) noexcept;

// ---- Service access control (access.cpp) -----------------------------------

// Reads pam_acl.conf into the two modes and their display words.
void read_operation_modes() noexcept;
// Mode for a word ("off", "warn", "nolog", "on", any case); -1 when none.
int lookup_mode(const char *word) noexcept;
const char *mode_display_word(int mode) noexcept;

int check_access_rules(PamRequest &request) noexcept;
int check_rule_line(PamRequest &request, char *line, int lineno) noexcept;
// One rule file already opened: 1 allow, 0 deny, 2 nothing applied.
int scan_rule_file(PamRequest &request, int fd) noexcept;
bool match_hosts(PamRequest &request, char *field) noexcept;
bool match_time(const struct tm &now, char *field) noexcept;
int get_user_groups(gid_t gid, const char *user, char *buffer, size_t size) noexcept;
int log_acl_violation(int event, int result, const char *mode_word, const PamRequest &request,
                      const SessionRule *rule) noexcept;
int log_access_allowed(const PamRequest &request) noexcept;

// ---- Login session limits (session.cpp) ------------------------------------

int parse_session_info(SessionRule &rule, char *line, int lineno, const char *file) noexcept;
int read_session_info(const char *name, in_addr_t address, SessionRule &rule) noexcept;
// The same on an open descriptor (owned); `file` names it in messages.
int scan_session_file(const char *name, in_addr_t address, SessionRule &rule, int fd,
                      const char *file) noexcept;
int count_user_sessions(const char *user, const char *tty, bool skip_console) noexcept;
int count_address_sessions(uint32_t low, uint32_t high, const char *tty) noexcept;
int check_user_session(PamRequest &request, SessionRule &rule) noexcept;
int check_group_session(PamRequest &request, SessionRule &rule) noexcept;
int check_default_session(PamRequest &request, SessionRule &rule) noexcept;
int check_ip_session(PamRequest &request, SessionRule &rule) noexcept;
int session_match(PamRequest &request, SessionRule &rule) noexcept;
int log_session_opened(const PamRequest &request) noexcept;
int log_session_closed(const PamRequest &request) noexcept;

}  // namespace mg::pam
