// mgctl: the administration command line of the Mossgrove library.
//
//   mgctl [--root DIR] [--pam-dir DIR] [--utmp FILE] COMMAND [ARGS]
//
// Every subcommand calls the library's own functions (the ones the PAM module
// and the administration tools call); exit status 0 ok, 1 failure, 2 usage.
#include "mgctl/mgctl.hpp"

#include <mossgrove/common.h>
#include <mossgrove/kernel.h>
#include <mossgrove/seclog.h>

#include <cerrno>
#include <cstdio>
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

int usage_error(const std::string &text) {
    std::fprintf(stderr, "mgctl: %s (see mgctl --help)\n", text.c_str());
    return kUsage;
}

int library_error(const char *what) {
    std::fflush(stdout);
    err_ret("%s", what);
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
  suspend                suspend the kernel module
  sync                   write the kernel's file and directory label snapshots
  check --service S --user U [--rhost H] [--tty T] [--ruser R]
        [--at "YYYY-MM-DD HH:MM"] [--phase account|session]
                         dry run of the PAM module's account decision and
                         session limits, with the steps that led to them
  sessions [USER]        the login sessions the limits count, from utmpx
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
    int rc = name == "suspend" ? module_suspend() : module_sync();
    if (rc < 0) return library_error(name.c_str());
    std::printf("%s: done\n", name.c_str());
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

    if (command == "status" || command == "suspend" || command == "sync") {
        if (!rest.empty()) return usage_error(command + " takes no arguments");
        return command == "status" ? cmd_status() : cmd_control(command);
    }
    if (command == "log") return cmd_log(rest);
    if (command == "check") return cmd_check(Args(rest, {"service", "user", "rhost", "tty", "ruser", "at", "phase"}, {}));
    if (command == "sessions") return cmd_sessions(Args(rest, {}, {}));
    return cmd_lint(Args(rest, {}, {}));
}
