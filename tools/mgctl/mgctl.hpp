// mgctl: shared pieces of the subcommands.
#pragma once

#include <mossgrove/config.h>

#include <ctime>
#include <string>
#include <string_view>
#include <vector>

namespace mgctl {

// Exit statuses.
inline constexpr int kOk = 0;
inline constexpr int kFailed = 1;
inline constexpr int kUsage = 2;

// The words after the subcommand, with "--name value" options taken apart.
class Args {
public:
    Args(std::vector<std::string> words, std::vector<std::string> valued, std::vector<std::string> flags);
    bool ok() const { return error_.empty(); }
    const std::string &error() const { return error_; }
    bool flag(std::string_view name) const;
    // Value of a "--name value" option, or nullptr.
    const char *value(std::string_view name) const;
    // Every value of an option that may be given more than once, in order.
    std::vector<std::string> values(std::string_view name) const;
    const std::vector<std::string> &positional() const { return positional_; }

private:
    std::vector<std::pair<std::string, std::string>> options_;
    std::vector<std::string> positional_;
    std::string error_;
};

// Prints a usage error to standard error; returns kUsage.
int usage_error(const std::string &text);
// Prints the library's own line for errno ("MOSSGROVE: what: cause"); returns kFailed.
int library_error(const char *what);

// The option file of the installation root; false (with the library's line
// printed) when the root or the file cannot be read.
bool load_options(MGOptionBuf &opt, std::string *path = nullptr);

std::string json_escape(std::string_view text);
// A decimal number in [low, high] and nothing else.
bool parse_int(const char *text, int low, int high, int *out);
// "YYYY-MM-DD HH:MM", local time; false when the text is not that.
bool parse_time(const char *text, time_t *out);

int cmd_check(const Args &args);
int cmd_sessions(const Args &args);
int cmd_log(const std::vector<std::string> &words);
int cmd_lint(const Args &args);
int cmd_users(const std::vector<std::string> &words);
int cmd_categories(const std::vector<std::string> &words);
int cmd_transitions(const std::vector<std::string> &words);
// The access rule stores (rules.cpp).
int cmd_facl(const std::vector<std::string> &words);
int cmd_fgroups(const std::vector<std::string> &words);
int cmd_kill_acl(const std::vector<std::string> &words);
int cmd_setuid_acl(const std::vector<std::string> &words);
int cmd_services(const std::vector<std::string> &words);
int cmd_commands(const std::vector<std::string> &words);
int cmd_allowed_commands(const std::vector<std::string> &words);
int cmd_policy_groups(const std::vector<std::string> &words);

}  // namespace mgctl
