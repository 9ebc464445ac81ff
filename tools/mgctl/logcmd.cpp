// mgctl log: reading the secure log generations, and the maintenance
// operations with the settings of mgopt.conf.
#include "mgctl/mgctl.hpp"

#include <mossgrove/seclog.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>

namespace mgctl {
namespace {

constexpr long long kMegabyte = 1000000;

std::string generation(const MGOptionBuf &opt, int n) {
    char name[1100];
    std::snprintf(name, sizeof name, "%s/mglog.%02d", opt.SecureLogDir, n);
    return name;
}

std::string local_time(time_t t) {
    char text[32];
    struct tm tm;
    if (localtime_r(&t, &tm) == nullptr || strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &tm) == 0) return "?";
    return text;
}

// One file line: eight tab-separated fields.
struct Entry {
    std::string field[8];
    bool parse(const std::string &line) {
        size_t start = 0;
        for (int i = 0; i < 8; ++i) {
            size_t tab = i < 7 ? line.find('\t', start) : std::string::npos;
            if (i < 7 && tab == std::string::npos) return false;
            field[i] = line.substr(start, tab == std::string::npos ? std::string::npos : tab - start);
            start = tab + 1;
        }
        return true;
    }
};

int show(const MGOptionBuf &opt, const Args &args) {
    time_t since = 0, until = 0;
    if (args.value("since") != nullptr && !parse_time(args.value("since"), &since))
        return usage_error("--since takes \"YYYY-MM-DD HH:MM\"");
    if (args.value("until") != nullptr && !parse_time(args.value("until"), &until))
        return usage_error("--until takes \"YYYY-MM-DD HH:MM\"");
    const char *grep = args.value("grep");
    const bool json = args.flag("json");
    if (!json) std::printf("%-19s %-3s %-5s %-15s %-15s %s\n", "TIME", "SRC", "LEVEL", "PROGRAM", "ADDRESS", "MESSAGE");
    // Oldest generation first; inside a file, lines are in the order written.
    for (int n = opt.SecureLogFileCount; n >= 1; --n) {
        std::ifstream in(generation(opt, n));
        std::string line;
        for (int lineno = 1; std::getline(in, line); ++lineno) {
            Entry e;
            if (!e.parse(line)) {
                std::fprintf(stderr, "mgctl: %s:%d: not a secure log entry\n", generation(opt, n).c_str(), lineno);
                continue;
            }
            time_t event = std::atol(e.field[4].c_str());
            if ((since != 0 && event < since) || (until != 0 && event > until)) continue;
            if (grep != nullptr && e.field[7].find(grep) == std::string::npos) continue;
            if (json)
                std::printf("{\"source\":%s,\"event\":%s,\"level\":%s,\"logged\":%s,\"time\":%s,\"program\":\"%s\","
                            "\"address\":\"%s\",\"message\":\"%s\"}\n",
                            std::to_string(std::atol(e.field[0].c_str())).c_str(),
                            std::to_string(std::atol(e.field[1].c_str())).c_str(),
                            std::to_string(std::atol(e.field[2].c_str())).c_str(),
                            std::to_string(std::atol(e.field[3].c_str())).c_str(), std::to_string(event).c_str(),
                            json_escape(e.field[5]).c_str(), json_escape(e.field[6]).c_str(),
                            json_escape(e.field[7]).c_str());
            else
                std::printf("%-19s %-3s %-5s %-15s %-15s %s\n", local_time(event).c_str(), e.field[0].c_str(),
                            e.field[2].c_str(), e.field[5].c_str(), e.field[6].c_str(), e.field[7].c_str());
        }
    }
    return kOk;
}

int backup(const MGOptionBuf &opt) {
    if (opt.SecureLogBakDir[0] == '\0') {
        std::fprintf(stderr, "mgctl: SecureLogBakDir is not set in mgopt.conf\n");
        return kFailed;
    }
    if (BackupSecureLog(opt.SecureLogDir, opt.SecureLogBakDir, opt.SecureLogFileCount) != 0)
        return library_error("backup");
    std::printf("backed up into %s\n", opt.SecureLogBakDir);
    return kOk;
}

}  // namespace

int cmd_log(const std::vector<std::string> &words) {
    if (words.empty()) return usage_error("log needs an operation");
    const std::string op = words[0];
    Args args(std::vector<std::string>(words.begin() + 1, words.end()), {"since", "until", "grep"}, {"json"});
    if (!args.ok()) return usage_error(args.error());
    if (op != "show" && op != "size" && op != "backup" && op != "reduce" && op != "clear" && op != "write")
        return usage_error("unknown log operation " + op);
    if ((op == "write") != !args.positional().empty() || (op == "write" && args.positional().size() != 2))
        return usage_error(op == "write" ? "log write takes LEVEL and MESSAGE" : "log " + op + " takes no arguments");
    long level = 0;
    if (op == "write") {
        char *end = nullptr;
        level = std::strtol(args.positional()[0].c_str(), &end, 10);
        if (*end != '\0' || level < 1 || level > 6) return usage_error("LEVEL is 1 to 6");
    }
    MGOptionBuf opt;
    if (!load_options(opt)) return kFailed;
    const long long size = opt.SecureLogSize * kMegabyte;
    const int file_size = size > 0x7fffffff ? 0x7fffffff : static_cast<int>(size);

    if (op == "show") return show(opt, args);
    if (op == "size") {
        int total = GetSecureLogSize(opt.SecureLogDir, opt.SecureLogFileCount);
        if (total < 0) return library_error("size");
        std::printf("%d bytes in %s (limit %lld bytes per file, %d files)\n", total, opt.SecureLogDir, size,
                    opt.SecureLogFileCount);
        return kOk;
    }
    if (op == "backup") return backup(opt);
    if (op == "reduce") {
        if (opt.CurrentFileRate >= 100) {
            std::printf("CurrentFileRate is 100: the current file is kept whole\n");
            return kOk;
        }
        if (ReduceSecureLog(generation(opt, 1).c_str(), file_size, opt.CurrentFileRate) != 0)
            return library_error("reduce");
        std::printf("reduced %s\n", generation(opt, 1).c_str());
        return kOk;
    }
    if (op == "clear") {
        if (opt.BackupAndClear == 'Y' && opt.SecureLogBakDir[0] != '\0' && backup(opt) != kOk) return kFailed;
        if (ClearSecureLog(opt.SecureLogDir, file_size, opt.ClearAllLog == 'Y' ? 0 : opt.CurrentFileRate) != 0)
            return library_error("clear");
        std::printf("cleared %s\n", opt.SecureLogDir);
        return kOk;
    }
    // write
    if (cmd_init_seclog() != 0) return library_error("secure log set-up");
    if (cmd_save_seclog(static_cast<int>(level), "mgctl", args.positional()[1].c_str()) != 0)
        return library_error("write");
    return kOk;
}

}  // namespace mgctl
