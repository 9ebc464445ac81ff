// The simulated kernel's state: every table, the information block and the
// simulator's own settings, kept in one file shared by all processes.
#pragma once

#include "records.hpp"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace mgsim {

inline constexpr const char *kStateEnv = "MGSIM_STATE";
inline constexpr const char *kFailEnv = "MGSIM_FAIL";
inline constexpr const char *kLogEnv = "MGSIM_LOG";
inline constexpr const char *kAbsentEnv = "MGSIM_ABSENT";
inline constexpr const char *kDefaultVersion = "2.0.8";

// One failure injection: calls of `sub` fail with `err`; `remaining` < 0 means always.
struct FailRule {
    int32_t sub;
    int32_t err;
    int32_t remaining;
};

struct ProcEntry {
    int32_t pid;
    uint8_t role;
    uint8_t auth;  // set through sub-command 13 flag 1
    uint8_t pad[2];
    int32_t level;
    int32_t category;
    uint64_t start;  // process start time when set; guards against pid reuse
};

struct FileEntry {
    std::string path;  // canonical path
    MGFileLabel label;
    uint8_t is_dir;
    uint64_t ino;
    uint64_t dev;
};

struct FaclEntry {
    FaclHdr hdr;
    std::vector<RuleEntry> rules;
};

struct FgroupEntry {
    FgroupHdr hdr;
    std::vector<RuleEntry> rules;
    std::vector<MemberPath> members;
};

struct AlsvcEntry {
    AlsvcHdr hdr;
    std::vector<AlsvcRule> rules;
};

struct State {
    // Simulator settings.
    uint8_t absent = 0;
    std::string log_path;
    std::vector<FailRule> fails;
    // Information block.
    std::string version = kDefaultVersion;
    int32_t status = MG_STATUS_STOPPED;
    std::array<uint8_t, 22> conf{};
    // Labels.
    std::vector<ProcEntry> procs;
    std::vector<int32_t> setpids;
    std::vector<FileEntry> files;
    // Policy tables.
    std::vector<MuRecord> users;
    std::vector<CatRecord> cats;
    std::vector<CmdRecord> cmds;
    std::vector<SuRecord> su;
    std::vector<FaclEntry> facl;
    std::vector<FgroupEntry> fgroups;
    std::vector<KillAcl> kill_acl;
    std::vector<SetuidAcl> setuid_acl;
    std::vector<SetuidAcl> auto_dl;
    std::vector<AlcmdEntry> alcmd;
    std::vector<MGLoginOrigin> origins;
    std::array<std::vector<AlsvcEntry>, 3> alsvc;
    std::string kernlog;
    std::string seslog;
    std::string sesuser;

    State();
};

// The configuration block a freshly loaded module holds.
std::array<uint8_t, 22> default_conf();

// The state file: a 40-byte header at offset 0 names the region that holds
// the current payload (offset, length, checksum, generation). A write puts
// the new payload in a region that does not overlap the current one, then
// rewrites the header with one small write: a writer killed at any moment
// leaves the old or the new state, and no block is ever freed (replacing
// files costs milliseconds on some file systems).
struct FileHeader {
    char magic[8];
    uint32_t format;
    uint32_t length;
    uint64_t offset;
    uint64_t generation;
    uint32_t checksum;         // of the payload
    uint32_t header_checksum;  // of the 36 bytes before it
};
static_assert(sizeof(FileHeader) == 40);

// A whole file image (header at 0, payload after it); decode accepts any
// image whose header is intact and whose payload matches its checksum.
std::string encode(const State &s);
bool decode(std::string_view bytes, State *out);
// An image around a payload, with a valid header.
std::string frame(std::string_view payload);

// "sub:errno[:times],..." ; returns false on malformed rules.
bool parse_fail_rules(std::string_view text, std::vector<FailRule> *out);
std::string format_fail_rules(const std::vector<FailRule> &rules);

// A locked view of the state file for one call (or one batch). The state is
// read on open and written back by commit() when `dirty` was set. Each
// process keeps the last state it read or wrote, and reuses it while the
// file's header shows the same generation, length and checksum.
class Session {
public:
    // path: the state file. Fails (returns false, errno set) when the lock
    // file or the state file can't be opened.
    bool open(const std::string &path);
    bool commit();
    void close();
    ~Session() { close(); }
    Session() = default;
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    State &state();
    bool dirty = false;
    bool was_reset = false;  // the file was damaged and has been reset

private:
    std::string path_;
    int lock_fd_ = -1;
    int fd_ = -1;
    FileHeader active_{};  // header of the state read (zero when none)
};

// 0: the state file is intact, empty or missing; 1: damaged; -1: error.
// Reads under the lock and repairs nothing.
int check_file(const std::string &path);

// Process start time of a pid (0 when unknown), from /proc.
uint64_t process_start(int pid);

}  // namespace mgsim
