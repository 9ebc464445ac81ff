// Indexes of the system's account, group and shadow databases, each read
// once per call (one getpwent / getgrent / getspent pass) and then searched by
// key, so that refreshing thousands of MLS users never rescans a database per
// user. A key the enumeration did not return is looked up directly
// (getpwnam, getgrgid, getspnam), so sources that cannot be enumerated give
// the same answers as before.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "common/heap_array.hpp"

namespace mg::stores {

// Strings and records of one index, in malloc'ed blocks freed together.
class Arena {
public:
    Arena() noexcept = default;
    ~Arena();
    Arena(const Arena &) = delete;
    Arena &operator=(const Arena &) = delete;
    // A copy of s (nullptr stays nullptr); nullptr with ok() false when out of memory.
    const char *copy(const char *s) noexcept;
    bool ok() const noexcept { return ok_; }

private:
    struct Block;
    Block *head_ = nullptr;
    size_t left_ = 0;
    bool ok_ = true;
};

// Primary group names by gid (the first entry of a gid wins, as getgrgid).
class GroupNames {
public:
    bool load() noexcept;
    // The name, or nullptr when the group does not exist.
    const char *find(gid_t gid) noexcept;

private:
    struct Entry {
        gid_t gid;
        size_t order;
        const char *name;
    };
    Arena arena_;
    mg::HeapArray<Entry> entries_;
    mg::HeapArray<Entry> looked_up_;  // answers of getgrgid for gids not enumerated
};

// What the MLS user list needs of a shadow entry.
struct ShadowFacts {
    bool found = false;
    bool no_password = false;  // null, "*", "!!" or "NP"
    long expire = -1;          // sp_expire
};

class ShadowIndex {
public:
    bool load() noexcept;
    ShadowFacts find(const char *name) noexcept;

private:
    struct Entry {
        const char *name;
        ShadowFacts facts;
    };
    Arena arena_;
    mg::HeapArray<Entry> entries_;  // in enumeration order
    mg::HeapArray<uint32_t> slots_;  // their positions by name
};

// Accounts by name (the first entry of a name wins, as getpwnam).
struct AccountFacts {
    bool found = false;
    uid_t uid = 0;
    gid_t gid = 0;
    const char *home = nullptr;  // valid until the next find or the index's end
};

class PasswdIndex {
public:
    bool load() noexcept;
    AccountFacts find(const char *name) noexcept;

private:
    struct Entry {
        const char *name;
        AccountFacts facts;
    };
    Arena arena_;
    mg::HeapArray<Entry> entries_;  // in enumeration order
    mg::HeapArray<uint32_t> slots_;  // their positions by name
    char home_[1024] = {};
};

// Sorts by key, ties in their original order.
template <class T, class Less>
void sort_stable_by(T *data, size_t n, Less less) noexcept;

}  // namespace mg::stores

#include "stores/accounts_impl.hpp"
