// mgctl: the administration command line of the Mossgrove library.
//
//   mgctl [--root DIR] [--pam-dir DIR] [--utmp FILE] COMMAND [ARGS]
//
// Every subcommand calls the library's own functions (the ones the PAM module
// and the administration tools call); exit status 0 ok, 1 failure, 2 usage.
#include "mgctl/mgctl.hpp"

#include <mossgrove/common.h>
#include <mossgrove/kernel.h>
#include <mossgrove/modctl.h>
#include <mossgrove/seclog.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>

#include "common/paths.hpp"

namespace mgctl {

Args::Args(std::vector<std::string> words, std::vector<std::string> valued, std::vector<std::string> flags) {
    auto listed = [](const std::vector<std::string> &names, const std::string &w) {
        for (const auto &n : names)
            if (w == "--" + n) return true;
        return false;
    };
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string &w = words[i];
        if (listed(valued, w)) {
            if (i + 1 >= words.size()) {
                error_ = w + " needs a value";
                return;
            }
            options_.emplace_back(w.substr(2), words[++i]);
        } else if (listed(flags, w)) {
            options_.emplace_back(w.substr(2), "");
        } else if (w.size() > 1 && w[0] == '-') {
            error_ = "unknown option " + w;
            return;
        } else {
            positional_.push_back(w);
        }
    }
}

bool Args::flag(std::string_view name) const {
    for (const auto &[k, v] : options_)
        if (k == name) return true;
    return false;
}

const char *Args::value(std::string_view name) const {
    for (const auto &[k, v] : options_)
        if (k == name) return v.c_str();
    return nullptr;
}

std::vector<std::string> Args::values(std::string_view name) const {
    std::vector<std::string> out;
    for (const auto &[k, v] : options_)
        if (k == name) out.push_back(v);
    return out;
}

bool parse_int(const char *text, int low, int high, int *out) {
    char *end = nullptr;
    const int saved = errno;  // a library code may still be waiting to be reported
    errno = 0;
    long v = std::strtol(text, &end, 10);
    const bool range = errno == 0;
    errno = saved;
    if (end == text || *end != '\0' || !range || v < low || v > high) return false;
    *out = static_cast<int>(v);
    return true;
}

int usage_error(const std::string &text) {
    std::fprintf(stderr, "mgctl: %s (see mgctl --help)\n", text.c_str());
    return kUsage;
}

namespace {

// What the library's codes without a text of their own mean, for the line
// after the library's "undefined error code" line.
const std::map<int, const char *> kCodeMeaning = {
    {10001, "the account database is empty"}, {10002, "the account database grew while it was read"},
    {10012, "the kernel's MLS user list could not be read"}, {10015, "the kernel's category list could not be read"},
    {10016, "nothing to write"}, {10017, "the temporary file could not be made"},
    {10018, "the store could not be replaced"}, {10019, "the kernel module refused the MLS user table"},
    {10020, "the kernel module refused the category table"}, {10021, "more MLS users than counted"},
    {10022, "fewer than two categories in the kernel module"},
    {10023, "the MLS user store could not be loaded into the kernel module (is there a store?)"},
    {10024, "the category store could not be loaded into the kernel module"},
    {10028, "the uid and the name do not belong together"}, {10029, "the account is already an MLS user"},
    {10030, "the account is not an MLS user"}, {10031, "the account is not in the list"},
    {10033, "the change would leave no security officer"},
    {10034, "the category does not exist, or a user without a category is not an MU"},
    {10035, "uid 0 cannot be made an MLS user"}, {10036, "bad role"}, {10037, "bad security level"},
    {10038, "bad category id"}, {10039, "the default categories cannot be deleted"},
    {10040, "no free category id"}, {10041, "the category tree would be too deep"},
    {10043, "the restricted command list is empty"}, {10044, "missing argument"},
    {10045, "a restricted command record is cut short"}, {10046, "out of memory"},
    {10048, "the restricted command list is full (50 commands)"},
    {10049, "the command is already in the list"}, {10050, "the command is not in the list"},
    {10051, "the kernel module refused the restricted command list; the file is unchanged"},
    {10052, "the transition list is empty"}, {10053, "no such entry in the transition list"},
    {10057, "the transition list is full (20 entries)"}, {10058, "the account is already listed"},
    {10060, "the kernel module refused the transition list"},
    {10072, "the rule file does not exist"}, {10073, "a rule file is malformed or unreadable"},
    {10074, "invalid header or protected path"},
    {10075, "invalid rule entry"}, {10076, "no such entry in the kernel module"},
    {10077, "the entry already exists"},
    {10078, "the kernel module found no such program, user, group or category"},
    {10079, "invalid group member path"}, {10080, "writing the store file failed"}, {10081, "the table is full"},
    {10084, "no policy group with that number"},
    {10101, "the kernel module is not loaded"},
};

}  // namespace

