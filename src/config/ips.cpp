// The policy mode file "<root>/data/ips.conf": nineteen switches of the
// kernel module (operation modes, enhancements, options, protections), read
// into the 22-byte mode block, checked, trimmed to what the kernel supports
// and written back as a commented file.
#include <mossgrove/common.h>
#include <mossgrove/config.h>
#include <mossgrove/kernel.h>
#include <mossgrove/stores.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "common/handles.hpp"
#include "common/text.hpp"
#include "common/fileio.hpp"
#include "common/root.hpp"
#include "common/textbuf.hpp"

const char rgconf_order[MG_RGCONF_KEYWORDS][17] = {
    "mMACMODE", "dDACMODE", "kKILLACL", "lSESLOG",  "tROOTSU",   "eMGLOGIN",  "xCOMMAND",  "uSETUID",
    "aMLSINFO", "nROOTEXEC", "vSERVICE", "yENCRYPT", "rPROCESS",  "pPROMISC",  "iMODULE",   "fFIFO",
    "sSYMLINK", "hHARDLINK", "cCHROOT",  "zRESERVED", "zPADDING", "zPADDING",  "",
};

char rgconf_path[1024];

namespace {

// Which words a switch takes in the file.
enum class Words { Mode, OnOff, Ips };

// Value codes as bits of an accepted-value set.
enum : unsigned { kOff = 1, kWarn = 2, kOn = 4, kKernel = 8, kUnset = 16 };

struct Switch {
    char initial;
    Words words;
    unsigned accepted;  // codes a block may hold
};

// Indexed by block byte.
constexpr Switch kSwitches[19] = {
    {'m', Words::Mode, kOff | kWarn | kOn},           {'d', Words::Ips, kOff | kWarn | kOn},
    {'k', Words::Ips, kOff | kWarn | kOn | kKernel},  {'l', Words::OnOff, kOff | kOn | kUnset},
    {'t', Words::OnOff, kOff | kOn},                  {'e', Words::OnOff, kOff | kOn | kUnset},
    {'x', Words::Ips, kOff | kWarn | kOn | kKernel},  {'u', Words::Ips, kOff | kWarn | kOn | kKernel},
    {'a', Words::OnOff, kOff | kOn},                  {'n', Words::OnOff, kOff | kOn | kUnset},
    {'v', Words::Ips, kOff | kWarn | kOn | kUnset},   {'y', Words::OnOff, kOff | kOn | kUnset},
    {'r', Words::OnOff, kOff | kOn | kUnset},         {'p', Words::OnOff, kOff | kOn | kUnset},
    {'i', Words::OnOff, kOff | kOn | kUnset},         {'f', Words::Ips, kOff | kWarn | kOn | kUnset},
    {'s', Words::Ips, kOff | kWarn | kOn | kUnset},   {'h', Words::Ips, kOff | kWarn | kOn | kUnset},
    {'c', Words::Ips, kOff | kWarn | kOn | kUnset},
};

constexpr int kEncryptByte = 11;

unsigned code_bit(unsigned code) {
    switch (code) {
        case MG_RGCONF_OFF: return kOff;
        case MG_RGCONF_WARN: return kWarn;
        case MG_RGCONF_ON: return kOn;
        case MG_RGCONF_KERNEL: return kKernel;
        case MG_RGCONF_NOT_SET: return kUnset;
        default: return 0;
    }
}

int byte_of_initial(char initial) {
    for (int i = 0; i < 19; ++i)
        if (kSwitches[i].initial == initial) return i;
    return -1;
}

// Bytes first..last of the block packed as little-endian words.
bool bytes_ok(const uint32_t *words, int first, int last, bool option_check) {
    for (int b = first; b <= last; ++b) {
        const int at = b - first;
        const unsigned code = (words[at / 4] >> (8 * (at % 4))) & 0xffu;
        unsigned accepted = kSwitches[b].accepted;
        if (option_check && b == kEncryptByte) accepted |= kWarn;
        if ((code_bit(code) & accepted) == 0) return false;
    }
    return true;
}

char *g_token2_next = nullptr;

// One line of the exported file.
struct Line {
    int byte;
    bool optional;
    const char *format;
    const char *comment;
};

struct Section {
    const char *title;
    Line lines[7];
    int count;
};

constexpr Section kLayout[] = {
    {"\n# Operation Modes\n",
     {{0, false, "    MACMODE  = %s\t%s\n", "# MAC Operation Mode : on/warn"},
      {1, false, "    DACMODE  = %s\t%s\n", "# DAC Operation Mode : on/warn"},
      {2, false, "    KILLACL  = %s\t%s\n", "# Kill ACL Mode      : on/warn"}},
     3},
    {"\n# Enhancement Mode\n",
     {{4, false, "    ROOTSU   = %s\t%s\n", "# Root to User Transition : on/off"},
      {5, true, "    MGLOGIN  = %s\t%s\n", "# Sec. Pwd Authentication : on/off"},
      {11, true, "    ENCRYPT  = %s\t%s\n", "# File Encryption         : on/off"}},
     3},
    {"\n# Options\n",
     {{6, false, "    COMMAND  = %s\t%s\n", "# Command Execution Restriction      : on/warn"},
      {7, false, "    SETUID   = %s\t%s\n", "# Setuid Files Execution Restriction : on/warn"},
      {8, false, "    MLSINFO  = %s\t%s\n", "# MLS Information Inheritance        : on/off"},
      {9, false, "    ROOTEXEC = %s\t%s\n", "# Root Execution Process Adjustion   : on/off"},
      {10, true, "    SERVICE  = %s\t%s\n", "# Service Restriction                : on/warn/off"},
      {3, true, "    SESLOG   = %s\t%s\n", "# Session Logging                    : on/off"}},
     6},
    {"\n# Protections\n",
     {{12, true, "    PROCESS  = %s\t%s\n", "# Process Information Restriction : on/off"},
      {13, true, "    PROMISC  = %s\t%s\n", "# Promiscuous Mode Check          : on/off"},
      {14, true, "    MODULE   = %s\t%s\n", "# Module Hiding                   : on/off"},
      {15, true, "    FIFO     = %s\t%s\n", "# FIFO Protection                 : on/warn/off"},
      {16, true, "    SYMLINK  = %s\t%s\n", "# Symbolic Link Protection        : on/warn/off"},
      {17, true, "    HARDLINK = %s\t%s\n", "# Hard Link Protection            : on/warn/off"},
      {18, true, "    CHROOT   = %s\t%s\n", "# CHROOT Environment Protection   : on/warn/off"}},
     7},
};

// The word of a value: three-valued switches are those whose comment names warn.
const char *value_word(const Line &line, unsigned char code) {
    const bool three = strstr(line.comment, "warn") != nullptr;
    switch (code) {
        case MG_RGCONF_OFF: return "off";
        case MG_RGCONF_WARN: return three ? "warn" : "Invalid Value";
        case MG_RGCONF_ON: return "on";
        default: return "Invalid Value";
    }
}

void lay_out(const unsigned char *block, mg::TextBuf &out) {
    out.add("#\n# Mossgrove V2.0 Configuration\n#\n\n");
    for (const Section &s : kLayout) {
        out.add("%s", s.title);
        for (int i = 0; i < s.count; ++i) {
            const Line &l = s.lines[i];
            const unsigned char code = block[l.byte];
            if (l.optional && code == MG_RGCONF_NOT_SET) continue;
            out.add_cut(128, l.format, value_word(l, code), l.comment);
        }
    }
}

// A file given by path, or ips.conf; it must be a regular file.
const char *source_file(const char *path) {
    if (path == nullptr) {
        if (get_confpath() != 1) return nullptr;
        path = rgconf_path;
    }
    return isRegFile(path) == 1 ? path : nullptr;
}

}  // namespace

