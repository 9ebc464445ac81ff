// mgctl facl, fgroups, kill-acl, setuid-acl, services, commands,
// allowed-commands and policy-groups: the access rule stores, through the
// library's management functions. Rule lines are given in each store's own
// one-line form and read by the store's own reader. A change to a kernel
// table is saved to its store file at once by the store's dump routine, so
// that the next start loads what the administrator set.
#include "mgctl/mgctl.hpp"

#include <mossgrove/common.h>
#include <mossgrove/rules.h>

#include <arpa/inet.h>
#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

namespace mgctl {
namespace {

using Words = std::vector<std::string>;

std::string text_of(const char *buf, size_t size) { return std::string(buf, strnlen(buf, size)); }

std::string op_of(const Args &args) { return args.positional().empty() ? "list" : args.positional()[0]; }

// Runs a library reader over a piece of text; false when it refuses it.
bool read_text(const std::string &text, const std::function<bool(FILE *)> &reader) {
    if (text.empty()) return false;
    FILE *in = fmemopen(const_cast<char *>(text.data()), text.size(), "r");
    if (in == nullptr) return false;
    const bool ok = reader(in);
    std::fclose(in);
    return ok;
}

// What a library writer writes, without the final newline.
std::string write_text(const std::function<void(FILE *)> &writer) {
    char *buf = nullptr;
    size_t size = 0;
    FILE *out = open_memstream(&buf, &size);
    if (out == nullptr) return "";
    writer(out);
    std::fclose(out);
    std::string text(buf, size);
    std::free(buf);
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

std::string rule_text(const rulentry &e) {
    return write_text([&](FILE *out) { write_rulentry(out, &e); });
}

// The --rule options as rule entries, read by the file ACL's rule-line reader.
bool read_rules(const Args &args, std::vector<rulentry> &rules, std::string &error) {
    for (const std::string &line : args.values("rule")) {
        rulentry e;
        if (!read_text(line, [&](FILE *in) { return read_rulentry(in, &e) == 0; }))
            return error = "not a rule line (TYPE:ID:NAME:PATH:ADDRESS:PERMS): " + line, false;
        rules.push_back(e);
    }
    return true;
}

// --NAME N into *field, within [low, high]; false (with the error) on a bad value.
template <typename T>
bool number_option(const Args &args, const char *name, int low, int high, T *field, std::string &error) {
    const char *v = args.value(name);
    if (v == nullptr) return true;
    int n;
    if (!parse_int(v, low, high, &n))
        return error = "--" + std::string(name) + " is " + std::to_string(low) + " to " + std::to_string(high), false;
    *field = static_cast<T>(n);
    return true;
}

// The change is in the kernel; the store file follows through the dump.
int changed(const std::string &what, const char *verb, int (*save)()) {
    if (save != nullptr && save() != 0) return library_error((what + ": saving the store").c_str());
    std::printf("%s: %s\n", what.c_str(), verb);
    return kOk;
}

// The outcome of one library change: its own error line, or the change saved.
int outcome(int rc, const std::string &what, const char *verb, int (*save)()) {
    return rc != 0 ? library_error(what.c_str()) : changed(what, verb, save);
}

const char *verb_of(const std::string &op) {
    return op == "add" ? "added" : op == "del" ? "deleted" : op == "clear" ? "cleared" : "changed";
}

void print_rule_lines(const rulentry *rules, int count, bool json) {
    for (int i = 0; i < count; ++i) {
        const std::string line = rule_text(rules[i]);
        if (json)
            std::printf("%s\"%s\"", i == 0 ? "" : ",", json_escape(line).c_str());
        else
            std::printf("    rule %s\n", line.c_str());
    }
}

// ---- file ACL --------------------------------------------------------------

int facl_list(bool json) {
    faclhdr *hdrs = nullptr;
    int count = 0;
    if (get_all_facl_hdr(&hdrs, &count) != 0) return library_error("file ACL");
    if (!json) std::printf("%-40s %4s %4s %6s\n", "PATH", "MODE", "FLAG", "POLGRP");
    int status = kOk;
    for (int i = 0; i < count; ++i) {
        faclhdr h = hdrs[i];
        rulentry *rules = nullptr;
        const std::string path = text_of(h.path, sizeof h.path);
        if (get_file_acl(&h, &rules) != 0) {
            status = library_error(path.c_str());
            continue;
        }
        if (json) {
            std::printf("{\"path\":\"%s\",\"mode\":%d,\"flag\":%d,\"polgrp\":%d,\"rules\":[", json_escape(path).c_str(),
                        h.mode, h.flag, h.polgrp_id);
            print_rule_lines(rules, h.rule_cnt, true);
            std::printf("]}\n");
        } else {
            std::printf("%-40s %4d %4d %6d\n", path.c_str(), h.mode, h.flag, h.polgrp_id);
            print_rule_lines(rules, h.rule_cnt, false);
        }
        std::free(rules);
    }
    std::free(hdrs);
    return status;
}

int facl(const Args &args) {
    const auto &words = args.positional();
    const std::string op = op_of(args);
    if (op == "list") return facl_list(args.flag("json"));
    if ((op != "add" && op != "mod" && op != "del") || words.size() != 2) return usage_error("facl add|mod|del PATH");
    const std::string &path = words[1];
    if (path.size() >= sizeof faclhdr::path) return usage_error("the path is too long");
    if (op == "del") return outcome(del_file_acl(path.c_str()), path, "deleted", dump_file_acl);
    faclhdr h;
    std::memset(&h, 0, sizeof h);
    std::snprintf(h.path, sizeof h.path, "%s", path.c_str());
    std::vector<rulentry> rules;
    if (op == "mod") {  // what is not given is kept
        rulentry *old = nullptr;
        if (get_file_acl(&h, &old) != 0) return library_error(path.c_str());
        rules.assign(old, old + (old != nullptr ? h.rule_cnt : 0));
        std::free(old);
        if (!args.values("rule").empty()) rules.clear();
    }
    std::string error;
    if (!read_rules(args, rules, error) || !number_option(args, "mode", 0, 2, &h.mode, error) ||
        !number_option(args, "flag", 0, 1, &h.flag, error) ||
        !number_option(args, "polgrp", 0, MG_GROUP_ID_MAX, &h.polgrp_id, error))
        return usage_error(error);
    if (rules.empty()) return usage_error("an ACL entry needs at least one --rule");
    h.rule_cnt = static_cast<int32_t>(rules.size());
    const int rc = op == "add" ? add_file_acl(&h, rules.data()) : mod_file_acl(&h, rules.data());
    return outcome(rc, path, verb_of(op), dump_file_acl);
}

// ---- file groups -------------------------------------------------------------

// A group given by number or name; 0 when there is none.
int fgroup_id(const std::string &key) {
    int id;
    if (parse_int(key.c_str(), 1, MG_GROUP_ID_MAX, &id)) return id;
    fgrouphdr *hdrs = nullptr;
    int count = 0;
    if (get_all_fgroup_hdr(&hdrs, &count) != 0) return 0;
    id = 0;
    for (int i = 0; i < count && id == 0; ++i)
        if (text_of(hdrs[i].name, sizeof hdrs[i].name) == key) id = hdrs[i].fgroup_id;
    std::free(hdrs);
    return id;
}

// A member is "PATH" (flag 0) or "FLAG:PATH", read by the store's member reader.
bool read_members(const Args &args, std::vector<mpath> &members, std::string &error) {
    for (const std::string &text : args.values("member")) {
        const size_t colon = text.find(':');
        const bool bare = !text.empty() && text[0] == '/';
        const std::string record = bare ? text + "\n0\n"
                                   : colon == std::string::npos
                                       ? std::string()
                                       : text.substr(colon + 1) + "\n" + text.substr(0, colon) + "\n";
        mpath m;
        if (!read_text(record, [&](FILE *in) { return read_member_path(in, &m) == 0; }))
            return error = "not a member (PATH or FLAG:PATH): " + text, false;
        members.push_back(m);
    }
    return true;
}

int fgroups_list(bool json) {
    fgrouphdr *hdrs = nullptr;
    int count = 0;
    if (get_all_fgroup_hdr(&hdrs, &count) != 0) return library_error("file groups");
    if (!json) std::printf("%4s %-31s %4s %6s\n", "ID", "NAME", "MODE", "POLGRP");
    int status = kOk;
    for (int i = 0; i < count; ++i) {
        fgrouphdr h = hdrs[i];
        rulentry *rules = nullptr;
        mpath *members = nullptr;
        const std::string name = text_of(h.name, sizeof h.name);
        if (get_fgroup(&h, &rules, &members) != 0) {
            status = library_error(name.c_str());
            continue;
        }
        if (json) {
            std::printf("{\"id\":%d,\"name\":\"%s\",\"mode\":%d,\"polgrp\":%d,\"rules\":[", h.fgroup_id,
                        json_escape(name).c_str(), h.mode, h.polgrp_id);
            print_rule_lines(rules, h.rule_cnt, true);
            std::printf("],\"members\":[");
            for (int m = 0; m < h.member_cnt; ++m)
                std::printf("%s{\"path\":\"%s\",\"flag\":%d}", m == 0 ? "" : ",",
                            json_escape(text_of(members[m].path, sizeof members[m].path)).c_str(), members[m].flag);
            std::printf("]}\n");
        } else {
            std::printf("%4d %-31s %4d %6d\n", h.fgroup_id, name.c_str(), h.mode, h.polgrp_id);
            print_rule_lines(rules, h.rule_cnt, false);
            for (int m = 0; m < h.member_cnt; ++m)
                std::printf("    member %d:%s\n", members[m].flag,
                            text_of(members[m].path, sizeof members[m].path).c_str());
        }
        std::free(rules);
        std::free(members);
    }
    std::free(hdrs);
    return status;
}

int fgroups(const Args &args) {
    const auto &words = args.positional();
    const std::string op = op_of(args);
    if (op == "list") return fgroups_list(args.flag("json"));
    if ((op != "add" && op != "mod" && op != "del") || words.size() != 2)
        return usage_error("fgroups add NAME | mod|del ID|NAME");
    const std::string &key = words[1];
    fgrouphdr h;
    std::memset(&h, 0, sizeof h);
    std::vector<rulentry> rules;
    std::vector<mpath> members;
    if (op != "add") {
        h.fgroup_id = fgroup_id(key);
        if (h.fgroup_id == 0) {
            std::fprintf(stderr, "mgctl: no file group %s\n", key.c_str());
            return kFailed;
        }
        if (op == "del") return outcome(del_fgroup(h.fgroup_id), key, "deleted", dump_fgroup);
        rulentry *old_rules = nullptr;
        mpath *old_members = nullptr;
        if (get_fgroup(&h, &old_rules, &old_members) != 0) return library_error(key.c_str());
        if (args.values("rule").empty() && old_rules != nullptr) rules.assign(old_rules, old_rules + h.rule_cnt);
        if (args.values("member").empty() && old_members != nullptr)
            members.assign(old_members, old_members + h.member_cnt);
        std::free(old_rules);
        std::free(old_members);
    }
    const std::string name = op == "add" ? key : args.value("name") != nullptr ? args.value("name") : "";
    if (!name.empty()) {
        if (name.size() >= sizeof h.name) return usage_error("a group name has at most 31 characters");
        std::snprintf(h.name, sizeof h.name, "%s", name.c_str());
    }
    std::string error;
    if (!read_rules(args, rules, error) || !read_members(args, members, error) ||
        !number_option(args, "mode", 0, 2, &h.mode, error) ||
        !number_option(args, "polgrp", 0, MG_GROUP_ID_MAX, &h.polgrp_id, error))
        return usage_error(error);
    h.rule_cnt = static_cast<int32_t>(rules.size());
    h.member_cnt = static_cast<int32_t>(members.size());
    const int id = set_fgroup(&h, rules.data(), members.data(), op == "add" ? MG_FGROUP_CREATE : MG_FGROUP_MODIFY);
    if (id < 0) return library_error(key.c_str());
    return changed(key + (op == "add" ? " (id " + std::to_string(id) + ")" : ""), verb_of(op), dump_fgroup);
}

// ---- kill ACL and setuid ACL ------------------------------------------------------

int kill_acl(const Args &args) {
    const auto &words = args.positional();
    const std::string op = op_of(args);
    kaclent *list = nullptr;
    int count = 0;
    if (op == "list" || op == "mod") {
        if (get_all_kill_acl_hdr(&list, &count) != 0) return library_error("kill ACL");
    }
    std::unique_ptr<kaclent, decltype(&std::free)> owner(list, &std::free);
    if (op == "list") {
        const bool json = args.flag("json");
        if (!json) std::printf("%-40s %4s %s\n", "PATH", "FLAG", "DENY");
        for (int i = 0; i < count; ++i) {
            char deny[MG_DENYMASK_STR];
            denymask2str(list[i].denymask, deny);
            const std::string path = text_of(list[i].path, sizeof list[i].path);
            if (json)
                std::printf("{\"path\":\"%s\",\"flag\":%d,\"deny\":\"%s\"}\n", json_escape(path).c_str(), list[i].flag,
                            deny);
            else
                std::printf("%-40s %4d %s\n", path.c_str(), list[i].flag, deny);
        }
        return kOk;
    }
    if ((op != "add" && op != "mod" && op != "del") || words.size() != 2)
        return usage_error("kill-acl add|mod|del PATH");
    const std::string &path = words[1];
    kaclent e;
    std::memset(&e, 0, sizeof e);
    if (path.size() >= sizeof e.path) return usage_error("the path is too long");
    std::snprintf(e.path, sizeof e.path, "%s", path.c_str());
    if (op == "del") return outcome(del_kill_acl(&e), path, "deleted", dump_kill_acl);
    if (op == "mod") {
        bool found = false;
        for (int i = 0; i < count && !found; ++i)
            if (text_of(list[i].path, sizeof list[i].path) == path) e = list[i], found = true;
        if (!found) {
            std::fprintf(stderr, "mgctl: %s is not in the kill ACL\n", path.c_str());
            return kFailed;
        }
    }
    std::string error;
    if (!number_option(args, "flag", 0, 1, &e.flag, error)) return usage_error(error);
    if (const char *deny = args.value("deny")) {
        if (str2denymask(deny, &e.denymask) != 0)
            return usage_error(std::string("--deny takes signal names joined by ':' (HUP KILL TERM STOP CONT USR1 "
                                           "USR2 ETC, or ALL): ") + deny);
    } else if (op == "add") {
        return usage_error("kill-acl add needs --deny");
    }
    return outcome(op == "add" ? add_kill_acl(&e) : mod_kill_acl(&e), path, verb_of(op), dump_kill_acl);
}

int setuid_acl(const Args &args) {
    const auto &words = args.positional();
    const std::string op = op_of(args);
    if (op == "list") {
        suidaclent *list = nullptr;
        int count = 0;
        if (get_all_setuid_acl_hdr(&list, &count) != 0) return library_error("setuid ACL");
        const bool json = args.flag("json");
        if (!json) std::printf("%4s %s\n", "FLAG", "PATH");
        for (int i = 0; i < count; ++i) {
            const std::string path = text_of(list[i].path, sizeof list[i].path);
            if (json)
                std::printf("{\"path\":\"%s\",\"flag\":%d}\n", json_escape(path).c_str(), list[i].flag);
            else
                std::printf("%4d %s\n", list[i].flag, path.c_str());
        }
        std::free(list);
        return kOk;
    }
    if (op == "find") {
        if (words.size() != 2) return usage_error("setuid-acl find DIR");
        return find_setuid_pgm(words[1].c_str(), stdout) != 0 ? library_error(words[1].c_str()) : kOk;
    }
    if ((op != "add" && op != "mod" && op != "del") || words.size() != 2)
        return usage_error("setuid-acl add|mod|del PATH | find DIR");
    const std::string &path = words[1];
    suidaclent e;
    std::memset(&e, 0, sizeof e);
    if (path.size() >= sizeof e.path) return usage_error("the path is too long");
    std::snprintf(e.path, sizeof e.path, "%s", path.c_str());
    std::string error;
    if (!number_option(args, "flag", 0, 1, &e.flag, error)) return usage_error(error);
    if (op == "mod" && args.value("flag") == nullptr) return usage_error("setuid-acl mod needs --flag");
    const int rc = op == "add" ? add_setuid_acl(&e) : op == "mod" ? mod_setuid_acl(&e) : del_setuid_acl(&e);
    return outcome(rc, path, verb_of(op), dump_setuid_acl);
}

// ---- service rules ------------------------------------------------------------------

const char *const kKinds[] = {"user", "group", "default"};

std::string service_rule_text(const alsvc_rule &r) {
    const auto *a = reinterpret_cast<const unsigned char *>(&r.ipaddr);
    char line[96];
    std::snprintf(line, sizeof line, "%s:%d:%d:%u.%u.%u.%u", text_of(r.service, sizeof r.service).c_str(), r.value1,
                  r.value2, a[0], a[1], a[2], a[3]);
    return line;
}

int services_list(int kind, bool json) {
    if (check_kernel_data(kind) != 0) return library_error("service rules");
    const int count = get_alsvc_hdr_cnt(kind);
    if (count < 0) return library_error("service rules");
    std::vector<alsvc_hdr> hdrs(static_cast<size_t>(count));
    if (count > 0 && get_alsvc_hdr_all(kind, count, hdrs.data()) < 0) return library_error("service rules");
    if (!json) std::printf("%8s %s\n", "ID", "NAME (then its rules, SERVICE:VALUE1:VALUE2:ADDRESS)");
    int status = kOk;
    for (alsvc_hdr &h : hdrs) {
        const std::string name = text_of(h.name, sizeof h.name);
        std::vector<alsvc_rule> rules(static_cast<size_t>(h.rule_cnt > 0 ? h.rule_cnt : 0));
        if (rules.empty() || get_alsvc_rule(kind, &h, rules.data()) < 0) {
            status = library_error(name.c_str());
            continue;
        }
        if (json) {
            std::printf("{\"kind\":\"%s\",\"id\":%d,\"name\":\"%s\",\"rules\":[", kKinds[kind], h.id,
                        json_escape(name).c_str());
            for (size_t i = 0; i < rules.size(); ++i)
                std::printf("%s\"%s\"", i == 0 ? "" : ",", json_escape(service_rule_text(rules[i])).c_str());
            std::printf("]}\n");
        } else {
            std::printf("%8d %s\n", h.id, name.c_str());
            for (const alsvc_rule &r : rules) std::printf("    rule %s\n", service_rule_text(r).c_str());
        }
    }
    return status;
}

// The account or group a user or group rule set belongs to, by name or number.
// The rules of an account or group that is gone can still be deleted by number.
bool service_owner(int kind, const std::string &key, bool gone_ok, alsvc_hdr &h) {
    int number = -1;
    const bool numeric = parse_int(key.c_str(), 0, 2147483647, &number);
    const char *name = nullptr;
    if (kind == 0) {
        const struct passwd *pw = numeric ? getpwuid(static_cast<uid_t>(number)) : getpwnam(key.c_str());
        if (pw != nullptr) number = static_cast<int>(pw->pw_uid), name = pw->pw_name;
    } else {
        const struct group *gr = numeric ? getgrgid(static_cast<gid_t>(number)) : getgrnam(key.c_str());
        if (gr != nullptr) number = static_cast<int>(gr->gr_gid), name = gr->gr_name;
    }
    if (name == nullptr && !(numeric && gone_ok)) return false;
    h.id = number;
    std::snprintf(h.name, sizeof h.name, "%s", name != nullptr ? name : "");
    return true;
}

int services(int kind, const Args &args) {
    auto words = args.positional();
    if (!words.empty()) words.erase(words.begin());  // the kind
    const std::string op = words.empty() ? "list" : words[0];
    if (op == "list") return services_list(kind, args.flag("json"));
    const size_t want = kind == 2 ? 1 : 2;
    if ((op != "set" && op != "del" && op != "clear") || words.size() != (op == "clear" ? 1 : want))
        return usage_error(kind == 2 ? "services default set|del|clear" : "services user|group set|del NAME | clear");
    const std::string what = std::string(kKinds[kind]) + (want == 2 && op != "clear" ? " " + words[1] : "") + " rules";
    if (check_kernel_data(kind) != 0) return library_error("service rules");
    auto save = [kind] { return export_rule_to_file(kind, nullptr); };
    int rc;
    if (op == "clear") {
        rc = del_alsvc_rule_all(kind);
    } else {
        alsvc_hdr h;
        std::memset(&h, 0, sizeof h);
        if (kind == 2) {
            std::snprintf(h.name, sizeof h.name, "default");
        } else if (!service_owner(kind, words[1], op == "del", h)) {
            std::fprintf(stderr, "mgctl: no %s %s\n", kind == 0 ? "account" : "group", words[1].c_str());
            return kFailed;
        }
        if (op == "del") {
            rc = del_alsvc_rule(kind, &h);
        } else {
            // The header line and the rule lines as a block of the store file,
            // read by the store's own block reader.
            const Words lines = args.values("rule");
            if (lines.empty()) return usage_error("services set needs at least one --rule");
            std::string block = std::to_string(h.id) + ":" + text_of(h.name, sizeof h.name) + ":" +
                                std::to_string(lines.size()) + "\n";
            for (const std::string &line : lines) {
                if (line.find('\n') != std::string::npos) return usage_error("a rule is one line");
                block += line + "\n";
            }
            alsvc_load *node = nullptr;
            read_text(block, [&](FILE *in) { return (node = read_rule_from_file(in)) != nullptr; });
            if (node == nullptr) return usage_error("not a rule line (SERVICE:VALUE1:VALUE2:ADDRESS) among the --rule");
            rc = set_alsvc_rule(kind, node->hdr, node->rules);
            free_load_hdr_all(node);
        }
    }
    if (rc < 0) return library_error(what.c_str());
    if (save() != 0) return library_error((what + ": saving the store").c_str());
    std::printf("%s: %s\n", what.c_str(), op == "set" ? "set" : verb_of(op));
    return kOk;
}

// ---- restricted and allowed commands ----------------------------------------------------

int commands(const Args &args) {
    const auto &words = args.positional();
    const std::string op = op_of(args);
    if (chk_mgrootdir() != 1 || set_cmdpath() != 1) return library_error("installation root");
    if (op == "list") {
        const bool json = args.flag("json");
        setcmdent();
        const cmdent_list *list = getcmdent();
        const int why = errno;
        if (list == nullptr && why != 0 && why != ENOENT && why != MG_ERR_CMD_EMPTY) {
            endcmdent();
            errno = why;
            return library_error("restricted commands");
        }
        if (!json) std::printf("%8s %s\n", "PRIORITY", "COMMAND");
        for (int i = 0; list != nullptr && i < list->count; ++i) {
            const cmdent &c = list->records[i];
            const std::string command = text_of(c.command, sizeof c.command);
            if (json)
                std::printf("{\"command\":\"%s\",\"priority\":%d}\n", json_escape(command).c_str(), c.priority);
            else
                std::printf("%8d %s\n", c.priority, command.c_str());
        }
        endcmdent();
        return kOk;
    }
    if (op == "clear") return outcome(delcmdall(), "restricted commands", "cleared", nullptr);
    if ((op != "add" && op != "mod" && op != "del") || words.size() != 2)
        return usage_error("commands add|mod|del COMMAND | clear");
    cmdent c;
    std::memset(&c, 0, sizeof c);
    if (words[1].size() >= sizeof c.command) return usage_error("a command has at most 62 characters");
    std::snprintf(c.command, sizeof c.command, "%s", words[1].c_str());
    std::string error;
    if (!number_option(args, "priority", 0, 255, &c.priority, error)) return usage_error(error);
    const int rc = op == "add" ? addcmdent(&c) : op == "mod" ? modcmdent(&c) : delcmdent(c.command);
    return outcome(rc, words[1], verb_of(op), nullptr);
}

// "OPT1:OPT2:OPT3:OPT4", the numbers line of the allowed command file.
bool parse_alcmd_options(const std::string &text, alcmd &e) {
    int v[4];
    size_t start = 0;
    for (int i = 0; i < 4; ++i) {
        const size_t colon = text.find(':', start);
        if ((colon == std::string::npos) != (i == 3)) return false;
        const std::string field = text.substr(start, colon == std::string::npos ? std::string::npos : colon - start);
        if (!parse_int(field.c_str(), -2147483647, 2147483647, &v[i])) return false;
        start = colon + 1;
    }
    if (v[1] < -128 || v[1] > 127) return false;
    e.opt1 = v[0];
    e.opt2 = static_cast<int8_t>(v[1]);
    e.opt3 = v[2];
    e.opt4 = v[3];
    return true;
}

int allowed_commands(const Args &args) {
    const auto &words = args.positional();
    const std::string op = op_of(args);
    if (op == "list") {
        auto list = std::make_unique<alcmd_list>();
        if (get_alcmd_list(list.get()) != 0) return library_error("allowed commands");
        const bool json = args.flag("json");
        if (!json) std::printf("%-40s %4s %4s %4s %4s\n", "PATH", "OPT1", "OPT2", "OPT3", "OPT4");
        for (int i = 0; i < list->count; ++i) {
            const alcmd &e = list->entries[i];
            const std::string path = text_of(e.path, sizeof e.path);
            if (json)
                std::printf("{\"path\":\"%s\",\"opt1\":%d,\"opt2\":%d,\"opt3\":%d,\"opt4\":%d}\n",
                            json_escape(path).c_str(), e.opt1, e.opt2, e.opt3, e.opt4);
            else
                std::printf("%-40s %4d %4d %4d %4d\n", path.c_str(), e.opt1, e.opt2, e.opt3, e.opt4);
        }
        return kOk;
    }
    if (op == "clear")
        return outcome(del_all_alcmd_list(), "allowed commands", "cleared", nullptr);
    const size_t want = op == "del" ? 2 : 3;
    if ((op != "add" && op != "mod" && op != "del") || words.size() != want)
        return usage_error("allowed-commands add|mod PATH OPT1:OPT2:OPT3:OPT4 | del PATH | clear");
    alcmd e;
    std::memset(&e, 0, sizeof e);
    if (words[1].size() >= sizeof e.path - 1) return usage_error("a path has at most 254 characters");
    std::snprintf(e.path, sizeof e.path, "%s", words[1].c_str());
    if (want == 3 && !parse_alcmd_options(words[2], e)) return usage_error("not OPT1:OPT2:OPT3:OPT4: " + words[2]);
    if (op != "del" && check_alcmd(op == "add" ? MG_ALCMD_ADD : MG_ALCMD_MODIFY, &e) != 0) {
        std::fprintf(stderr, "mgctl: %s: the numbers %s are not a valid allowed command entry\n", words[1].c_str(),
                     words[2].c_str());
        return kFailed;
    }
    errno = 0;
    const int rc = op == "add" ? add_alcmd_list(&e) : op == "mod" ? mod_alcmd_list(&e) : del_alcmd_list(&e);
    if (rc != 0) {
        // The list's own failures (already listed, not listed, full) leave no code.
        if (errno == 0) std::fprintf(stderr, "mgctl: %s: refused (already listed, not listed, or the list is full)\n",
                                     words[1].c_str());
        return errno == 0 ? kFailed : library_error(words[1].c_str());
    }
    return changed(words[1], verb_of(op), nullptr);
}

// ---- policy groups ------------------------------------------------------------------------

int policy_groups(const Args &args) {
    const auto &words = args.positional();
    const std::string op = op_of(args);
    if (op == "list") {
        polgrp *list = nullptr;
        int count = 0;
        if (get_all_polgrp(&list, &count) != 0) return library_error("policy groups");
        const bool json = args.flag("json");
        if (!json) std::printf("%4s %s\n", "ID", "NAME");
        for (int i = 0; i < count; ++i) {
            const std::string name = text_of(list[i].name, sizeof list[i].name);
            if (json)
                std::printf("{\"id\":%d,\"name\":\"%s\"}\n", list[i].polgrp_id, json_escape(name).c_str());
            else
                std::printf("%4d %s\n", list[i].polgrp_id, name.c_str());
        }
        std::free(list);
        return kOk;
    }
    const size_t want = op == "del" ? 2 : op == "mod" ? 3 : 2;
    if ((op != "add" && op != "mod" && op != "del") || words.size() != want)
        return usage_error("policy-groups add NAME | mod ID NAME | del ID");
    if (op == "add") {
        if (words[1].size() >= sizeof polgrp::name) return usage_error("a group name has at most 31 characters");
        const int id = add_polgrp(words[1].c_str());
        if (id < 0) return library_error(words[1].c_str());
        return changed(words[1] + " (id " + std::to_string(id) + ")", "added", nullptr);
    }
    int id;
    if (!parse_int(words[1].c_str(), 1, MG_GROUP_ID_MAX, &id)) return usage_error("a policy group number is 1 to 512");
    if (op == "mod" && words[2].size() >= sizeof polgrp::name)
        return usage_error("a group name has at most 31 characters");
    const int rc = op == "mod" ? mod_polgrp(id, words[2].c_str()) : del_polgrp(id);
    return outcome(rc, words[1], verb_of(op), nullptr);
}

int run(const Words &words, std::vector<std::string> valued, std::vector<std::string> flags,
        int (*command)(const Args &)) {
    flags.push_back("json");
    Args args(words, std::move(valued), std::move(flags));
    return args.ok() ? command(args) : usage_error(args.error());
}

}  // namespace

int cmd_facl(const Words &words) { return run(words, {"rule", "mode", "flag", "polgrp"}, {}, facl); }
int cmd_fgroups(const Words &words) { return run(words, {"rule", "member", "name", "mode", "polgrp"}, {}, fgroups); }
int cmd_kill_acl(const Words &words) { return run(words, {"deny", "flag"}, {}, kill_acl); }
int cmd_setuid_acl(const Words &words) { return run(words, {"flag"}, {}, setuid_acl); }
int cmd_commands(const Words &words) { return run(words, {"priority"}, {}, commands); }
int cmd_allowed_commands(const Words &words) { return run(words, {}, {}, allowed_commands); }
int cmd_policy_groups(const Words &words) { return run(words, {}, {}, policy_groups); }

int cmd_services(const Words &words) {
    Args args(words, {"rule"}, {"json"});
    if (!args.ok()) return usage_error(args.error());
    const std::string kind = args.positional().empty() ? "" : args.positional()[0];
    for (int k = 0; k < 3; ++k)
        if (kind == kKinds[k]) return services(k, args);
    return usage_error("services user|group|default [list|set|del|clear]");
}

}  // namespace mgctl
