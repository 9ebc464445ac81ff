// Restricted commands: up to 50 fixed 64-byte records in "<root>/data/cmd_file"
// (backup ".cmd_file_bak"), records of priority 1 ahead of the others. Every
// change rewrites the file through a temporary file and uploads the whole new
// list to the kernel before it takes the store's name.
#include <mossgrove/common.h>
#include <mossgrove/kernel.h>
#include <mossgrove/rules.h>
#include <mossgrove/stores.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "stores/dbfile.hpp"

namespace {

constexpr size_t kRecord = sizeof(cmdent);
constexpr long kMaxBytes = MG_CMD_MAX * static_cast<long>(kRecord);

char g_szCmdPath[MG_PATH_MAX];
char g_szCmdBakPath[MG_PATH_MAX];

// The open enumeration.
struct Enumeration {
    int fd = -1;
    char *buf = nullptr;
    long size = 0;
    int count = 0;
};
Enumeration g_enum;
cmdent_list g_result;

bool same_command(const cmdent &a, const char *command) {
    return strncmp(a.command, command, sizeof a.command) == 0;
}

// Opens the store under its read lock; a missing store is restored from the
// backup first when restore is set.
int open_store(bool restore) {
    int fd = muf_open(g_szCmdPath, 0);
    if (fd < 0 && errno == ENOENT && restore && access(g_szCmdBakPath, F_OK) >= 0 &&
        mf_copy_file(g_szCmdBakPath, g_szCmdPath) == 1)
        fd = muf_open(g_szCmdPath, 0);
    return fd;
}

// Reads the whole store into the enumeration; false with errno set.
bool fill_enumeration() {
    if (g_enum.fd < 0) {
        g_enum.fd = open_store(true);
        if (g_enum.fd < 0) return false;
        const long size = mf_get_size(g_enum.fd);
        if (size < static_cast<long>(kRecord)) {
            endcmdent();
            set_errno(MG_ERR_CMD_EMPTY);
            return false;
        }
        g_enum.buf = static_cast<char *>(malloc(static_cast<size_t>(size) + 1));
        if (g_enum.buf == nullptr) {
            set_errno(MG_ERR_CMD_NOMEM);
            return false;
        }
        ssize_t got = read(g_enum.fd, g_enum.buf, static_cast<size_t>(size));
        g_enum.size = got > 0 ? got : 0;
        g_enum.count = static_cast<int>(g_enum.size / static_cast<long>(kRecord));
    }
    if (g_enum.count == 0) {
        endcmdent();
        set_errno(MG_ERR_CMD_EMPTY);
        return false;
    }
    return true;
}

// The records of the live store, read whole; a missing store is an empty list.
struct Records {
    cmdent items[MG_CMD_MAX + 1];
    int count = 0;
};

// A change of the store: what the new list is, given the old one.
enum class Change { Add, Delete, DeleteAll, Modify };

// Inserts by the priority rule: a record of priority 1 goes before the first
// record of priority 0, anything else at the end.
void insert(Records &r, const cmdent &rec) {
    int at = r.count;
    if (rec.priority == 1) {
        for (int i = 0; i < r.count; ++i) {
            if (r.items[i].priority == 0) {
                at = i;
                break;
            }
        }
    }
    memmove(r.items + at + 1, r.items + at, static_cast<size_t>(r.count - at) * kRecord);
    r.items[at] = rec;
    ++r.count;
}

// Drops every record of the command; false when none matched.
bool remove_all(Records &r, const char *command) {
    int kept = 0;
    for (int i = 0; i < r.count; ++i)
        if (!same_command(r.items[i], command)) r.items[kept++] = r.items[i];
    const bool found = kept != r.count;
    r.count = kept;
    return found;
}

int apply(Change change, const cmdent *rec, long size, Records &r) {
    switch (change) {
        case Change::Add:
            if (size > kMaxBytes - static_cast<long>(kRecord)) return set_errno(MG_ERR_CMD_FULL);
            for (int i = 0; i < r.count; ++i)
                if (same_command(r.items[i], rec->command)) return set_errno(MG_ERR_CMD_EXISTS);
            insert(r, *rec);
            return 0;
        case Change::Delete:
            return remove_all(r, rec->command) ? 0 : set_errno(MG_ERR_CMD_NOTFOUND);
        case Change::Modify:
            if (!remove_all(r, rec->command)) return set_errno(MG_ERR_CMD_NOTFOUND);
            insert(r, *rec);  // a change of priority moves the record
            return 0;
        case Change::DeleteAll: r.count = 0; return 0;
    }
    return -1;
}

// Reads the store's records, 64 bytes at a time; a short record is 10045.
int read_records(int fd, long size, Records &r) {
    if (size > kMaxBytes + static_cast<long>(kRecord)) size = kMaxBytes + static_cast<long>(kRecord);
    for (long done = 0; done < size; done += static_cast<long>(kRecord)) {
        ssize_t got = read(fd, &r.items[r.count], kRecord);
        if (got == 0) break;
        if (got != static_cast<ssize_t>(kRecord)) return set_errno(MG_ERR_CMD_SHORT);
        ++r.count;
    }
    return 0;
}

// The change sequence shared by add, delete, delete-all and modify.
int rewrite(Change change, const cmdent *rec) {
    int store = muf_open(g_szCmdPath, 0);
    // A missing store is an empty list: these changes never restore the backup.
    if (store < 0 && errno != ENOENT) return -1;
    char tmp[MG_PATH_MAX];
    int out = mg::stores::open_rewrite_temp(g_szCmdPath, tmp);
    if (out < 0) {
        int saved = errno;
        muf_close(store);
        return set_errno(saved);
    }
    auto fail = [&](int code) {
        mg::stores::abandon_rewrite(out, tmp, store);
        return set_errno(code);
    };
    Records r;
    const long size = store >= 0 ? mf_get_size(store) : 0;
    const bool removes = change == Change::Delete || change == Change::Modify;
    if (removes && size < static_cast<long>(kRecord)) return fail(MG_ERR_CMD_NOTFOUND);
    if (store >= 0 && read_records(store, size, r) != 0) return fail(errno);
    if (apply(change, rec, size, r) != 0) return fail(errno);
    const size_t bytes = static_cast<size_t>(r.count) * kRecord;
    if (bytes > 0 && mg::stores::write_all(out, r.items, bytes) != 0) return fail(errno);
    if (get_module_status() != MG_STATUS_ABSENT &&
        (lseek(out, 0, SEEK_SET) != 0 || _k_load_cmd(out, static_cast<long>(bytes)) != 0))
        return fail(MG_ERR_CMD_UPLOAD);
    return mg::stores::commit_rewrite(out, tmp, store, g_szCmdPath, g_szCmdBakPath);
}

}  // namespace

