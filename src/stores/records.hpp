// Shared machinery of the fixed-record label stores (MLS users, categories,
// the transition list): the enumeration cursor that keeps a store read-locked
// while it runs, and the rewrite sequence (read-locked store, temporary file,
// kernel load, rename, backup copy).
#pragma once

#include <mossgrove/stores.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>

namespace mg::stores {

// Owns a malloc'ed buffer.
struct MallocPtr {
    void *p = nullptr;
    MallocPtr() noexcept = default;
    explicit MallocPtr(void *q) noexcept : p(q) {}
    ~MallocPtr() { free(p); }
    MallocPtr(const MallocPtr &) = delete;
    MallocPtr &operator=(const MallocPtr &) = delete;
    void *release() noexcept {
        void *q = p;
        p = nullptr;
        return q;
    }
    template <class T> T *as() const noexcept { return static_cast<T *>(p); }
};

// calloc for a list of n records of the given size. A large list asks for
// huge pages: filling tens of megabytes of fresh memory otherwise costs a page
// fault per 4 KB, more than reading the databases it is built from.
void *alloc_records(size_t n, size_t size) noexcept;

// Opens a store read-locked; when it is missing and its backup exists, copies
// the backup onto it and opens it again. -1 with errno on failure.
int open_restoring(const char *store, const char *backup) noexcept;

// Reads the whole file behind fd (from offset 0) into a malloc'ed buffer one
// byte longer than the file. 0, or -1 (a short read is EIO).
int read_whole(int fd, MallocPtr &buf, size_t &size) noexcept;

// Loads new contents into the kernel: 0, or -1 with errno.
using KernelLoad = int (*)(const void *data, size_t size);

// The _k_load_* step of a record store: reads the whole records of the size
// bytes behind fd (from the current position) and hands them to load.
// -1 when fewer than one record, ENOMEM, or a short read (EIO).
int read_and_load(int fd, long size, size_t record, KernelLoad load) noexcept;

// One enumeration in the manner of getpwent: the store stays open under its
// read lock while the enumeration runs.
class Cursor {
public:
    explicit constexpr Cursor(size_t record) noexcept : record_(record) {}
    // set...ent: ends a running enumeration, opens (restoring from the backup)
    // and loads the store. A store shorter than one record is an empty one.
    void open(const char *store, const char *backup) noexcept;
    // get...ent: the next record, opening the store if needed; at the end the
    // enumeration is closed and nullptr returned.
    const void *next(const char *store, const char *backup) noexcept;
    // end...ent.
    void close() noexcept;
    // First record of a fresh enumeration that pred accepts (copied into out),
    // the enumeration ended afterwards. False when none does.
    template <class Pred>
    bool find(const char *store, const char *backup, void *out, Pred pred) noexcept;

private:
    size_t record_;
    int fd_ = -1;
    char *buf_ = nullptr;
    size_t count_ = 0;
    size_t next_ = 0;
};

// The getpwent-style enumeration of one store of T records: the record
// handed out lives in the cursor, as getpwent's does.
template <class T>
class RecordCursor {
public:
    constexpr RecordCursor(const char *store, const char *backup) noexcept : store_(store), backup_(backup) {}
    void open() noexcept { cursor_.open(store_, backup_); }
    T *next() noexcept {
        const void *rec = cursor_.next(store_, backup_);
        if (rec == nullptr) return nullptr;
        __builtin_memcpy(&record_, rec, sizeof record_);
        return &record_;
    }
    // Ends the enumeration; errno is left 0, as the end...ent calls leave it.
    void close() noexcept {
        cursor_.close();
        errno = 0;
    }
    // The first record pred (taking const T &) accepts, or nullptr.
    template <class Pred>
    T *find(Pred pred) noexcept {
        bool found = cursor_.find(store_, backup_, &record_,
                                  [&](const char *rec) { return pred(*reinterpret_cast<const T *>(rec)); });
        return found ? &record_ : nullptr;
    }

private:
    const char *store_;
    const char *backup_;
    Cursor cursor_{sizeof(T)};
    T record_{};
};

// What a rewrite does when its store is missing.
enum class Missing {
    restore,         // copy the backup onto the store (when it exists) and go on
    restore_then_2,  // copy the backup onto the store and report 2, changing nothing
    go_on,           // go on with no store (the backup is never consulted)
    fail,            // fail (the backup is never consulted)
};

// One rewrite of a store file. begin() takes the store's read lock, reads it
// and creates the temporary file; commit() writes the new contents, loads them
// into the kernel when the module is loaded, and renames the temporary file
// onto the store. A rewrite that is not committed is abandoned on destruction:
// the temporary file is removed and the store left as it was.
class Rewrite {
public:
    Rewrite(const char *store, const char *backup) noexcept : store_(store), backup_(backup) {}
    ~Rewrite();
    Rewrite(const Rewrite &) = delete;
    Rewrite &operator=(const Rewrite &) = delete;

    // 1 ready, 2 store restored from the backup (nothing else done), -1 failed.
    // With read false the store is only locked when it exists, never read.
    int begin(Missing missing, bool read = true) noexcept;
    // Starts without opening the store at all.
    int begin_unopened() noexcept;
    const char *data() const noexcept { return old_.as<const char>(); }
    size_t size() const noexcept { return size_; }
    // 0, or -1 with errno; load may be nullptr (no kernel table).
    int commit(const void *data, size_t size, KernelLoad load) noexcept;
    // Gives up now: removes the temporary file and releases the store.
    void abandon() noexcept;

private:
    int make_temp() noexcept;

    const char *store_;
    const char *backup_;
    int store_fd_ = -1;
    int tmp_fd_ = -1;
    char tmp_[MG_PATH_MAX] = {};
    MallocPtr old_;
    size_t size_ = 0;
};

// Writes a whole table as a new store file without taking the store's lock:
// temporary file (10017), the current store copied onto the backup first, then
// the rename (10018), mode 0444. 1 or -1.
int dump_table(const char *store, const char *backup, const void *data, size_t size) noexcept;

// True unless the kernel module is absent.
bool module_loaded() noexcept;

template <class Pred>
bool Cursor::find(const char *store, const char *backup, void *out, Pred pred) noexcept {
    open(store, backup);
    bool found = false;
    for (size_t i = 0; i < count_ && !found; ++i) {
        const char *rec = buf_ + i * record_;
        if (pred(rec)) {
            __builtin_memcpy(out, rec, record_);
            found = true;
        }
    }
    close();
    return found;
}

}  // namespace mg::stores
