// The two secure log entry points of the command-line tools: set the writer up
// from the option file, and write one record to the log file.
#include <mossgrove/common.h>
#include <mossgrove/config.h>
#include <mossgrove/seclog.h>

#include <sys/time.h>

#include <cstdio>
#include <cstring>

namespace {

constexpr int kToolSource = 4;
constexpr int kBytesPerMegabyte = 1000000;

}  // namespace

extern "C" {

int cmd_init_seclog(void) noexcept {
    char root[1024], conf[1024 + 32], log_file[1024 + 16];
    if (get_mgroot(root, sizeof root) != 0) return -1;
    snprintf(conf, sizeof conf, "%s/%s/%s", root, "conf", "mgopt.conf");
    MGOptionBuf opt;
    if (ReadMGOptionConfig(conf, &opt) != 0) return -1;
    snprintf(log_file, sizeof log_file, "%s/%s.01", opt.SecureLogDir, "mglog");
    // Rotation stays off for the tools: only the PAM module may drop old records.
    return InitSecureLog("MGLog", log_file, opt.SecureLogSize * kBytesPerMegabyte,
                         opt.SecureLogFileCount, 0);
}

int cmd_save_seclog(int level, const char *program, const char *message) noexcept {
    if (level < 1 || level > 6) return 1;
    struct timeval now;
    if (gettimeofday(&now, nullptr) != 0) return 0;
    SecureLogRecord rec;
    memset(&rec, 0, sizeof rec);
    rec.nSource = kToolSource;
    rec.nFlag = 0;
    rec.nLevel = level;
    rec.tEvent = static_cast<int32_t>(now.tv_sec);
    snprintf(rec.szProgram, sizeof rec.szProgram, "%s", program ? program : "");
    if (get_host_ipaddr(rec.szAddress, sizeof rec.szAddress) == -1)
        snprintf(rec.szAddress, sizeof rec.szAddress, "%s", "127.0.0.1");
    snprintf(rec.szMessage, sizeof rec.szMessage, "%s", message ? message : "");
    return SaveSecureLog(MG_SECLOG_FILE, &rec);
}

}  // extern "C"
