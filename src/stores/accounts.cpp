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

template <class Entry>
Entry *find_name(mg::HeapArray<Entry> &entries, const char *name) noexcept {
    Entry *first = entries.data(), *last = first + entries.size();
    Entry *it = std::lower_bound(first, last, name, [](const Entry &e, const char *key) {
        return strcmp(e.name, key) < 0;
    });
    return it != last && strcmp(it->name, name) == 0 ? it : nullptr;
}

template <class Entry>
void sort_names(mg::HeapArray<Entry> &entries) noexcept {
    sort_stable_by(entries.data(), entries.size(),
                   [](const Entry &a, const Entry &b) { return strcmp(a.name, b.name) < 0; });
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
        ok = name != nullptr && entries_.push_back({name, entries_.size(), f});
    }
    endspent();
    sort_names(entries_);
    return ok;
}

ShadowFacts ShadowIndex::find(const char *name) noexcept {
    if (const Entry *e = find_name(entries_, name)) return e->facts;
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
             entries_.push_back({name, entries_.size(), {true, pw->pw_uid, pw->pw_gid, home}});
    }
    endpwent();
    sort_names(entries_);
    return ok;
}

AccountFacts PasswdIndex::find(const char *name) noexcept {
    if (const Entry *e = find_name(entries_, name)) return e->facts;
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
