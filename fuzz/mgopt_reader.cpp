// Fuzzes the option file reader. The input is read as "mgopt.conf"; a record
// that reads must pass the checker (mail and SMS channels aside, whose servers
// may legitimately be missing), and must survive a write and a second read
// unchanged but for the one trailing '/' that every read takes off a
// directory. (A directory of "/" alone, read from "//", writes back as a file
// that no longer reads: that is how the format is defined.)
#include <mossgrove/config.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

std::string g_dir;

void remove_dir() {
    unlink((g_dir + "/mgopt.conf").c_str());
    unlink((g_dir + "/again.conf").c_str());
    rmdir(g_dir.c_str());
}

// One scratch directory per process, removed at exit.
const std::string &scratch_dir() {
    if (g_dir.empty()) {
        const char *tmp = getenv("TMPDIR");
        std::string templ =
            std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/mgfuzz_opt.XXXXXX";
        if (mkdtemp(templ.data()) == nullptr) abort();
        g_dir = templ;
        atexit(remove_dir);
    }
    return g_dir;
}

void check(bool ok) {
    if (!ok) abort();
}

std::string slurp(const std::string &path) {
    std::string text;
    FILE *f = fopen(path.c_str(), "r");
    check(f != nullptr);
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
    fclose(f);
    return text;
}

void strip_slashes(char *dir) {
    size_t n = strlen(dir);
    while (n > 1 && dir[n - 1] == '/') dir[--n] = '\0';
}

// The text of a record whose directories lost all their trailing slashes.
std::string normalised_text(MGOptionBuf opt, const std::string &path) {
    strip_slashes(opt.SecureLogDir);
    strip_slashes(opt.SecureLogBakDir);
    check(WriteMGOptionConfig(path.c_str(), &opt) == 0);
    return slurp(path);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string path = scratch_dir() + "/mgopt.conf";
    const std::string again = scratch_dir() + "/again.conf";
    FILE *f = fopen(path.c_str(), "w");
    check(f != nullptr);
    check(fwrite(data, 1, size, f) == size);
    check(fclose(f) == 0);

    MGOptionBuf opt;
    if (ReadMGOptionConfig(path.c_str(), &opt) != 0) return 0;

    MGOptionBuf quiet = opt;
    quiet.MailEnable = quiet.SmsEnable = 'N';
    check(CheckMGOptionConfig(&quiet) == 0);
    if (CheckMGOptionConfig(&opt) != 0) return 0;

    check(WriteMGOptionConfig(path.c_str(), &opt) == 0);
    MGOptionBuf back;
    if (ReadMGOptionConfig(path.c_str(), &back) != 0) {
        check(strcmp(opt.SecureLogDir, "/") == 0 || strcmp(opt.SecureLogBakDir, "/") == 0);
        return 0;
    }
    check(normalised_text(opt, path) == normalised_text(back, again));
    return 0;
}