int get_confpath(void) noexcept {
    if (chk_mgrootdir() != 1) return 0;
    mg::root::strip_root_slash();
    int n = snprintf(rgconf_path, sizeof rgconf_path, "%s/data/ips.conf", mg_root);
    if (n < 0 || static_cast<size_t>(n) >= sizeof rgconf_path) return 0;
    return 1;
}

char *get_token2(char *line) noexcept { return mg::text::next_token(line, g_token2_next); }

void init_rgconfig_to_ns(unsigned char *block) noexcept {
    if (block != nullptr) memset(block, MG_RGCONF_NOT_SET, MG_RGCONF_SIZE);
}

int get_keywd_initial(char *initial, const char *keyword) noexcept {
    if (keyword == nullptr) return -1;
    for (int i = 0; i < MG_RGCONF_KEYWORDS && rgconf_order[i][1] != '\0'; ++i) {
        if (strcmp(rgconf_order[i] + 1, keyword) == 0) {
            if (initial != nullptr) *initial = rgconf_order[i][0];
            return i;
        }
    }
    return -1;
}

int get_mode_value(const char *s) noexcept {
    if (s == nullptr) return -1;
    if (strcmp(s, "warn") == 0) return MG_RGCONF_WARN;
    if (strcmp(s, "on") == 0) return MG_RGCONF_ON;
    return -1;
}

int get_on_value(const char *s) noexcept {
    if (s == nullptr) return -1;
    if (strcmp(s, "off") == 0) return MG_RGCONF_OFF;
    if (strcmp(s, "on") == 0) return MG_RGCONF_ON;
    return -1;
}

int get_ips_value(const char *s) noexcept {
    if (s != nullptr && strcmp(s, "warn") == 0) return MG_RGCONF_WARN;
    return get_on_value(s);
}

