// mgctl users, categories and transitions: the label databases, through the
// library's management functions (the kernel module's tables first, then the
// store files, as every administration tool changes them).
#include "mgctl/mgctl.hpp"

#include <mossgrove/common.h>
#include <mossgrove/labels.h>
#include <mossgrove/stores.h>

#include <pwd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace mgctl {
namespace {

const char *const kRoles[] = {"UX", "MU", "SA", "SO"};

int parse_role(const char *text) {
    for (int r = 0; r < 4; ++r)
        if (strcasecmp(text, kRoles[r]) == 0) return r;
    return -1;
}

// A category given by name or id; -1 when there is none.
int category_id(const char *text) {
    int id;
    if (parse_int(text, 0, 127, &id)) return id;
    MGCategory *list = nullptr;
    int count = 0;
    if (get_mls_cat(&list, &count, 0) != 1) return -1;
    int found = -1;
    for (int i = 0; i < count && found < 0; ++i)
        if (strncmp(list[i].name, text, sizeof list[i].name) == 0) found = list[i].id;
    free(list);
    return found;
}

// Mode of the MLS user calls: 0 fills an empty kernel table from the store
// first; a fresh installation without a store (nor its backup) takes the
// kernel's table as it is (1).
int user_mode() {
    if (chk_mgrootdir() != 1 || set_dbpath() != 1) return 0;
    return mf_check_files(0) == 0 ? 1 : 0;
}

// The id of the tree's root (depth 0), or -1.
int root_category() {
    MGCategory *list = nullptr;
    int count = 0;
    if (get_mls_cat(&list, &count, 0) != 1) return -1;
    int found = -1;
    for (int i = 0; i < count && found < 0; ++i)
        if (list[i].depth == 0) found = list[i].id;
    free(list);
    return found;
}

std::string category_name(const MGCategory *list, int count, int id) {
    for (int i = 0; i < count; ++i)
        if (list[i].id == id) return std::string(list[i].name, strnlen(list[i].name, sizeof list[i].name));
    return id == 0 ? "" : std::to_string(id);
}

int list_users(const Args &args) {
    MGMlsUser *users = nullptr;
    int count = 0;
    if (get_mls_user(&users, &count, user_mode()) != 1) return library_error("MLS users");
    MGCategory *cats = nullptr;
    int ncat = 0;
    if (get_mls_cat(&cats, &ncat, 0) != 1) ncat = 0;
    const bool json = args.flag("json"), all = args.flag("all");
    if (!json) std::printf("%-24s %8s %-4s %5s %-20s %5s %s\n", "NAME", "UID", "ROLE", "LEVEL", "CATEGORY", "RETRY", "FLAGS");
    for (int i = 0; i < count; ++i) {
        const MGMlsUser &u = users[i];
        if (!all && (u.role == 0 || u.role > 3)) continue;
        std::string name(u.name, strnlen(u.name, sizeof u.name)), cat = category_name(cats, ncat, u.cid);
        const char *role = u.role <= 3 ? kRoles[u.role] : "?";
        const char *locked = (u.flags & MG_MU_LOCKED) != 0 ? "locked" : "";
        if (json)
            std::printf("{\"name\":\"%s\",\"uid\":%d,\"role\":\"%s\",\"level\":%d,\"category\":\"%s\",\"retry\":%d,"
                        "\"locked\":%s}\n",
                        json_escape(name).c_str(), u.uid, role, u.level, json_escape(cat).c_str(), u.retry,
                        *locked != '\0' ? "true" : "false");
        else
            std::printf("%-24s %8d %-4s %5d %-20s %5d %s\n", name.c_str(), u.uid, role, u.level, cat.c_str(), u.retry,
                        locked);
    }
    free(users);
    free(cats);
    return kOk;
}

// Fills the fields given by options into the record; false on a bad value.
bool apply_user_options(const Args &args, MGMlsUser &u, std::string &error) {
    if (const char *r = args.value("role")) {
        int role = parse_role(r);
        if (role < 1) return error = "--role is MU, SA or SO", false;
        u.role = static_cast<unsigned char>(role);
    }
    if (const char *l = args.value("level")) {
        int level;
        if (!parse_int(l, 0, 7, &level)) return error = "--level is 0 to 7", false;
        u.level = level;
    }
    if (const char *c = args.value("category")) {
        int id = category_id(c);
        if (id < 0) return error = std::string("no category ") + c, false;
        u.cid = id;
    }
    if (const char *r = args.value("retry")) {
        int retry;
        if (!parse_int(r, 1, 99, &retry)) return error = "--retry is 1 to 99", false;
        u.retry = static_cast<signed char>(retry);
    }
    if (args.flag("lock")) u.flags |= MG_MU_LOCKED;
    if (args.flag("unlock")) u.flags &= static_cast<unsigned char>(~MG_MU_LOCKED);
    return true;
}

int change_user(const std::string &op, const Args &args) {
    if (args.positional().size() != 2) return usage_error("users " + op + " takes one account name");
    const char *name = args.positional()[1].c_str();
    const struct passwd *pw = getpwnam(name);
    if (pw == nullptr) {
        std::fprintf(stderr, "mgctl: no account %s\n", name);
        return kFailed;
    }
    MGMlsUser u;
    std::memset(&u, 0, sizeof u);
    u.uid = static_cast<int32_t>(pw->pw_uid);
    std::snprintf(u.name, sizeof u.name, "%s", name);
    const int mode = user_mode();
    if (op != "add" && get_mls_user_one(&u, mode) != 1) return library_error(name);
    if (op == "add") {
        u.gid = static_cast<int32_t>(pw->pw_gid);
        u.retry = 5;
    } else if (op == "mod") {
        u.retry = -1;  // kept unless given
    }
    std::string error;
    if (!apply_user_options(args, u, error)) return usage_error(error);
    int rc = op == "add" ? add_mls_user(&u, mode) : op == "mod" ? mod_mls_user(&u, mode) : del_mls_user(&u, mode);
    if (rc != 1) return library_error(name);
    std::printf("%s: %s\n", name, op == "add" ? "added" : op == "mod" ? "changed" : "deleted");
    return kOk;
}

void print_tree(const MGCategory *list, int count, int parent, int depth, bool json) {
    for (int i = 0; i < count; ++i) {
        const MGCategory &c = list[i];
        bool child = depth == 0 ? c.depth == 0 : c.depth == depth && c.path[depth - 1] == parent;
        if (!child) continue;
        std::string name(c.name, strnlen(c.name, sizeof c.name));
        const char *role = c.role <= 3 ? kRoles[c.role] : "?";
        if (json)
            std::printf("{\"id\":%d,\"name\":\"%s\",\"depth\":%d,\"parent\":%d,\"role\":\"%s\"}\n", c.id,
                        json_escape(name).c_str(), c.depth, depth == 0 ? -1 : parent, role);
        else
            std::printf("%*s%s (id %d, role %s)\n", 2 * depth, "", name.c_str(), c.id, role);
        if (depth < 15) print_tree(list, count, c.id, depth + 1, json);
    }
}

int categories(const Args &args) {
    const auto &words = args.positional();
    const std::string op = words.empty() ? "list" : words[0];
    if (op == "list") {
        MGCategory *list = nullptr;
        int count = 0;
        if (get_mls_cat(&list, &count, 0) != 1) return library_error("categories");
        print_tree(list, count, 0, 0, args.flag("json"));
        free(list);
        return kOk;
    }
    if ((op != "add" && op != "del") || words.size() != 2) return usage_error("categories add|del NAME");
    if (op == "del") {
        MGCategory c;
        std::memset(&c, 0, sizeof c);
        c.id = category_id(words[1].c_str());
        if (c.id < 0) return library_error(words[1].c_str());
        if (get_mls_cat_one(&c, 0) != 1 || del_mls_cat(&c, 0) != 1) return library_error(words[1].c_str());
        std::printf("%s: deleted\n", words[1].c_str());
        return kOk;
    }
    MGCategory parent;
    std::memset(&parent, 0, sizeof parent);
    parent.id = args.value("parent") != nullptr ? category_id(args.value("parent")) : root_category();
    if (parent.id < 0 || get_mls_cat_one(&parent, 0) != 1) return usage_error("no such parent category");
    MGCategory c = parent;  // the child starts from its parent's depth and path
    std::snprintf(c.name, sizeof c.name, "%s", words[1].c_str());
    int role = args.value("role") != nullptr ? parse_role(args.value("role")) : parent.role;
    if (role < 0) return usage_error("--role is UX, MU, SA or SO");
    c.role = static_cast<unsigned char>(role);
    if (add_mls_cat(&c, 0) != 1) return library_error(words[1].c_str());
    std::printf("%s: added (id %d)\n", words[1].c_str(), c.id);
    return kOk;
}

int transitions(const Args &args) {
    const auto &words = args.positional();
    const std::string op = words.empty() ? "list" : words[0];
    if (chk_mgrootdir() != 1 || set_supath() != 1) return library_error("installation root");
    if (op == "list") {
        const bool json = args.flag("json");
        if (!json) std::printf("%-24s %8s %s\n", "ACCOUNT", "UID", "WORD");
        setsuent();
        while (const MGSuEntry *e = getsuent()) {
            const struct passwd *pw = getpwuid(static_cast<uid_t>(e->uid));
            std::string name = pw != nullptr ? pw->pw_name : "";
            if (json)
                std::printf("{\"account\":\"%s\",\"uid\":%d,\"word\":%d}\n", json_escape(name).c_str(), e->uid, e->word);
            else
                std::printf("%-24s %8d %d\n", name.c_str(), e->uid, e->word);
        }
        endsuent();
        return kOk;
    }
    if ((op != "add" && op != "del") || words.size() != 2) return usage_error("transitions add|del ACCOUNT");
    const struct passwd *pw = getpwnam(words[1].c_str());
    if (pw == nullptr) {
        std::fprintf(stderr, "mgctl: no account %s\n", words[1].c_str());
        return kFailed;
    }
    MGSuEntry e{static_cast<int32_t>(pw->pw_uid), 0};
    if (const char *w = args.value("word"); w != nullptr && !parse_int(w, -2147483647, 2147483647, &e.word))
        return usage_error("--word is a number");
    if ((op == "add" ? addsuent(&e) : delsuent(&e)) != 1) return library_error(words[1].c_str());
    std::printf("%s: %s\n", words[1].c_str(), op == "add" ? "added" : "deleted");
    return kOk;
}

}  // namespace

int cmd_users(const std::vector<std::string> &words) {
    Args args(words, {"role", "level", "category", "retry"}, {"json", "all", "lock", "unlock"});
    if (!args.ok()) return usage_error(args.error());
    const std::string op = args.positional().empty() ? "list" : args.positional()[0];
    if (op == "list") return list_users(args);
    if (op == "add" || op == "mod" || op == "del") return change_user(op, args);
    return usage_error("unknown users operation " + op);
}

int cmd_categories(const std::vector<std::string> &words) {
    Args args(words, {"parent", "role"}, {"json"});
    return args.ok() ? categories(args) : usage_error(args.error());
}

int cmd_transitions(const std::vector<std::string> &words) {
    Args args(words, {"word"}, {"json"});
    return args.ok() ? transitions(args) : usage_error(args.error());
}

}  // namespace mgctl