int library_error(const char *what) {
    const int code = errno;
    std::fflush(stdout);
    err_ret("%s", what);
    auto meaning = kCodeMeaning.find(code);
    if (meaning != kCodeMeaning.end()) std::printf("  (%d: %s)\n", code, meaning->second);
    return kFailed;
}

bool load_options(MGOptionBuf &opt, std::string *path) {
    char root[1024];
    if (get_mgroot(root, sizeof root) != 0) {
        library_error("installation root");
        return false;
    }
    std::string file = std::string(root) + "/conf/mgopt.conf";
    if (path != nullptr) *path = file;
    if (ReadMGOptionConfig(file.c_str(), &opt) != 0) {
        library_error(file.c_str());
        return false;
    }
    return true;
}

std::string json_escape(std::string_view text) {
    std::string out;
    for (char c : text) {
        unsigned char u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (u < 0x20) {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\u%04x", u);
            out += esc;
        } else {
            out += c;
        }
    }
    return out;
}

bool parse_time(const char *text, time_t *out) {
    struct tm tm = {};
    const char *end = strptime(text, "%Y-%m-%d %H:%M", &tm);
    if (end == nullptr || *end != '\0') return false;
    tm.tm_isdst = -1;
    *out = mktime(&tm);
    return *out != static_cast<time_t>(-1);
}

namespace {

const char *const kHelp = R"(usage: mgctl [--root DIR] [--pam-dir DIR] [--utmp FILE] COMMAND [ARGS]

Commands:
  status                 the kernel module's state and version
  start                  fill every empty kernel table from its store, then
                         switch enforcement on
  stop                   save the setuid ACL, then switch enforcement off
  suspend                suspend the kernel module
  sync                   write the kernel's file and directory label snapshots
  check --service S --user U [--rhost H] [--tty T] [--ruser R]
        [--at "YYYY-MM-DD HH:MM"] [--phase account|session]
                         dry run of the PAM module's account decision and
                         session limits, with the steps that led to them
  sessions [USER]        the login sessions the limits count, from utmpx
  users [list [--all] [--json] | add|mod|del NAME [--role MU|SA|SO] [--level N]
        [--category C] [--retry N] [--lock|--unlock]]
                         MLS users
  categories [list [--json] | add NAME [--parent C] [--role R] | del C]
                         categories, as a tree
  transitions [list [--json] | add|del ACCOUNT [--word N]]
                         the root-to-user transition list
  facl [list [--json] | add|mod PATH --rule R... | del PATH]
                         the file ACL
  fgroups [list [--json] | add NAME | mod ID|NAME | del ID|NAME]
                         file groups, with their rules and member paths
  kill-acl [list [--json] | add|mod PATH --deny SIGNALS | del PATH]
                         signals refused to a program
  setuid-acl [list [--json] | add|mod|del PATH [--flag 0|1] | find DIR]
                         the setuid ACL
  services user|group|default [list [--json] | set [NAME] --rule R... | del [NAME]
        | clear]         service restriction rules
  commands [list [--json] | add|mod|del COMMAND [--priority N] | clear]
                         restricted commands
  allowed-commands [list [--json] | add|mod PATH OPT1:OPT2:OPT3:OPT4 | del PATH
        | clear]         allowed commands
  policy-groups [list [--json] | add NAME | mod ID NAME | del ID]
                         policy groups
  lint                   check the configuration and rule files
  log show [--since T] [--until T] [--grep TEXT] [--json]
  log size | backup | reduce | clear
  log write LEVEL MESSAGE
                         the secure log, with the settings of mgopt.conf

Global options:
  --root DIR             installation root instead of the one /etc/.evmg names
  --pam-dir DIR          PAM rule directory instead of /etc/security/pam_acl_conf
  --utmp FILE            utmpx file instead of the system's
  COMMAND --help         help for one command

Exit status: 0 ok (for check: allowed), 1 failure (refused), 2 usage error.
)";

