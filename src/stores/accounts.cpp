// One-pass indexes of the account, group and shadow databases.
#include "stores/accounts.hpp"

#include <grp.h>
#include <pwd.h>
#include <shadow.h>

#include <cstring>

namespace mg::stores {

namespace {

constexpr size_t kBlock = 64 * 1024;

bool no_password(const char *pw) noexcept {
    return pw == nullptr || strcmp(pw, "*") == 0 || strcmp(pw, "!!") == 0 || strcmp(pw, "NP") == 0;
}

uint32_t name_hash(const char *s) noexcept {  // FNV-1a
    uint32_t h = 2166136261u;
    for (; *s != '\0'; ++s) h = (h ^ static_cast<unsigned char>(*s)) * 16777619u;
    return h;
}

// Fills slots, an open-addressed table of positions + 1 in entries by name
// (0: free); the first entry of a name wins, as getpwnam and getspnam answer.
template <class Entry>
bool index_names(const mg::HeapArray<Entry> &entries, mg::HeapArray<uint32_t> &slots) noexcept {
    size_t cap = 16;
    while (cap < 2 * entries.size()) cap *= 2;
    if (!slots.reserve(cap)) return false;
    for (size_t i = 0; i < cap; ++i) slots.push_back(0);
    const size_t mask = cap - 1;
    for (size_t i = 0; i < entries.size(); ++i) {
        size_t s = name_hash(entries[i].name) & mask;
        while (slots[s] != 0 && strcmp(entries[slots[s] - 1].name, entries[i].name) != 0) s = (s + 1) & mask;
        if (slots[s] == 0) slots[s] = static_cast<uint32_t>(i + 1);
    }
    return true;
}

template <class Entry>
const Entry *find_name(const mg::HeapArray<Entry> &entries, const mg::HeapArray<uint32_t> &slots,
                       const char *name) noexcept {
    if (slots.empty()) return nullptr;
    const size_t mask = slots.size() - 1;
    for (size_t s = name_hash(name) & mask; slots[s] != 0; s = (s + 1) & mask)
        if (strcmp(entries[slots[s] - 1].name, name) == 0) return &entries[slots[s] - 1];
    return nullptr;
}

}  // namespace

// ---- Arena ----------------------------------------------------------------------

struct Arena::Block {
    Block *next;
    char data[kBlock];
};

Arena::~Arena() {
    while (head_ != nullptr) {
        Block *next = head_->next;
        free(head_);
        head_ = next;
    }
}

const char *Arena::copy(const char *s) noexcept {
    if (s == nullptr) return nullptr;
    size_t len = strlen(s) + 1;
    if (len > kBlock) {
        ok_ = false;
        return nullptr;
    }
    if (len > left_) {
        Block *b = static_cast<Block *>(malloc(sizeof(Block)));
        if (b == nullptr) {
            ok_ = false;
            return nullptr;
        }
        b->next = head_;
        head_ = b;
        left_ = kBlock;
    }
    char *dst = head_->data + (kBlock - left_);
    memcpy(dst, s, len);
    left_ -= len;
    return dst;
}

// ---- Groups -----------------------------------------------------------------------

bool GroupNames::load() noexcept {
    bool ok = true;
    setgrent();
    for (struct group *g; ok && (g = getgrent()) != nullptr;) {
        const char *name = arena_.copy(g->gr_name != nullptr ? g->gr_name : "");
        ok = name != nullptr && entries_.push_back({g->gr_gid, entries_.size(), name});
    }
    endgrent();
    sort_stable_by(entries_.data(), entries_.size(), [](const Entry &a, const Entry &b) { return a.gid < b.gid; });
    return ok;
}

const char *GroupNames::find(gid_t gid) noexcept {
    Entry *first = entries_.data(), *last = first + entries_.size();
    Entry *it = std::lower_bound(first, last, gid, [](const Entry &e, gid_t key) { return e.gid < key; });
    if (it != last && it->gid == gid) return it->name;
    for (size_t i = 0; i < looked_up_.size(); ++i)
        if (looked_up_.data()[i].gid == gid) return looked_up_.data()[i].name;
    struct group *g = getgrgid(gid);
    const char *name = g != nullptr ? arena_.copy(g->gr_name != nullptr ? g->gr_name : "") : nullptr;
    looked_up_.push_back({gid, 0, name});
    return name;
}

// ---- Shadow -----------------------------------------------------------------------

bool ShadowIndex::load() noexcept {
    bool ok = true;
    setspent();
    for (struct spwd *sp; ok && (sp = getspent()) != nullptr;) {
        const char *name = arena_.copy(sp->sp_namp != nullptr ? sp->sp_namp : "");
        ShadowFacts f{true, no_password(sp->sp_pwdp), sp->sp_expire};
        ok = name != nullptr && entries_.push_back({name, f});
    }
    endspent();
    return ok && index_names(entries_, slots_);
}

ShadowFacts ShadowIndex::find(const char *name) noexcept {
    if (const Entry *e = find_name(entries_, slots_, name)) return e->facts;
    struct spwd *sp = getspnam(name);
    if (sp == nullptr) return {};
    return {true, no_password(sp->sp_pwdp), sp->sp_expire};
}

// ---- Accounts ---------------------------------------------------------------------

bool PasswdIndex::load() noexcept {
    bool ok = true;
    setpwent();
    for (struct passwd *pw; ok && (pw = getpwent()) != nullptr;) {
        const char *name = arena_.copy(pw->pw_name != nullptr ? pw->pw_name : "");
        const char *home = arena_.copy(pw->pw_dir != nullptr ? pw->pw_dir : "");
        ok = name != nullptr && home != nullptr &&
             entries_.push_back({name, {true, pw->pw_uid, pw->pw_gid, home}});
    }
    endpwent();
    return ok && index_names(entries_, slots_);
}

AccountFacts PasswdIndex::find(const char *name) noexcept {
    if (const Entry *e = find_name(entries_, slots_, name)) return e->facts;
    struct passwd *pw = getpwnam(name);
    if (pw == nullptr) return {};
    home_[0] = '\0';
    if (pw->pw_dir != nullptr) {
        strncpy(home_, pw->pw_dir, sizeof home_ - 1);
        home_[sizeof home_ - 1] = '\0';
    }
    return {true, pw->pw_uid, pw->pw_gid, home_};
}

}  // namespace mg::stores