int set_cmdpath(void) noexcept {
    mg::stores::strip_root_slash();
    mg::stores::build_store_path(g_szCmdPath, "cmd_file");
    mg::stores::build_store_path(g_szCmdBakPath, ".cmd_file_bak");
    return 1;
}

void setcmdent(void) noexcept {
    endcmdent();
    fill_enumeration();
}

cmdent_list *getcmdent(void) noexcept {
    memset(&g_result, 0, sizeof g_result);
    if (!fill_enumeration()) return nullptr;
    g_result.count = g_enum.count > MG_CMD_MAX ? MG_CMD_MAX : g_enum.count;
    memcpy(g_result.records, g_enum.buf, static_cast<size_t>(g_result.count) * kRecord);
    return &g_result;
}

void endcmdent(void) noexcept {
    muf_close(g_enum.fd);
    free(g_enum.buf);
    g_enum = Enumeration{};
    errno = 0;
}

int _k_load_cmd(int fd, long length) noexcept {
    if (length < 0) return set_errno(EINVAL);
    if (length > kMaxBytes) length = kMaxBytes;
    char *buf = static_cast<char *>(calloc(1, static_cast<size_t>(kMaxBytes)));
    if (buf == nullptr) return set_errno(MG_ERR_CMD_NOMEM);
    long done = 0;
    while (done < length) {
        ssize_t n = read(fd, buf + done, static_cast<size_t>(length - done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += n;
    }
    const int result = done == length ? _sys_setcmd(buf, static_cast<int>(length / static_cast<long>(kRecord)))
                                      : set_errno(EIO);
    free(buf);
    return result;
}

int loadcmdent(void) noexcept {
    int fd = open_store(false);
    if (fd < 0) return -1;
    const long size = mf_get_size(fd);
    if (size < static_cast<long>(kRecord)) {
        muf_close(fd);
        return set_errno(MG_ERR_CMD_EMPTY);
    }
    const int loaded = _k_load_cmd(fd, size);
    int saved = errno;
    muf_close(fd);
    errno = saved;
    if (loaded != 0) return -1;
    mf_copy_file(g_szCmdPath, g_szCmdBakPath);
    return 0;
}

int addcmdent(const cmdent *record) noexcept {
    return record == nullptr ? set_errno(MG_ERR_CMD_NULL) : rewrite(Change::Add, record);
}

int delcmdent(const char *command) noexcept {
    if (command == nullptr) return set_errno(MG_ERR_CMD_NULL);
    cmdent key{};
    strncpy(key.command, command, sizeof key.command - 1);
    return rewrite(Change::Delete, &key);
}

int delcmdall(void) noexcept { return rewrite(Change::DeleteAll, nullptr); }

int modcmdent(const cmdent *record) noexcept {
    return record == nullptr ? set_errno(MG_ERR_CMD_NULL) : rewrite(Change::Modify, record);
}

// The installation root is read afresh; a root that cannot be confirmed fails
// the call instead of ending the process.
int export_rstcmd_to_file(const cmdent_list *list) noexcept {
    if (list == nullptr) return set_errno(MG_ERR_CMD_NULL);
    if (list->count < 0 || list->count > MG_CMD_MAX) return set_errno(EINVAL);
    mg_root[0] = '\0';
    if (chk_mgrootdir() != 1) return -1;
    set_cmdpath();
    char tmp[MG_PATH_MAX];
    int out = mg::stores::open_rewrite_temp(g_szCmdPath, tmp);
    if (out < 0) return -1;
    if (mg::stores::write_all(out, list->records, static_cast<size_t>(list->count) * kRecord) != 0) {
        mg::stores::abandon_rewrite(out, tmp, -1);
        return -1;
    }
    // The old store becomes the backup before the new one takes its name.
    mf_copy_file(g_szCmdPath, g_szCmdBakPath);
    if (mg::stores::install_temp(out, tmp, g_szCmdPath) != 0) return -1;
    int saved = errno;
    if (chmod(g_szCmdPath, 0444) != 0) errno = saved;
    return 0;
}
