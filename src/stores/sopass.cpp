// Security password store "<root>/etc/mgpasswd": 76-byte entries keyed by user
// name. The store is replaced by copying a temporary file over it in place
// (the previous generation saved as "mgpasswd.old" first), never by rename;
// tools guard a whole edit with the lock file ".mgpwd.lock".
#include <mossgrove/common.h>
#include <mossgrove/sopass.h>
#include <mossgrove/stores.h>
#include "stores/dbfile.hpp"
#include "stores/records.hpp"
#include "stores/sopass.hpp"
#include "common/handles.hpp"

#include <crypt.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr size_t kEntry = sizeof(MGSecPasswd);
constexpr size_t kHashLen = sizeof(MGSecPasswd::hash);
constexpr size_t kPwMax = 15;      // characters kept of a typed password
constexpr size_t kPhraseMax = 256; // characters kept of a typed line
constexpr int kDefaultRetry = 5;

char g_szPwPath[MG_PATH_MAX];
char g_szPwTmpPath[MG_PATH_MAX];
char g_szPwOldPath[MG_PATH_MAX];
char g_szPwLockPath[MG_PATH_MAX];

// Enumeration state.
int g_fd = -1;
MGSecPasswd *g_entries = nullptr;
size_t g_count = 0;
size_t g_next = 0;
MGSecPasswd g_entry;

