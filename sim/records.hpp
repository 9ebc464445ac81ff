// Record layouts that cross the simulated kernel boundary. They mirror the
// layouts the library exchanges with the kernel module; the simulator keeps
// its own copy so that it never depends on the library's headers beyond the
// gateway's (kernel.h).
#pragma once

#include <mossgrove/kernel.h>

#include <cstddef>
#include <cstdint>

namespace mgsim {

// MLS user record (1324 bytes, key: uid).
struct MuRecord {
    int32_t uid;
    int32_t gid;
    int32_t level;
    int32_t category;
    int8_t retry;
    uint8_t flags;
    uint8_t role;
    uint8_t admin;
    char name[24];
    char group[256];
    char home[1023];
    uint8_t disabled;
};
static_assert(sizeof(MuRecord) == 1324 && offsetof(MuRecord, role) == 18 &&
              offsetof(MuRecord, name) == 20 && offsetof(MuRecord, home) == 300);

// Category record (56 bytes, key: id).
struct CatRecord {
    int32_t id;
    uint8_t depth;
    uint8_t role;
    uint8_t reserved;
    char name[33];
    uint8_t path[16];
};
static_assert(sizeof(CatRecord) == 56 && offsetof(CatRecord, name) == 7 &&
              offsetof(CatRecord, path) == 40);

// Restricted command record (64 bytes, key: command).
struct CmdRecord {
    char command[63];
    uint8_t priority;
};
static_assert(sizeof(CmdRecord) == 64);

// Root-to-user transition record (8 bytes).
struct SuRecord {
    int32_t uid;
    int32_t word;
};
static_assert(sizeof(SuRecord) == 8);

// Rule entry shared by file ACL and file groups (1080 bytes).
struct RuleEntry {
    uint32_t type;
    uint32_t id;
    char name[32];
    uint32_t reserved;
    char path[1024];
    uint32_t perm;
    uint32_t in_use;
    uint32_t ipaddr;
};
static_assert(sizeof(RuleEntry) == 1080 && offsetof(RuleEntry, path) == 44 &&
              offsetof(RuleEntry, ipaddr) == 1076);

// File ACL header (1040 bytes, key: path).
struct FaclHdr {
    char path[1024];
    int32_t rule_cnt;
    int32_t mode;
    uint16_t flag;
    uint16_t pad;
    int32_t polgrp_id;
};
static_assert(sizeof(FaclHdr) == 1040 && offsetof(FaclHdr, polgrp_id) == 1036);

// File group header (52 bytes, key: fgroup_id).
struct FgroupHdr {
    int32_t fgroup_id;
    char name[32];
    int32_t rule_cnt;
    int32_t member_cnt;
    int32_t mode;
    int32_t polgrp_id;
};
static_assert(sizeof(FgroupHdr) == 52 && offsetof(FgroupHdr, polgrp_id) == 48);

// File group member (1028 bytes).
struct MemberPath {
    char path[1024];
    uint16_t flag;
    uint16_t pad;
};
static_assert(sizeof(MemberPath) == 1028);

// Kill ACL entry (1032 bytes, key: path).
struct KillAcl {
    char path[1024];
    int32_t flag;
    uint32_t denymask;
};
static_assert(sizeof(KillAcl) == 1032);

// Setuid ACL entry (1028 bytes, key: path); also the auto-detected list.
struct SetuidAcl {
    int32_t flag;
    char path[1024];
};
static_assert(sizeof(SetuidAcl) == 1028 && offsetof(SetuidAcl, path) == 4);

// Service-rule header (40 bytes, key: id) and rule (28 bytes).
struct AlsvcHdr {
    int32_t rule_cnt;
    int32_t id;
    char name[32];
};
static_assert(sizeof(AlsvcHdr) == 40);

struct AlsvcRule {
    int32_t value1;
    int32_t value2;
    uint32_t ipaddr;
    char service[16];
};
static_assert(sizeof(AlsvcRule) == 28);

// Allowed command entry (272 bytes).
struct AlcmdEntry {
    char path[256];
    int32_t opt1;
    int8_t opt2;
    uint8_t pad[3];
    int32_t opt3;
    int32_t opt4;
};
static_assert(sizeof(AlcmdEntry) == 272 && offsetof(AlcmdEntry, opt3) == 264);

// The simulator's 24-byte label snapshot record (sub-commands 60 and 61).
struct MlsSnapshot {
    uint64_t ino;
    uint64_t dev;
    int32_t label;  // packed file label
    int32_t reserved;
};
static_assert(sizeof(MlsSnapshot) == MG_MLS_LABEL_RECORD_SIZE);

static_assert(sizeof(MGLoginOrigin) == 56);

// Table limits of the simulated kernel.
inline constexpr size_t kPathMax = 1024;
inline constexpr int kMaxMlsUsers = 8192;
inline constexpr int kMaxCategories = 128;
inline constexpr int kMaxCommands = 50;
inline constexpr int kMaxSu = 20;
inline constexpr int kMaxFacl = 4096;
inline constexpr int kMaxRules = 32;
inline constexpr int kMaxFgroups = 512;
inline constexpr int kMaxMembers = 1024;
inline constexpr int kMaxKillAcl = 1024;
inline constexpr int kMaxSetuidAcl = 1024;
inline constexpr int kMaxAlcmd = 50;
inline constexpr int kMaxOrigins = 4096;
inline constexpr int kMaxAlsvcHeaders = 4096;
inline constexpr int kMaxAlsvcRules = 256;

}  // namespace mgsim