const std::map<std::string, const char *> kCommandHelp = {
    {"status", "usage: mgctl status\nPrints the kernel module's state (running, stopped, suspended, not loaded) and version.\n"},
    {"start",
     "usage: mgctl start\nFills every kernel table that is still empty from its store (MLS users and\n"
     "categories must load; the others are best effort, reported to syslog), then\n"
     "switches enforcement on. A running module is left as it is.\n"},
    {"stop", "usage: mgctl stop\nSaves the setuid ACL the kernel gathered, then switches enforcement off.\n"},
    {"suspend", "usage: mgctl suspend\nSuspends the kernel module's enforcement.\n"},
    {"sync", "usage: mgctl sync\nWrites the kernel's file and directory labels to <root>/data/mls_file and mls_dir.\n"},
    {"check",
     "usage: mgctl check --service S --user U [--rhost H] [--tty T] [--ruser R]\n"
     "                   [--at \"YYYY-MM-DD HH:MM\"] [--phase account|session]\n"
     "Runs the PAM module's account and session entry points as a dry run, with the\n"
     "items given (as a login service sets them: --tty pts/3, --rhost 10.1.2.3): nothing\n"
     "is logged or registered. Prints the operation modes, each rule file consulted, the\n"
     "line that decided, the sessions counted and the limit that applied. The session\n"
     "phase runs when the account phase allowed; --phase runs one phase only. The time\n"
     "defaults to now. Exit status 0 when every phase run would succeed, 1 otherwise.\n"},
    {"sessions", "usage: mgctl sessions [USER]\nLists the utmpx login sessions and counts them per user as the limits do.\n"},
    {"lint",
     "usage: mgctl lint\nChecks pam_acl.conf, the access rule files, the session files and mgopt.conf;\n"
     "prints FILE:LINE: error|warning: message. Exit status 1 when there is an error.\n"},
    {"users",
     "usage: mgctl users [list] [--all] [--json]\n"
     "       mgctl users add|mod NAME [--role MU|SA|SO] [--level 0-7] [--category NAME|ID]\n"
     "                               [--retry 1-99] [--lock|--unlock]\n"
     "       mgctl users del NAME\n"
     "Lists the MLS users (every account with --all), or adds, changes or deletes one,\n"
     "in the kernel module's table and the store, with its security password entry.\n"},
    {"categories",
     "usage: mgctl categories [list] [--json]\n"
     "       mgctl categories add NAME [--parent NAME|ID] [--role UX|MU|SA|SO]\n"
     "       mgctl categories del NAME|ID\n"
     "Lists the categories as a tree, or adds one under a parent (the root by default)\n"
     "or deletes one (its children and users are left as they are).\n"},
    {"transitions",
     "usage: mgctl transitions [list] [--json]\n"
     "       mgctl transitions add|del ACCOUNT [--word N]\n"
     "Lists, adds to or deletes from the root-to-user transition list (at most 20).\n"},
    {"facl",
     "usage: mgctl facl [list] [--json]\n"
     "       mgctl facl add|mod PATH [--rule RULE]... [--mode 0-2] [--flag 0|1] [--polgrp 0-512]\n"
     "       mgctl facl del PATH\n"
     "Lists the file ACL (each protected path with its rule lines), or adds, changes\n"
     "or deletes the entry of a path, in the kernel module's table and then in\n"
     "<root>/data/acl_file. A RULE is a line of the store file,\n"
     "TYPE:ID:NAME:PROGRAM:ADDRESS:PERMS, for example 1:500:user1:/usr/bin/vi::rwx\n"
     "(type 0 everyone, 1 user, 2 category, 4 role, 16 group; permissions from\n"
     "omcdnrwx). An entry needs 1 to 32 rules; mod keeps what is not given, and\n"
     "--rule there replaces every rule.\n"},
    {"fgroups",
     "usage: mgctl fgroups [list] [--json]\n"
     "       mgctl fgroups add NAME [--rule RULE]... [--member PATH|FLAG:PATH]... [--mode 0-2]\n"
     "                              [--polgrp 0-512]\n"
     "       mgctl fgroups mod ID|NAME [--name NEW] [--rule RULE]... [--member ...]... [...]\n"
     "       mgctl fgroups del ID|NAME\n"
     "Lists the file groups, or creates (the kernel numbers it), changes or deletes\n"
     "one, in the kernel module's table and then in <root>/data/acl_fgroup. Rules are\n"
     "written as for facl; a member path has flag 0 unless given as FLAG:PATH. mod keeps\n"
     "what is not given; --rule or --member there replaces all rules or members.\n"},
    {"kill-acl",
     "usage: mgctl kill-acl [list] [--json]\n"
     "       mgctl kill-acl add PATH --deny SIGNALS [--flag 0|1]\n"
     "       mgctl kill-acl mod PATH [--deny SIGNALS] [--flag 0|1]\n"
     "       mgctl kill-acl del PATH\n"
     "Lists or changes the signals that may not be sent to a program, in the kernel\n"
     "module's table and then in <root>/data/acl_kill. SIGNALS are names joined by\n"
     "':' from HUP KILL TERM STOP CONT USR1 USR2 ETC (every other signal), or ALL.\n"},
    {"setuid-acl",
     "usage: mgctl setuid-acl [list] [--json]\n"
     "       mgctl setuid-acl add|mod|del PATH [--flag 0|1]\n"
     "       mgctl setuid-acl find DIR\n"
     "Lists or changes the setuid ACL, in the kernel module's table and then in\n"
     "<root>/data/acl_setuid (a program must exist to be added). find prints every\n"
     "set-user-id or set-group-id file below DIR.\n"},
    {"services",
     "usage: mgctl services user|group|default [list] [--json]\n"
     "       mgctl services user|group set NAME --rule RULE...\n"
     "       mgctl services default set --rule RULE...\n"
     "       mgctl services user|group del NAME | default del\n"
     "       mgctl services user|group|default clear\n"
     "Lists the service restriction rules of one set, or sets (adds or replaces)\n"
     "the rules of an account, a group or the default, deletes them, or clears the\n"
     "set, in the kernel module and then in <root>/data/alsvc_user, alsvc_group or\n"
     "alsvc_def. A RULE is a rule line of those files, SERVICE:VALUE1:VALUE2:ADDRESS,\n"
     "for example sshd:1:0:10.0.0.1.\n"},
    {"commands",
     "usage: mgctl commands [list] [--json]\n"
     "       mgctl commands add|mod COMMAND [--priority N]\n"
     "       mgctl commands del COMMAND | clear\n"
     "Lists or changes the restricted command list <root>/data/cmd_file (at most 50),\n"
     "which is loaded into the kernel module after every change. Priority 1 places a\n"
     "command ahead of those of priority 0.\n"},
    {"allowed-commands",
     "usage: mgctl allowed-commands [list] [--json]\n"
     "       mgctl allowed-commands add|mod PATH OPT1:OPT2:OPT3:OPT4\n"
     "       mgctl allowed-commands del PATH | clear\n"
     "Lists or changes the allowed command list (at most 50), in the kernel module\n"
     "and then in <root>/data/alcmd_file. The numbers are those of the file's line:\n"
     "OPT1 1-3; OPT2 0 or 1 (OPT3 and OPT4 0), 7 (OPT3 1-7, OPT4 1) or 6 (OPT3 1-7,\n"
     "OPT4 2 or a category of type 2).\n"},
    {"policy-groups",
     "usage: mgctl policy-groups [list] [--json]\n"
     "       mgctl policy-groups add NAME | mod ID NAME | del ID\n"
     "Lists or changes the policy groups of <root>/data/policy_group; a new group\n"
     "gets the lowest free number (1 to 512).\n"},
    {"log",
     "usage: mgctl log show [--since T] [--until T] [--grep TEXT] [--json]\n"
     "       mgctl log size | backup | reduce | clear\n"
     "       mgctl log write LEVEL MESSAGE\n"
     "show lists the entries of every generation, oldest first (times as \"YYYY-MM-DD HH:MM\").\n"
     "backup copies the generations to SecureLogBakDir; reduce keeps CurrentFileRate percent\n"
     "of the current file; clear removes the older generations and treats the current file\n"
     "by ClearAllLog and CurrentFileRate (after a backup when BackupAndClear is Y); write\n"
     "adds one entry of level 1 to 6.\n"},
};