bool same_name(const MGSecPasswd &e, const char *name) noexcept {
    return strncmp(e.name, name, sizeof e.name) == 0;
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-truncation"
#endif
bool build(char (&dst)[MG_PATH_MAX], const char *file) noexcept {
    int n = snprintf(dst, sizeof dst, "%s/%s/%s", mg_root, "etc", file);
    return n >= 0 && static_cast<size_t>(n) < sizeof dst;
}
bool build_tmp() noexcept {
    int n = snprintf(g_szPwTmpPath, sizeof g_szPwTmpPath, "%s/%s/%s.%d%s", mg_root, "etc", "mgptmp",
                     static_cast<int>(time(nullptr)), "XXXXXX");
    return n >= 0 && static_cast<size_t>(n) < sizeof g_szPwTmpPath;
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

// Copies the entry of name into out: 1, or -1 (ENOENT for an unknown name,
// else the store's error).
int find_entry(const char *name, MGSecPasswd &out) noexcept {
    if (name == nullptr) return set_errno(EINVAL);
    if (setmgpwdent() != 1) return -1;
    const MGSecPasswd *found = nullptr;
    for (size_t i = 0; i < g_count && found == nullptr; ++i)
        if (same_name(g_entries[i], name)) found = &g_entries[i];
    if (found != nullptr) out = *found;
    endmgpwdent();
    return found != nullptr ? 1 : set_errno(ENOENT);
}

// The rewrite shared by add, delete and update: every loaded entry goes
// through keep (which returns the entry to write, or nullptr to drop it), then
// the optional extra entry is appended.
template <class Keep>
int rewrite(bool first_allowed, Keep keep, const MGSecPasswd *extra) noexcept {
    if (setmgpwdent() != 1) {
        int err = errno;
        endmgpwdent();
        if (!(first_allowed && err == ENOENT)) return set_errno(err);
        if (set_pwpath() != 1) return -1;
    }
    char tmp[MG_PATH_MAX];
    memcpy(tmp, g_szPwTmpPath, sizeof tmp);
    int fd = mkstemp(tmp);
    if (fd < 0) {
        endmgpwdent();
        return -1;
    }
    bool ok = true;
    for (size_t i = 0; i < g_count; ++i) {
        const MGSecPasswd *e = keep(g_entries[i]);
        if (e != nullptr && putmgpwdent(e, fd) < 1) ok = false;
    }
    if (extra != nullptr && putmgpwdent(extra, fd) < 1) ok = false;
    endmgpwdent();

    if (ok) {
        // The previous generation must be safe before the store is overwritten
        // in place: a store that exists and cannot be saved is not touched.
        bool saved = mf_copy_file(g_szPwPath, g_szPwOldPath) == 1 || access(g_szPwPath, F_OK) != 0;
        if (!saved || mf_copy_file(tmp, g_szPwPath) != 1) {
            int err = errno;
            close(fd);
            unlink(tmp);
            return set_errno(err);
        }
    }
    mf_close_file(fd);
    unlink(tmp);
    return ok ? 1 : 0;
}

int update_field(const char *name, void (*change)(MGSecPasswd &, int), int value, bool (*already)(const MGSecPasswd &)) noexcept {
    MGSecPasswd e;
    if (find_entry(name, e) != 1) return -1;
    if (already != nullptr && already(e)) return 1;
    change(e, value);
    return update_mgpwdent(&e);
}

}  // namespace

// ---- Paths and enumeration ---------------------------------------------------------

int chk_evmg(void) noexcept { return chk_mgrootdir(); }

int set_pwpath(void) noexcept {
    g_szPwPath[0] = g_szPwTmpPath[0] = g_szPwOldPath[0] = g_szPwLockPath[0] = '\0';
    if (chk_evmg() != 1) return -1;
    if (!build(g_szPwPath, "mgpasswd") || !build_tmp() || !build(g_szPwOldPath, "mgpasswd.old") ||
        !build(g_szPwLockPath, ".mgpwd.lock"))
        return set_errno(ENAMETOOLONG);
    return 1;
}

int malloc_mgpwd(int count) noexcept {
    free_mgpwd();
    size_t n = count > 0 ? static_cast<size_t>(count) : 0;
    g_entries = static_cast<MGSecPasswd *>(calloc(std::max<size_t>(n, 1), kEntry));
    if (g_entries == nullptr) return set_errno(ENOMEM);
    g_count = n;
    return 1;
}

void free_mgpwd(void) noexcept {
    free(g_entries);
    g_entries = nullptr;
    g_count = g_next = 0;
}

int setmgpwdent(void) noexcept {
    if (set_pwpath() != 1) return -1;
    endmgpwdent();
    int fd = muf_open(g_szPwPath, 0);
    if (fd < 0) return -1;
    g_fd = fd;
    long size = mf_get_size(fd);
    if (size < static_cast<long>(kEntry) || size % static_cast<long>(kEntry) != 0) {
        endmgpwdent();
        return set_errno(MG_ERR_PW_STORE);
    }
    if (malloc_mgpwd(static_cast<int>(size / static_cast<long>(kEntry))) != 1) {
        endmgpwdent();
        return set_errno(ENOMEM);
    }
    if (mg::fileio::read_all(fd, g_entries, static_cast<size_t>(size)) != 0) {
        endmgpwdent();
        return set_errno(MG_ERR_PW_STORE);
    }
    return 1;
}

MGSecPasswd *getmgpwdent(void) noexcept {
    if (g_entries == nullptr || g_next >= g_count) return nullptr;
    return &g_entries[g_next++];
}

void endmgpwdent(void) noexcept {
    int saved = errno;
    if (g_fd >= 0) muf_close(g_fd);
    g_fd = -1;
    free_mgpwd();
    errno = saved;
}

MGSecPasswd *getmgpwdnam(const char *name) noexcept {
    return find_entry(name, g_entry) == 1 ? &g_entry : nullptr;
}

int putmgpwdent(const MGSecPasswd *entry, int fd) noexcept {
    if (entry == nullptr) return set_errno(EINVAL);
    return static_cast<int>(write(fd, entry, kEntry));
}

// ---- Rewrites --------------------------------------------------------------------------

// Adding does not look for an entry of the same name.
int add_mgpwdent(const MGSecPasswd *entry) noexcept {
    if (entry == nullptr) return set_errno(EINVAL);
    MGSecPasswd copy = *entry;
    return rewrite(true, [](const MGSecPasswd &e) { return &e; }, &copy);
}

int del_mgpwdent(const char *name) noexcept {
    if (name == nullptr) return set_errno(EINVAL);
    return rewrite(false, [name](const MGSecPasswd &e) { return same_name(e, name) ? nullptr : &e; }, nullptr);
}

int update_mgpwdent(const MGSecPasswd *entry) noexcept {
    if (entry == nullptr) return set_errno(EINVAL);
    MGSecPasswd copy = *entry;
    return rewrite(false, [&copy](const MGSecPasswd &e) { return same_name(e, copy.name) ? &copy : &e; }, nullptr);
}

int mg::stores::del_mgpwdents(const char *const *names, size_t n) noexcept {
    if (n == 0) return 1;
    mg::stores::MallocPtr sorted(malloc(n * sizeof(const char *)));
    if (sorted.p == nullptr) return set_errno(ENOMEM);
    const char **keys = sorted.as<const char *>();
    std::copy(names, names + n, keys);
    auto less = [](const char *a, const char *b) { return strncmp(a, b, sizeof MGSecPasswd::name) < 0; };
    std::sort(keys, keys + n, less);
    return rewrite(false, [&](const MGSecPasswd &e) {
        char key[sizeof e.name + 1] = {};
        memcpy(key, e.name, sizeof e.name);
        return std::binary_search(keys, keys + n, static_cast<const char *>(key), less) ? nullptr : &e;
    }, nullptr);
}

int lock_mgpwdnam(const char *name) noexcept {
    return update_field(name, [](MGSecPasswd &e, int) { e.flags |= MG_PW_LOCKED; }, 0,
                        [](const MGSecPasswd &e) { return (e.flags & MG_PW_LOCKED) != 0; });
}

int unlock_mgpwdnam(const char *name) noexcept {
    return update_field(name, [](MGSecPasswd &e, int) { e.flags &= static_cast<unsigned char>(~MG_PW_LOCKED); }, 0,
                        [](const MGSecPasswd &e) { return (e.flags & MG_PW_LOCKED) == 0; });
}

int is_locked_mgpwd(const char *name) noexcept {
    MGSecPasswd e;
    if (find_entry(name, e) != 1) return -1;
    return (e.flags & MG_PW_LOCKED) != 0 ? 1 : 0;
}

int get_login_retry(const char *name) noexcept {
    MGSecPasswd e;
    if (find_entry(name, e) != 1) return -1;
    return e.retry >= 1 && e.retry <= 99 ? e.retry : kDefaultRetry;
}

// The limit is stored as given: no range check.
int set_login_retry(const char *name, int limit) noexcept {
    return update_field(name, [](MGSecPasswd &e, int v) { e.retry = static_cast<signed char>(v); }, limit, nullptr);
}

int init_secpwnam(const char *name) noexcept {
    return update_field(name, [](MGSecPasswd &e, int) {
        e.flags = MG_PW_IN_USE;
        memset(e.hash, 0, sizeof e.hash);
    }, 0, nullptr);
}

// ---- Lock file ---------------------------------------------------------------------

namespace {

bool retryable(int err) noexcept { return err == EAGAIN || err == EACCES; }

void pause_briefly() noexcept {
    struct timespec ts = {0, 100 * 1000 * 1000};
    nanosleep(&ts, nullptr);
}

}  // namespace

int lckmgpwdf(void) noexcept {
    if (set_pwpath() != 1) return -1;
    int failures = 0;
    int fd;
    while ((fd = open(g_szPwLockPath, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 02600)) < 0) {
        if (!retryable(errno) || ++failures >= 3) return -1;
        pause_briefly();
    }
    // The mode is set explicitly, whatever the umask.
    if (fchmod(fd, 02600) != 0 || lseek(fd, 0, SEEK_SET) < 0) {
        int err = errno;
        close(fd);
        return set_errno(err);
    }
    while (lockf(fd, F_TLOCK, 1) != 0) {
        int err = errno;
        if (!retryable(err) || ++failures >= 3) {
            close(fd);
            return set_errno(err);
        }
        pause_briefly();
    }
    return fd;
}

int ulckmgpwdf(int fd) noexcept {
    while (close(fd) != 0 && errno == EINTR) {
    }
    unlink(g_szPwLockPath);
    return 1;
}

int remove_tmp(const char *path) noexcept {
    if (path == nullptr) return set_errno(EINVAL);
    return unlink(path) == 0 ? 1 : -1;
}

// ---- Terminal input ----------------------------------------------------------------

namespace {

// The terminal switched to no echo with SIGINT and SIGTSTP blocked; both are
// restored on destruction, on every path.
class QuietTerminal {
public:
    explicit QuietTerminal(FILE *tty) noexcept : tty_(tty) {
        sigset_t block;
        sigemptyset(&block);
        sigaddset(&block, SIGINT);
        sigaddset(&block, SIGTSTP);
        masked_ = sigprocmask(SIG_BLOCK, &block, &old_mask_) == 0;
        int fd = fileno(tty_);
        if (tcgetattr(fd, &saved_) != 0) return;
        struct termios quiet = saved_;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHOE | ECHOK | ECHONL);
        if (tcsetattr(fd, TCSAFLUSH, &quiet) != 0) return;
        ok_ = true;
    }
    ~QuietTerminal() {
        if (ok_) tcsetattr(fileno(tty_), TCSAFLUSH, &saved_);
        if (masked_) sigprocmask(SIG_SETMASK, &old_mask_, nullptr);
    }
    QuietTerminal(const QuietTerminal &) = delete;
    QuietTerminal &operator=(const QuietTerminal &) = delete;
    bool ok() const noexcept { return ok_; }

private:
    FILE *tty_;
    struct termios saved_ {};
    sigset_t old_mask_ {};
    bool masked_ = false;
    bool ok_ = false;
};

// Copies at most kPwMax characters of a typed line into dst (kPwMax + 1 bytes)
// and wipes the line.
bool read_password(const char *prompt, char *dst) noexcept {
    char *line = get_mgpass_phrase(prompt);
    if (line == nullptr) return false;
    size_t n = strnlen(line, kPwMax);
    memcpy(dst, line, n);
    dst[n] = '\0';
    explicit_bzero(line, kPhraseMax + 1);
    return true;
}

}  // namespace

