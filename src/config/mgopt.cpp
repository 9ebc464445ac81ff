// The option file "<root>/conf/mgopt.conf": read into one MGOptionBuf, check a
// record, write a record back through a temporary file.
//
// Every key is described once in kFields; the reader, the checker and the
// writer walk that table in file order.
#include <mossgrove/common.h>
#include <mossgrove/config.h>
#include <mossgrove/kernel.h>

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/fileio.hpp"

namespace {

enum class Kind {
    Path,     // absolute directory, one trailing '/' removed
    Text,     // free text of bounded length
    Number,   // decimal digits within [lo, hi]
    Flag,     // 'Y' or 'N', read lopsidedly towards the default
    Pending,  // 'Y', 'N', or 'X' when the kernel module cannot suspend
};

struct Field {
    const char *key;
    Kind kind;
    size_t offset;
    size_t size;         // buffer size of Path and Text fields
    bool required;       // a missing or unusable value fails the read
    bool group_start;    // a blank line precedes the key in the written file
    char flag_default;   // Flag and Pending
    int32_t lo, hi, number_default;
};

#define MG_TEXT(name, kind, req, group) \
    {#name, kind, offsetof(MGOptionBuf, name), sizeof(MGOptionBuf::name), req, group, 0, 0, 0, 0}
#define MG_NUMBER(name, req, group, lo, hi, def) \
    {#name, Kind::Number, offsetof(MGOptionBuf, name), 0, req, group, 0, lo, hi, def}
#define MG_FLAG(name, kind, group, def) \
    {#name, kind, offsetof(MGOptionBuf, name), 0, false, group, def, 0, 0, 0}

constexpr Field kFields[] = {
    MG_TEXT(SecureLogDir, Kind::Path, true, false),
    MG_TEXT(SecureLogBakDir, Kind::Path, false, false),
    MG_NUMBER(SecureLogSize, true, false, 1, 100, 0),
    MG_NUMBER(SecureLogFileCount, true, false, 1, 10, 0),
    MG_FLAG(AuditTrailAlert, Kind::Flag, true, 'Y'),
    MG_FLAG(ModulePending, Kind::Pending, false, 'X'),
    MG_FLAG(PV_Enable, Kind::Flag, true, 'Y'),
    MG_NUMBER(PV_Time, false, false, 10, INT32_MAX, 60),
    MG_NUMBER(PV_Count, false, false, 2, 20, 5),
    MG_FLAG(PV_ProcessKill, Kind::Flag, false, 'Y'),
    MG_FLAG(MailEnable, Kind::Flag, true, 'Y'),
    MG_TEXT(MailServer, Kind::Text, false, false),
    MG_TEXT(MailAddress, Kind::Text, false, false),
    MG_FLAG(ClearAllLog, Kind::Flag, true, 'N'),
    MG_NUMBER(CurrentFileRate, false, false, 1, 100, 100),
    MG_FLAG(BackupAndClear, Kind::Flag, false, 'Y'),
    MG_FLAG(SmsEnable, Kind::Flag, true, 'N'),
    MG_TEXT(SmsServer, Kind::Text, false, false),
    MG_TEXT(SmsTel, Kind::Text, false, false),
};

#undef MG_TEXT
#undef MG_NUMBER
#undef MG_FLAG

char *text_of(MGOptionBuf *opt, const Field &f) { return reinterpret_cast<char *>(opt) + f.offset; }
const char *text_of(const MGOptionBuf *opt, const Field &f) {
    return reinterpret_cast<const char *>(opt) + f.offset;
}
int32_t *number_of(MGOptionBuf *opt, const Field &f) {
    return reinterpret_cast<int32_t *>(text_of(opt, f));
}
int32_t number_of(const MGOptionBuf *opt, const Field &f) {
    int32_t v;
    memcpy(&v, text_of(opt, f), sizeof v);
    return v;
}

// All digits and within [lo, hi]; a value too long for 32 bits is out of range.
bool parse_number(const char *value, int32_t lo, int32_t hi, int32_t *out) {
    if (!isValidNumber(value)) return false;
    while (*value == '0' && value[1] != '\0') ++value;
    if (strlen(value) > 10) return false;
    long long v = strtoll(value, nullptr, 10);
    if (v < lo || v > hi) return false;
    *out = static_cast<int32_t>(v);
    return true;
}

void strip_one_slash(char *s) {
    size_t n = strlen(s);
    if (n > 0 && s[n - 1] == '/') s[n - 1] = '\0';
}

// The configuration reader's table is process-wide; close it on every path.
struct ConfGuard {
    ~ConfGuard() { close_conf(); }
};

// Reads one key into the record. False when a required value is unusable.
bool read_field(const Field &f, MGOptionBuf *opt) {
    char value[1024];
    bool present = get_conf(f.key, value) == 1;
    switch (f.kind) {
    case Kind::Path:
        // An empty value counts as absent: the writer puts "key<tab>" for an
        // empty optional directory, and that file must read back.
        if (!present || value[0] == '\0') return !f.required;
        strip_one_slash(value);
        if (value[0] != '/') return false;
        snprintf(text_of(opt, f), f.size, "%s", value);
        return true;
    case Kind::Text:
        snprintf(text_of(opt, f), f.size, "%s", value);
        return true;
    case Kind::Number:
        if (present && parse_number(value, f.lo, f.hi, number_of(opt, f))) return true;
        *number_of(opt, f) = f.number_default;
        return !f.required;
    case Kind::Flag:
        // Only the value opposite to the default, in any case, moves the flag.
        if (f.flag_default == 'Y')
            *text_of(opt, f) = strcasecmp(value, "N") == 0 ? 'N' : 'Y';
        else
            *text_of(opt, f) = strcasecmp(value, "Y") == 0 ? 'Y' : 'N';
        return true;
    case Kind::Pending:
        *text_of(opt, f) = strcasecmp(value, "Y") == 0   ? 'Y'
                           : strcasecmp(value, "N") == 0 ? 'N'
                                                         : 'X';
        // Only a loaded module of a suspending version supports the setting.
        if (CheckModuleType() != 0) *text_of(opt, f) = 'X';
        return true;
    }
    return false;
}

// A text value the reader gives back unchanged: terminated within its buffer,
// and free of the characters that end a value (white space, '=', '#').
bool storable_text(const char *s, size_t size) {
    size_t n = strnlen(s, size);
    if (n == size) return false;
    for (size_t i = 0; i < n; ++i) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        if (isspace(c) || c == '=' || c == '#') return false;
    }
    return true;
}

bool field_ok(const Field &f, const MGOptionBuf *opt) {
    const char *text = text_of(opt, f);
    switch (f.kind) {
    case Kind::Path:
        if (!storable_text(text, f.size)) return false;
        return f.required ? text[0] == '/' : (text[0] == '\0' || text[0] == '/');
    case Kind::Text:
        return storable_text(text, f.size);
    case Kind::Number: {
        int32_t v = number_of(opt, f);
        return v >= f.lo && v <= f.hi;
    }
    case Kind::Flag:
        return *text == 'Y' || *text == 'N';
    case Kind::Pending:
        return *text == 'Y' || *text == 'N' || *text == 'X';
    }
    return false;
}

// Appends formatted text to a fixed buffer; false once it no longer fits.
struct Layout {
    char buf[4096];
    size_t len = 0;
    bool ok = true;

    __attribute__((format(printf, 2, 3))) void add(const char *fmt, ...) {
        if (!ok) return;
        va_list ap;
        va_start(ap, fmt);
        int n = vsnprintf(buf + len, sizeof buf - len, fmt, ap);
        va_end(ap);
        if (n < 0 || static_cast<size_t>(n) >= sizeof buf - len)
            ok = false;
        else
            len += static_cast<size_t>(n);
    }
};

void lay_out(const MGOptionBuf *opt, Layout &out) {
    for (const Field &f : kFields) {
        const char *blank = f.group_start ? "\n" : "";
        switch (f.kind) {
        case Kind::Path:
        case Kind::Text:
            out.add("%s%s\t%s\n", blank, f.key, text_of(opt, f));
            break;
        case Kind::Number:
            out.add("%s%s\t%d\n", blank, f.key, number_of(opt, f));
            break;
        case Kind::Flag:
        case Kind::Pending:
            out.add("%s%s\t%c\n", blank, f.key, *text_of(opt, f));
            break;
        }
    }
}

// Writes the text to tmp and renames it over path; tmp is gone on failure.
bool replace_file(const char *path, const char *tmp, const char *data, size_t len) {
    int fd = open(tmp, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    if (mg::fileio::write_all(fd, data, len) != 0) {
        mg::fileio::discard_temp(fd, tmp);
        return false;
    }
    return mg::fileio::install_temp(fd, tmp, path) == 0;
}

}  // namespace

extern "C" {

int ReadMGOptionConfig(const char *path, MGOptionBuf *opt) noexcept {
    if (path == nullptr || opt == nullptr) return -1;
    if (read_conf(path) != 1) return -1;
    ConfGuard guard;
    memset(opt, 0, sizeof *opt);
    for (const Field &f : kFields)
        if (!read_field(f, opt)) return -1;
    return 0;
}

int CheckMGOptionConfig(const MGOptionBuf *opt) noexcept {
    if (opt == nullptr) return -1;
    for (const Field &f : kFields)
        if (!field_ok(f, opt)) return -1;
    if (opt->MailEnable == 'Y' && (opt->MailServer[0] == '\0' || opt->MailAddress[0] == '\0'))
        return -1;
    if (opt->SmsEnable == 'Y' && (opt->SmsServer[0] == '\0' || opt->SmsTel[0] == '\0')) return -1;
    return 0;
}

int WriteMGOptionConfig(const char *path, const MGOptionBuf *opt) noexcept {
    if (path == nullptr || opt == nullptr || CheckMGOptionConfig(opt) != 0) return -1;

    char tmp[PATH_MAX];
    int n = snprintf(tmp, sizeof tmp, "%s.tmp", path);
    if (n < 0 || static_cast<size_t>(n) >= sizeof tmp) return -1;
    // A directory, link or device under the temporary name is never written through.
    struct stat st;
    if (lstat(tmp, &st) == 0 ? !S_ISREG(st.st_mode) : errno != ENOENT) return -1;

    Layout text;
    lay_out(opt, text);
    if (!text.ok) return -1;
    return replace_file(path, tmp, text.buf, text.len) ? 0 : -1;
}

}  // extern "C"