int set_value_to_rgconf(int index, unsigned char *block, char initial, const char *value) noexcept {
    const int byte = (initial >= 'a' && initial <= 'y') ? byte_of_initial(initial) : -1;
    if (byte < 0 || block == nullptr) {
        fputs("Invalid Keyword\n", stdout);
        return -1;
    }
    int code = -1;
    switch (kSwitches[byte].words) {
        case Words::Mode: code = get_mode_value(value); break;
        case Words::OnOff: code = get_on_value(value); break;
        case Words::Ips: code = get_ips_value(value); break;
    }
    if (code < 0) {
        const char *keyword = (index >= 0 && index < MG_RGCONF_KEYWORDS) ? rgconf_order[index] + 1 : "";
        printf("Invalid Value: %s = %s\n", keyword, value != nullptr ? value : "");
        return -1;
    }
    block[byte] = static_cast<unsigned char>(code);
    return code;
}

int make_rgconf_from_file(int request, unsigned char *block, const char *path) noexcept {
    if (block == nullptr) return set_errno(EINVAL);
    const char *file = source_file(path);
    if (file == nullptr) return -1;
    mg::UniqueFile in(fopen(file, "r"));
    if (!in) {
        puts("file open failure");
        return -1;
    }
    if (request == MG_RGCONF_REQ_KERNEL) {
        if (_sys_getconf_all(block) < 0) {
            puts("Getting current configuration failure from kernel");
            return -1;
        }
    } else if (request == MG_RGCONF_REQ_UNSET) {
        init_rgconfig_to_ns(block);
    } else {
        puts("Invalid Request");
        return -1;
    }

    int count = 0;
    char line[2048];
    while (fgets(line, sizeof line, in.get()) != nullptr) {
        if (line[0] == '#' || line[0] == '\n' || line[0] == '\0') continue;
        const size_t length = strlen(line);
        char *word = get_token2(line);
        if (word == nullptr) continue;
        // A keyword that ends the line has no value after it.
        const bool at_end = word + strlen(word) == line + length;
        char keyword[256];
        mg::text::copy_cut(keyword, sizeof keyword, word);
        char initial = 0;
        const int index = get_keywd_initial(&initial, keyword);
        if (index < 0 || at_end) continue;
        char *value = get_token2(nullptr);
        if (value == nullptr) continue;
        if (set_value_to_rgconf(index, block, initial, value) < 0) return -1;
        ++count;
    }
    return count;
}

int export_rgconf_to_file(const unsigned char *block, const char *path) noexcept {
    if (block == nullptr) return set_errno(EINVAL);
    if (path == nullptr) {
        if (get_confpath() != 1) return -1;
        path = rgconf_path;
    }
    char tmp[MG_PATH_MAX + 16];
    int n = snprintf(tmp, sizeof tmp, "%s.%d", path, static_cast<int>(time(nullptr)));
    if (n < 0 || static_cast<size_t>(n) >= sizeof tmp) return -1;

    mg::TextBuf text;
    lay_out(block, text);
    if (!text.ok()) return set_errno(ENOMEM);
    int fd = mg::fileio::create_named_temp(tmp);
    if (fd < 0) {
        if (errno != MG_ERR_TEMPFILE) puts("file open failure");
        return -1;
    }
    if (mg::fileio::write_all(fd, text.data(), text.size()) != 0) {
        mg::fileio::discard_temp(fd, tmp);
        return -1;
    }
    return mg::fileio::install_temp(fd, tmp, path);
}

int verify_config(uint32_t w0, uint32_t w1, uint32_t w2, uint32_t w3, uint32_t w4) noexcept {
    const uint32_t words[5] = {w0, w1, w2, w3, w4};
    return bytes_ok(words, 0, 18, false) ? 1 : 0;
}

int verify_config_mode(uint32_t w) noexcept { return bytes_ok(&w, 0, 3, false) ? 1 : 0; }

int verify_config_opt(uint32_t w0, uint32_t w1) noexcept {
    const uint32_t words[2] = {w0, w1};
    return bytes_ok(words, 4, 11, true) ? 1 : 0;
}

int verify_config_ips(uint32_t w0, uint32_t w1) noexcept {
    const uint32_t words[2] = {w0, w1};
    return bytes_ok(words, 12, 18, false) ? 1 : 0;
}

int adjust_not_supported_ips(unsigned char *ips) noexcept {
    if (ips == nullptr) return 0;
    unsigned char kernel[8];
    if (_sys_getconf_ips(kernel) < 0) return 0;
    for (int i = 0; i < 7; ++i)
        if (kernel[i] == MG_RGCONF_NOT_SET) ips[i] = MG_RGCONF_NOT_SET;
    return 1;
}
