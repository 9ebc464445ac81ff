// Plumbing shared by the text rule stores.
#include "stores/rulestore.hpp"

#include <mossgrove/common.h>
#include <mossgrove/kernel.h>

#include <arpa/inet.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/text.hpp"
#include "stores/dbfile.hpp"

namespace mg::rules {

bool module_usable(int *state) noexcept {
    const int status = get_module_status();
    if (state != nullptr) *state = status;
    if (status == MG_STATUS_STOPPED || status == MG_STATUS_RUNNING) return true;
    set_errno(MG_ERR_NO_MODULE);
    return false;
}

int lazy_load(int (*count)(), int (*load)()) noexcept {
    if (count() != 0) return 0;
    if (load() != 0 && errno != MG_ERR_NOTHING_TO_LOAD) return -1;
    return 0;
}

bool data_path(char (&dst)[MG_PATH_MAX], const char *name) noexcept {
    if (chk_mgrootdir() != 1) return false;
    mg::stores::strip_root_slash();
    int n = snprintf(dst, sizeof dst, "%s/%s/%s", mg_root, "data", name);
    if (n < 0 || static_cast<size_t>(n) >= sizeof dst) {
        set_errno(ENAMETOOLONG);
        return false;
    }
    return true;
}

bool with_suffix(char (&dst)[MG_PATH_MAX], const char *src, const char *suffix) noexcept {
    int n = snprintf(dst, sizeof dst, "%s%s", src, suffix);
    return n >= 0 && static_cast<size_t>(n) < sizeof dst;
}

StoreText::~StoreText() {
    if (stream_ != nullptr) fclose(stream_);
    free(buf_);
}

int StoreText::open(const char *path) noexcept {
    int fd = muf_open(path, 0);
    if (fd < 0) return -1;
    const long size = mf_get_size(fd);
    int result = -1;
    if (size >= 0) {
        buf_ = static_cast<char *>(malloc(static_cast<size_t>(size) + 1));
        if (buf_ == nullptr) {
            errno = ENOMEM;
        } else {
            size_t done = 0;
            while (done < static_cast<size_t>(size)) {
                ssize_t n = read(fd, buf_ + done, static_cast<size_t>(size) - done);
                if (n < 0 && errno == EINTR) continue;
                if (n <= 0) break;  // the file shrank: what was read is the file
                done += static_cast<size_t>(n);
            }
            stream_ = fmemopen(buf_, done, "r");
            result = stream_ != nullptr ? 0 : -1;
        }
    }
    int saved = errno;
    muf_close(fd);
    errno = saved;
    return result;
}

namespace {

// Absent, or a regular file.
bool absent_or_regular(const char *path) {
    struct stat st;
    if (lstat(path, &st) == 0) return S_ISREG(st.st_mode);
    return errno == ENOENT;
}

}  // namespace

StoreRewrite::~StoreRewrite() { abandon(); }

int StoreRewrite::begin(const char *live, const char *tmp, const char *backup) noexcept {
    live_ = live;
    tmp_ = tmp;
    backup_ = backup;
    if (!absent_or_regular(tmp) || (backup != nullptr && !absent_or_regular(backup)))
        return set_errno(MG_ERR_TEMPFILE);
    fd_ = mg::stores::create_named_temp(tmp);
    if (fd_ < 0) return set_errno(MG_ERR_TEMPFILE);
    mem_ = open_memstream(&text_, &len_);
    if (mem_ == nullptr) {
        abandon();
        return set_errno(MG_ERR_TEMPFILE);
    }
    return 0;
}

int StoreRewrite::commit() noexcept {
    if (fd_ < 0) return set_errno(MG_ERR_RULE_WRITE);
    const bool laid_out = !ferror(mem_) && fclose(mem_) == 0;
    mem_ = nullptr;
    if (!laid_out || mg::stores::write_all(fd_, text_, len_) != 0) {
        abandon();
        return set_errno(MG_ERR_RULE_WRITE);
    }
    // The old file is kept as the backup first; a missing live file is no error.
    if (backup_ != nullptr) mf_copy_file(live_, backup_);
    const int fd = fd_;
    fd_ = -1;
    if (mg::stores::install_temp(fd, tmp_, live_) != 0) return set_errno(MG_ERR_RULE_WRITE);
    return 0;
}

void StoreRewrite::abandon() noexcept {
    int saved = errno;
    if (mem_ != nullptr) fclose(mem_);
    mem_ = nullptr;
    free(text_);
    text_ = nullptr;
    if (fd_ >= 0) mg::stores::abandon_rewrite(fd_, tmp_, -1);
    fd_ = -1;
    errno = saved;
}

int split_fields(char *line, char sep, char **fields, int max) noexcept {
    int n = 0;
    char *p = line;
    for (;;) {
        if (n < max) fields[n] = p;
        ++n;
        // A plain loop: fields are a few characters long, too short for strchr.
        while (*p != '\0' && *p != sep) ++p;
        if (*p == '\0') return n;
        *p++ = '\0';
    }
}

bool parse_number(const char *s, int *value) noexcept {
    if (s == nullptr || *s == '\0') return false;
    // isValidNumber and strtol in one pass; up to 18 digits cannot overflow.
    uint64_t v = 0;
    const char *p = s;
    for (; *p != '\0'; ++p) {
        if (!mg::text::is_digit(*p)) return false;
        v = v * 10 + static_cast<uint64_t>(*p - '0');
    }
    *value = p - s <= 18 ? static_cast<int>(static_cast<long>(v)) : static_cast<int>(strtol(s, nullptr, 10));
    return true;
}

uint32_t read_address(const char *text) noexcept {
    // Four decimal parts of 0 to 255 without leading zeros, which inet_addr
    // reads the same; anything else (octal, hexadecimal, fewer parts) goes to it.
    unsigned char bytes[4];
    const char *p = text;
    for (int i = 0; i < 4; ++i) {
        unsigned part = 0;
        const char *digits = p;
        while (mg::text::is_digit(*p) && p - digits < 3) part = part * 10 + static_cast<unsigned>(*p++ - '0');
        const bool plain = p > digits && part <= 255 && (p - digits == 1 || *digits != '0');
        if (!plain || *p != (i < 3 ? '.' : '\0')) return inet_addr(text);
        bytes[i] = static_cast<unsigned char>(part);
        ++p;
    }
    uint32_t addr;
    memcpy(&addr, bytes, sizeof addr);
    return addr;
}

bool copy_fit(char *dst, size_t size, const char *src) noexcept {
    const size_t len = strnlen(src, size);
    if (len >= size) return false;
    memcpy(dst, src, len + 1);
    return true;
}

// Lookups made one by one before the database is indexed. With local files
// each is a scan of the whole file, as the indexing pass is, so past two
// names the pass is the cheaper; a directory that does not enumerate still
// answers every name it alone holds through getpwnam/getgrnam.
constexpr int kDirectLookups = 2;

bool NameIndex::lookup(const char *name, uint32_t *id) const noexcept {
    if (db_ == Db::Users) {
        const struct passwd *pw = getpwnam(name);
        if (pw == nullptr) return false;
        *id = pw->pw_uid;
    } else {
        const struct group *gr = getgrnam(name);
        if (gr == nullptr) return false;
        *id = gr->gr_gid;
    }
    return true;
}

void NameIndex::build() noexcept {
    built_ = true;
    size_t cap = 0;
    auto add = [&](const char *name, uint32_t id) {
        if (strlen(name) >= sizeof(Entry::name)) return;  // no rule can name it
        if (count_ == cap) {
            size_t grown = cap == 0 ? 1024 : cap * 2;
            auto *p = static_cast<Entry *>(realloc(entries_, grown * sizeof(Entry)));
            if (p == nullptr) return;
            entries_ = p;
            cap = grown;
        }
        Entry &e = entries_[count_++];
        memset(e.name, 0, sizeof e.name);
        memcpy(e.name, name, strlen(name));
        e.id = id;
    };
    if (db_ == Db::Users) {
        setpwent();
        while (const struct passwd *pw = getpwent()) add(pw->pw_name, pw->pw_uid);
        endpwent();
    } else {
        setgrent();
        while (const struct group *gr = getgrent()) add(gr->gr_name, gr->gr_gid);
        endgrent();
    }
    // The first entry of a name in database order wins, as with getpwnam.
    std::stable_sort(entries_, entries_ + count_,
                     [](const Entry &a, const Entry &b) { return strcmp(a.name, b.name) < 0; });
}

bool NameIndex::find(const char *name, uint32_t *id) noexcept {
    if (++lookups_ > kDirectLookups && !built_) build();
    if (built_ && count_ > 0) {
        const Entry *begin = entries_;
        const Entry *end = entries_ + count_;
        const Entry *at = std::lower_bound(begin, end, name,
                                           [](const Entry &e, const char *n) { return strcmp(e.name, n) < 0; });
        if (at != end && strcmp(at->name, name) == 0) {
            *id = at->id;
            return true;
        }
    }
    return lookup(name, id);
}

void resolve_rule_ids(rulentry *entries, int count, NameIndex &users, NameIndex &groups) noexcept {
    for (int i = 0; i < count; ++i) {
        rulentry &e = entries[i];
        char name[sizeof e.name + 1] = {};
        memcpy(name, e.name, sizeof e.name);
        uint32_t id;
        if (e.type & MG_RULE_USER) e.id = users.find(name, &id) ? id : UINT32_MAX;
        if (e.type & MG_RULE_GROUP) e.id = groups.find(name, &id) ? id : UINT32_MAX;
    }
}

char *next_significant_line(char *buf, int size, FILE *stream) noexcept {
    if (buf == nullptr || stream == nullptr || size < 2) return nullptr;
    // RemoveTailCRLF and TrimWhiteSpace in one pass over the line.
    while (fgets(buf, size, stream) != nullptr) {
        size_t end = strlen(buf), start = 0;
        while (end > 0 && mg::text::is_space(buf[end - 1])) --end;
        while (start < end && mg::text::is_space(buf[start])) ++start;
        if (start == end || buf[start] == '#') continue;
        if (start > 0) memmove(buf, buf + start, end - start);
        buf[end - start] = '\0';
        return buf;
    }
    return nullptr;
}

}  // namespace mg::rules