char *get_mgpass_phrase(const char *prompt) noexcept {
    static char line[kPhraseMax + 1];
    char name[L_ctermid];
    if (ctermid(name) == nullptr || name[0] == '\0') return nullptr;
    mg::UniqueFile tty(fopen(name, "r+e"));
    if (!tty) return nullptr;
    setvbuf(tty.get(), nullptr, _IONBF, 0);
    QuietTerminal quiet(tty.get());
    if (!quiet.ok()) return nullptr;
    if (prompt != nullptr) fputs(prompt, tty.get());
    size_t n = 0;
    for (int c; (c = getc(tty.get())) != EOF && c != '\n';)
        if (n < kPhraseMax) line[n++] = static_cast<char>(c);
    line[n] = '\0';
    fputc('\n', tty.get());
    return line;
}

int input_oldpw(char *buffer) noexcept {
    if (buffer == nullptr) return set_errno(EINVAL), 0;
    return read_password("Enter Security Passwd : ", buffer) ? 1 : 0;
}

// Passwords longer than 15 characters are cut silently, deliberately.
int input_newpw(char *buffer) noexcept {
    if (buffer == nullptr) return set_errno(EINVAL), 0;
    char first[kPwMax + 1], second[kPwMax + 1];
    if (!read_password("Enter New Security Passwd : ", first) ||
        !read_password("Re-enter New Security Passwd : ", second))
        return 0;
    int result = 1;
    if (strlen(first) < 8)
        result = set_errno(MG_ERR_PW_SHORT);
    else if (strncmp(first, second, kPwMax) != 0)
        result = set_errno(MG_ERR_PW_MISMATCH);
    else
        memcpy(buffer, first, sizeof first);
    explicit_bzero(first, sizeof first);
    explicit_bzero(second, sizeof second);
    return result;
}

// ---- Checks ------------------------------------------------------------------------------

// The stored hash is its own salt, so any form crypt accepts works.
int cmp_sopass(const char *hash, const char *typed) noexcept {
    if (hash == nullptr || typed == nullptr || hash[0] == '\0' || typed[0] == '\0')
        return set_errno(MG_ERR_PW_NOTHING);
    char stored[kHashLen + 1] = {};
    memcpy(stored, hash, strnlen(hash, kHashLen));
    const char *made = crypt(typed, stored);
    if (made == nullptr || made[0] == '*') return set_errno(MG_ERR_PW_CRYPT);
    return strncmp(made, stored, kHashLen) == 0 ? 1 : 0;
}

int filter_password(const char *text) noexcept {
    if (text == nullptr) return 0;
    bool alpha = false, digit = false, punct = false;
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(text); *p != '\0'; ++p) {
        if (isalpha(*p)) alpha = true;
        else if (isdigit(*p)) digit = true;
        else if (ispunct(*p)) punct = true;
        else return 0;
    }
    return alpha && digit && punct ? 1 : 0;
}

char ran_char(void) noexcept {
    int c;
    do c = rand() % 127;
    while (!isalpha(c) && !isdigit(c));
    return static_cast<char>(c);
}