int cmd_status() {
    int status = get_module_status();
    const char *word = status == MG_STATUS_RUNNING     ? "running"
                       : status == MG_STATUS_STOPPED   ? "stopped"
                       : status == MG_STATUS_SUSPENDED ? "suspended"
                       : status == MG_STATUS_ABSENT    ? "not loaded"
                                                       : "unknown (the information call failed)";
    std::printf("kernel module: %s\n", word);
    MGModuleInfo info;
    if (status != MG_STATUS_ABSENT && module_info(&info) == 0)
        std::printf("version: %.*s\n", static_cast<int>(sizeof info.version), info.version);
    return status == MG_STATUS_FAILED ? kFailed : kOk;
}

int cmd_control(const std::string &name) {
    MGModuleInfo info;
    std::memset(&info, 0, sizeof info);
    int rc = name == "start"     ? module_start(&info)
             : name == "stop"    ? module_stop()
             : name == "suspend" ? module_suspend()
                                 : module_sync();
    if (rc < 0) return library_error(name.c_str());
    const bool already = rc == 1 && (name == "start" || name == "stop" || name == "suspend");
    std::printf("%s: %s\n", name.c_str(), already ? "nothing to do, the module already was in that state" : "done");
    return kOk;
}

}  // namespace
}  // namespace mgctl

