// The root-to-user transition list: at most 20 uids (8-byte records) that the
// kernel consults when a process changes identity from root to a user, kept in
// the kernel's table and in "<root>/data/su_file" with its backup.
#include <mossgrove/common.h>
#include <mossgrove/kernel.h>
#include <mossgrove/labels.h>
#include "stores/dbfile.hpp"
#include "stores/records.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

using mg::stores::MallocPtr;
using mg::stores::Missing;
using mg::stores::Rewrite;

namespace {

constexpr size_t kRec = sizeof(MGSuEntry);
constexpr size_t kKernelBytes = MG_SU_MAX * kRec;       // the kernel's load buffer
constexpr size_t kFullBytes = (MG_SU_MAX - 1) * kRec;   // more than this: the list is full

char g_szSuPath[MG_PATH_MAX];
char g_szSuBakPath[MG_PATH_MAX];
constinit mg::stores::RecordCursor<MGSuEntry> g_entries(g_szSuPath, g_szSuBakPath);

// Hands at most 20 records to the kernel: 0, or -1 with 10055 / 10060.
int load_list(const void *data, size_t size) noexcept {
    MallocPtr buf(calloc(1, kKernelBytes));
    if (buf.p == nullptr) return set_errno(MG_ERR_SU_NOMEM);
    size_t bytes = std::min(size, kKernelBytes);
    if (bytes > 0) memcpy(buf.p, data, bytes);
    if (_sys_setsu(buf.p, static_cast<int>(bytes / kRec)) != 0) return set_errno(MG_ERR_SU_REFUSED);
    return 0;
}

MGSuEntry entry_at(const char *data, size_t i) noexcept {
    MGSuEntry e;
    memcpy(&e, data + i * kRec, kRec);
    return e;
}

// Starts a rewrite of the list; a short read of the store is 10056.
int begin(Rewrite &rw, Missing missing) noexcept {
    int r = rw.begin(missing);
    if (r < 0 && errno == EIO) return set_errno(MG_ERR_SU_SHORT);
    return r;
}

// Rewrites the list keeping the records that keep() accepts.
template <class Keep>
int rewrite_keeping(Keep keep) noexcept {
    Rewrite rw(g_szSuPath, g_szSuBakPath);
    if (begin(rw, Missing::fail) < 0) return -1;
    const size_t n = rw.size() / kRec;
    MallocPtr out(malloc(n * kRec + 1));
    if (out.p == nullptr) return set_errno(ENOMEM);
    size_t kept = 0;
    for (size_t i = 0; i < n; ++i) {
        MGSuEntry e = entry_at(rw.data(), i);
        if (keep(e)) memcpy(out.as<char>() + kRec * kept++, &e, kRec);
    }
    return rw.commit(out.p, kept * kRec, load_list) == 0 ? 1 : -1;
}

}  // namespace

int set_supath(void) noexcept {
    mg::stores::strip_root_slash();
    mg::stores::build_store_path(g_szSuPath, "su_file");
    mg::stores::build_store_path(g_szSuBakPath, ".su_file_bak");
    return 1;
}

void setsuent(void) noexcept { g_entries.open(); }
MGSuEntry *getsuent(void) noexcept { return g_entries.next(); }
void endsuent(void) noexcept { g_entries.close(); }

MGSuEntry *getsuuid(int uid) noexcept {
    return g_entries.find([uid](const MGSuEntry &e) { return e.uid == uid; });
}

// A missing store is recreated holding the new record alone and an existing
// one is not searched for the uid: the check that would refuse a listed uid
// (10058) sits behind a backup restore that never happens, deliberately.
int addsuent(const MGSuEntry *record) noexcept {
    if (record == nullptr) return set_errno(MG_ERR_SU_NORECORD);
    Rewrite rw(g_szSuPath, g_szSuBakPath);
    if (begin(rw, Missing::go_on) < 0) return -1;
    if (rw.size() > kFullBytes) return set_errno(MG_ERR_SU_FULL);
    const size_t n = rw.size() / kRec;
    MGSuEntry out[MG_SU_MAX];
    if (n > 0) memcpy(out, rw.data(), n * kRec);
    out[n] = *record;
    return rw.commit(out, (n + 1) * kRec, load_list) == 0 ? 1 : -1;
}

// Every record of the uid is replaced; an empty store receives the record alone.
int modsuent(const MGSuEntry *record) noexcept {
    if (record == nullptr) return set_errno(MG_ERR_SU_NORECORD);
    Rewrite rw(g_szSuPath, g_szSuBakPath);
    if (begin(rw, Missing::fail) < 0) return -1;
    const size_t n = rw.size() / kRec;
    MallocPtr out(malloc((n + 1) * kRec));
    if (out.p == nullptr) return set_errno(ENOMEM);
    MGSuEntry *recs = out.as<MGSuEntry>();
    for (size_t i = 0; i < n; ++i) {
        recs[i] = entry_at(rw.data(), i);
        if (recs[i].uid == record->uid) recs[i] = *record;
    }
    size_t count = n;
    if (n == 0) recs[count++] = *record;
    return rw.commit(out.p, count * kRec, load_list) == 0 ? 1 : -1;
}

int delsuent(const MGSuEntry *record) noexcept {
    if (record == nullptr) return set_errno(MG_ERR_SU_NORECORD);
    const int uid = record->uid;
    return rewrite_keeping([uid](const MGSuEntry &e) { return e.uid != uid; });
}

int delsuuid(const int *uids, int n) noexcept {
    if (uids == nullptr && n > 0) return set_errno(EINVAL);
    const int count = std::max(n, 0);
    return rewrite_keeping([&](const MGSuEntry &e) { return std::find(uids, uids + count, e.uid) == uids + count; });
}

// The store is not opened: the list and the kernel's table are emptied.
int delsuall(void) noexcept {
    Rewrite rw(g_szSuPath, g_szSuBakPath);
    if (rw.begin_unopened() < 0) return -1;
    return rw.commit(nullptr, 0, load_list) == 0 ? 1 : -1;
}

// Loads the list as it stands (the backup is not consulted), then copies it
// onto the backup.
int loadsuent(void) noexcept {
    int fd = muf_open(g_szSuPath, 0);
    if (fd < 0) return -1;
    long size = mf_get_size(fd);
    int r = 0;
    if (size < static_cast<long>(kRec))
        r = set_errno(MG_ERR_SU_EMPTY);
    else if (_k_load_su(fd, size) < 0)
        r = set_errno(MG_ERR_SU_REFUSED);
    int saved = errno;
    muf_close(fd);
    errno = saved;
    if (r < 0) return r;
    mf_copy_file(g_szSuPath, g_szSuBakPath);
    return 0;
}

// At most 160 bytes (20 records) are read: the kernel's load buffer.
int _k_load_su(int fd, long len) noexcept {
    MallocPtr buf(calloc(1, kKernelBytes));
    if (buf.p == nullptr) return set_errno(MG_ERR_SU_NOMEM);
    size_t bytes = len > 0 ? std::min(static_cast<size_t>(len), kKernelBytes) : 0;
    if (bytes > 0 && mg::fileio::read_all(fd, buf.p, bytes) != 0) return -1;
    return _sys_setsu(buf.p, static_cast<int>(bytes / kRec));
}
