// Plumbing shared by the text rule stores: the module state check, the lazy
// load of an empty kernel table, reading a store file once, replacing a store
// through its temporary file with a backup, field splitting and numbers, and
// name look-ups that stay cheap over thousands of rule entries.
#pragma once

#include <mossgrove/common.h>
#include <mossgrove/rules.h>
#include <mossgrove/stores.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

namespace mg::rules {

// The kernel module is loaded and running or stopped; otherwise errno 10101.
// The state read goes to *status when given.
bool module_usable(int *status = nullptr) noexcept;

// When the kernel table is empty, fills it from its store; a store that does
// not exist (10072) is an empty table. 0, or -1 with the load's code.
int lazy_load(int (*count)(), int (*load)()) noexcept;

// Every header of a kernel table (filled from its store first when empty),
// in a calloc'ed array the caller frees: 0 (with *count 0 and no array for an
// empty table), or -1 with errno.
template <class Hdr>
int read_all_headers(Hdr **hdrs, int *count, int (*lazy)(), int (*kernel_count)(),
                     int (*kernel_read)(void *, int)) noexcept {
    if (hdrs == nullptr || count == nullptr) return set_errno(EINVAL);
    *hdrs = nullptr;
    *count = 0;
    if (!module_usable() || lazy() != 0) return -1;
    const int n = kernel_count();
    if (n <= 0) return n < 0 ? -1 : 0;
    auto *buf = static_cast<Hdr *>(calloc(static_cast<size_t>(n), sizeof(Hdr)));
    if (buf == nullptr) return set_errno(ENOMEM);
    if (kernel_read(buf, n) < 0) {
        int saved = errno;
        free(buf);
        return set_errno(saved);
    }
    *hdrs = buf;
    *count = n;
    return 0;
}

// Confirms the installation root (one trailing "/" removed from mg_root) and
// builds "<root>/data/<name>"; false with errno set when it cannot.
bool data_path(char (&dst)[MG_PATH_MAX], const char *name) noexcept;
// dst = src + suffix; false when it does not fit.
bool with_suffix(char (&dst)[MG_PATH_MAX], const char *src, const char *suffix) noexcept;

// The whole of a store file, read once under the store's read lock and
// offered as a stream.
class StoreText {
public:
    StoreText() noexcept = default;
    ~StoreText();
    StoreText(const StoreText &) = delete;
    StoreText &operator=(const StoreText &) = delete;
    // 0, or -1 with errno (ENOENT when the file does not exist).
    int open(const char *path) noexcept;
    FILE *stream() const noexcept { return stream_; }

private:
    char *buf_ = nullptr;
    FILE *stream_ = nullptr;
};

// Replacement of a text store: the temporary file is claimed first, the new
// text is laid out in memory through stream(), and commit() writes it with one
// write, copies the live file to the backup (when there is one) and renames
// the temporary file over the live file.
class StoreRewrite {
public:
    StoreRewrite() noexcept = default;
    ~StoreRewrite();
    StoreRewrite(const StoreRewrite &) = delete;
    StoreRewrite &operator=(const StoreRewrite &) = delete;
    // Both names must be absent or regular files; 0, or -1 with errno 10017
    // (also when the temporary file cannot be created or memory runs out).
    int begin(const char *live, const char *tmp, const char *backup) noexcept;
    FILE *stream() const noexcept { return mem_; }
    // 0, or -1 with errno 10080; the temporary file is gone on failure.
    int commit() noexcept;
    // Gives up: the temporary file is removed (errno is kept).
    void abandon() noexcept;

private:
    const char *live_ = nullptr;
    const char *tmp_ = nullptr;
    const char *backup_ = nullptr;
    int fd_ = -1;
    FILE *mem_ = nullptr;
    char *text_ = nullptr;
    size_t len_ = 0;
};

// Splits line at every sep (the separators become NUL); fields receives at
// most max fields. Returns the number of fields the line holds.
int split_fields(char *line, char sep, char **fields, int max) noexcept;

// A field that isValidNumber accepts, as an int (cut as atoi cuts).
bool parse_number(const char *s, int *value) noexcept;

// inet_addr (text), the address in network byte order or all ones.
uint32_t read_address(const char *text) noexcept;

// Copies at most size - 1 characters; false when src is longer.
bool copy_fit(char *dst, size_t size, const char *src) noexcept;

// Name -> id look-ups of the account or group database for a whole load. The
// first few go to getpwnam/getgrnam one by one; after that the database is
// enumerated once into a sorted index, and a name it lacks (a directory that
// does not enumerate) still goes to getpwnam/getgrnam.
class NameIndex {
public:
    enum class Db { Users, Groups };
    explicit NameIndex(Db db) noexcept : db_(db) {}
    ~NameIndex() { free(entries_); }
    NameIndex(const NameIndex &) = delete;
    NameIndex &operator=(const NameIndex &) = delete;
    // The id of the name, or false when the database has no such name.
    bool find(const char *name, uint32_t *id) noexcept;

    struct Entry {
        char name[32];
        uint32_t id;
    };

private:
    bool lookup(const char *name, uint32_t *id) const noexcept;
    void build() noexcept;

    Db db_;
    int lookups_ = 0;
    bool built_ = false;
    Entry *entries_ = nullptr;
    size_t count_ = 0;
};

// set_rulentry_uid and set_rulentry_gid through indexes kept by the caller.
void resolve_rule_ids(rulentry *entries, int count, NameIndex &users, NameIndex &groups) noexcept;

// The significant-line reader shared by every text store.
char *next_significant_line(char *buf, int size, FILE *stream) noexcept;

}  // namespace mg::rules