using namespace mgctl;

int main(int argc, char **argv) {
    std::vector<std::string> words(argv + 1, argv + argc);
    size_t i = 0;
    const char *pam_dir = nullptr, *utmp = nullptr;
    for (; i < words.size() && words[i].rfind("--", 0) == 0; ++i) {
        const std::string &w = words[i];
        if (w == "--help") {
            std::fputs(kHelp, stdout);
            return kOk;
        }
        if (i + 1 >= words.size()) return usage_error(w + " needs a value");
        if (w == "--root")
            mg::paths::override_root(words[++i].c_str());
        else if (w == "--pam-dir")
            pam_dir = words[++i].c_str();
        else if (w == "--utmp")
            utmp = words[++i].c_str();
        else
            return usage_error("unknown option " + w);
    }
    mg::paths::override_for_tests(nullptr, pam_dir, utmp);
    if (i >= words.size()) return usage_error("no command");
    const std::string command = words[i];
    std::vector<std::string> rest(words.begin() + static_cast<long>(i) + 1, words.end());
    auto help = kCommandHelp.find(command);
    if (help == kCommandHelp.end()) return usage_error("unknown command " + command);
    for (const auto &w : rest)
        if (w == "--help") {
            std::fputs(help->second, stdout);
            return kOk;
        }

    if (command == "status" || command == "start" || command == "stop" || command == "suspend" || command == "sync") {
        if (!rest.empty()) return usage_error(command + " takes no arguments");
        return command == "status" ? cmd_status() : cmd_control(command);
    }
    if (command == "log") return cmd_log(rest);
    if (command == "users") return cmd_users(rest);
    if (command == "categories") return cmd_categories(rest);
    if (command == "transitions") return cmd_transitions(rest);
    if (command == "facl") return cmd_facl(rest);
    if (command == "fgroups") return cmd_fgroups(rest);
    if (command == "kill-acl") return cmd_kill_acl(rest);
    if (command == "setuid-acl") return cmd_setuid_acl(rest);
    if (command == "services") return cmd_services(rest);
    if (command == "commands") return cmd_commands(rest);
    if (command == "allowed-commands") return cmd_allowed_commands(rest);
    if (command == "policy-groups") return cmd_policy_groups(rest);
    if (command == "check") return cmd_check(Args(rest, {"service", "user", "rhost", "tty", "ruser", "at", "phase"}, {}));
    if (command == "sessions") return cmd_sessions(Args(rest, {}, {}));
    return cmd_lint(Args(rest, {}, {}));
}
