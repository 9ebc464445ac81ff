// The system-call gateway: every exchange with the kernel module is one call of
// system call 223 with a sub-command. Arguments are checked here, before the
// kernel is reached.
#include <mossgrove/common.h>
#include <mossgrove/kernel.h>
#include "kernel/gateway.hpp"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace {

constexpr int kEINVAL = 22;
constexpr int kESRCH = 3;

// One call of the gateway. Values travel as long so that pointers are not cut
// on 64-bit hosts.
int mg_call(long sub, const void *ptr = nullptr, long arg2 = 0, long len = 0, long flag = 0) {
    return static_cast<int>(syscall(MG_SYSCALL_NR, sub, reinterpret_cast<long>(ptr), arg2, len, flag));
}

long ptr_arg(const void *p) { return reinterpret_cast<long>(p); }

int invalid() { return set_errno(kEINVAL); }

MGProcLabel unpack_proc(int pid, int label) {
    MGProcLabel b{};
    b.role = static_cast<unsigned char>(MG_PLABEL_ROLE(label));
    b.level = MG_PLABEL_LEVEL(label);
    b.category = MG_PLABEL_CAT(label);
    b.pid = pid;
    return b;
}

// Sub-commands 26 and 28 answer with the error number itself.
int errno_result(long sub, void *list, int count) {
    if (list == nullptr) return -1;
    int r = mg_call(sub, list, 0, count);
    return r != 0 ? set_errno(r) : 0;
}

// List reads: capacity in, filled count out.
int list_read(long sub, void *buf, int *count) {
    if (buf == nullptr || count == nullptr || *count < 1) return invalid();
    int r = mg_call(sub, buf, 0, *count);
    if (r < 0) return -1;
    *count = r;
    return 0;
}

// Service-rule tables 0, 1 and 2 each have their own sub-command numbers.
bool alsvc_sub(int table, long first, long second, long third, long *sub) {
    switch (table) {
        case 0: *sub = first; return true;
        case 1: *sub = second; return true;
        case 2: *sub = third; return true;
        default: return false;
    }
}

int hdr_int(const void *hdr, int index) {
    int v;
    memcpy(&v, static_cast<const char *>(hdr) + index * sizeof(int), sizeof v);
    return v;
}

}  // namespace

int _start_module(MGModuleInfo *block) noexcept {
    return block ? mg_call(0, block, 0, sizeof *block) : invalid();
}
int _get_module_info(MGModuleInfo *block) noexcept {
    return block ? mg_call(1, block, 0, sizeof *block) : invalid();
}
int _stop_module(void) noexcept { return mg_call(2); }
int _suspend_module(void) noexcept { return mg_call(3); }

int _sys_getconf_all(void *buf) noexcept { return buf ? mg_call(4, buf, 0, 22) : invalid(); }
int _sys_getconf_mode(void *buf) noexcept { return buf ? mg_call(5, buf, 0, 4) : invalid(); }
int _sys_getconf_opt(void *buf) noexcept { return buf ? mg_call(6, buf, 0, 8) : invalid(); }
int _sys_getconf_ips(void *buf) noexcept { return buf ? mg_call(7, buf, 0, 8) : invalid(); }
int _sys_setconf_all(void *buf) noexcept { return buf ? mg_call(8, buf, 0, 22) : invalid(); }
int _sys_setconf_mode(void *buf) noexcept { return buf ? mg_call(9, buf, 0, 4) : invalid(); }
int _sys_setconf_opt(void *buf) noexcept { return buf ? mg_call(10, buf, 0, 8) : invalid(); }
int _sys_setconf_ips(void *buf) noexcept { return buf ? mg_call(11, buf, 0, 8) : invalid(); }

int _sys_getmp(int pid) noexcept {
    if (pid < 0) return set_errno(kESRCH);
    MGProcLabel b{};
    b.pid = pid;
    if (mg_call(12, &b, 0, sizeof b) == -1) return -1;
    return MG_PLABEL(b.role, b.level, b.category);
}

int _sys_getmp2(MGProcLabel *block) noexcept {
    if (block == nullptr || block->pid < 0) return invalid();
    return mg_call(12, block, 0, sizeof *block);
}

int _sys_setmp(int pid, int label) noexcept {
    if (pid < 0) return invalid();
    MGProcLabel b = unpack_proc(pid, label);
    return mg_call(13, &b, 0, sizeof b, 0);
}

int _sys_setmp2(MGProcLabel *block) noexcept {
    if (block == nullptr || block->pid < 0 || block->role >= 255 || block->level == -1 ||
        block->category == -1)
        return invalid();
    return mg_call(13, block, 0, sizeof *block, 0);
}

int _sys_set_authproc(int pid, int label) noexcept {
    if (pid < 0) return invalid();
    MGProcLabel b = unpack_proc(pid, label);
    return mg_call(13, &b, 0, sizeof b, 1);
}

int _sys_setpid(int pid) noexcept { return pid < 0 ? invalid() : mg_call(13, nullptr, pid, 0, 2); }

int _sys_getmu_num(void) noexcept { return mg_call(14); }
int _sys_getmu(void *buf, int len) noexcept { return buf ? mg_call(15, buf, 0, len) : invalid(); }
int _sys_getmu_list(void *buf, int *count) noexcept { return list_read(16, buf, count); }
int _sys_getmu_all(void *buf, int count) noexcept {
    return (buf && count >= 1) ? mg_call(16, buf, 0, count) : invalid();
}
int _sys_setmu(void *records, int count) noexcept {
    return (records && count != 0) ? mg_call(17, records, 0, count) : invalid();
}

int _sys_getcat_num(void) noexcept { return mg_call(18); }
int _sys_getcat(void *buf, int n) noexcept { return (buf && n >= 0) ? mg_call(19, buf, 0, n) : invalid(); }
int _sys_getcat_list(void *buf, int *count) noexcept { return list_read(20, buf, count); }
int _sys_getcat_all(void *buf, int count) noexcept {
    return (buf && count >= 1) ? mg_call(20, buf, 0, count) : invalid();
}
int _sys_setcat(void *records, int count) noexcept {
    return (records && count != 0) ? mg_call(21, records, 0, count) : invalid();
}

int _sys_getmf(const char *path) noexcept {
    if (path == nullptr || *path == '\0') return invalid();
    MGFileLabel b{};
    if (mg_call(22, &b, ptr_arg(path), sizeof b) == -1) return -1;
    return MG_FLABEL(b.kind, b.flag, b.level, b.category);
}

int _sys_getmf2(const char *path, MGFileLabel *block) noexcept {
    if (block == nullptr || path == nullptr || *path == '\0') return invalid();
    return mg_call(22, block, ptr_arg(path), sizeof *block);
}

int _sys_setmf(const char *path, int label) noexcept {
    MGFileLabel b{};
    b.kind = static_cast<unsigned char>(MG_FLABEL_KIND(label));
    b.flag = static_cast<unsigned char>(MG_FLABEL_FLAG(label));
    b.level = MG_FLABEL_LEVEL(label);
    b.category = MG_FLABEL_CAT(label);
    return mg_call(23, &b, ptr_arg(path), sizeof b);
}

int _sys_setmf2(const char *path, MGFileLabel *block) noexcept {
    return block ? mg_call(23, block, ptr_arg(path), sizeof *block) : invalid();
}

int _sys_get_kernlog(void *buf, int *len) noexcept { return list_read(24, buf, len); }
int _sys_setcmd(void *list, int count) noexcept { return errno_result(26, list, count); }
int _sys_setsu(void *list, int count) noexcept { return errno_result(28, list, count); }

int _sys_add_file_acl(void *hdr, void *rules) noexcept { return mg_call(29, hdr, ptr_arg(rules)); }
int _sys_mod_file_acl(void *hdr, void *rules) noexcept { return mg_call(30, hdr, ptr_arg(rules)); }
int _sys_del_file_acl(void *hdr) noexcept { return mg_call(31, hdr); }
int _sys_file_acl_cnt(void) noexcept { return mg_call(32); }
int _sys_get_all_facl_hdr(void *buf, int count) noexcept { return mg_call(33, buf, 0, count); }
int _sys_get_facl_hdr(void *hdr) noexcept { return mg_call(34, hdr); }
int _sys_get_file_acl(void *hdr, void *rules) noexcept { return mg_call(35, hdr, ptr_arg(rules)); }
int _sys_clear_file_acl(void) noexcept { return mg_call(36); }

int _sys_set_fgroup(void *hdr, void *rules, void *members) noexcept {
    return mg_call(37, hdr, ptr_arg(rules), 0, ptr_arg(members));
}
int _sys_del_fgroup(int id) noexcept { return mg_call(38, nullptr, 0, id); }
int _sys_fgroup_cnt(void) noexcept { return mg_call(39); }
int _sys_get_all_fgroup_hdr(void *buf, int count) noexcept { return mg_call(40, buf, 0, count); }
int _sys_get_fgroup_hdr(void *hdr) noexcept { return mg_call(41, hdr); }
int _sys_get_fgroup_rule_member(void *hdr, void *rules, void *members) noexcept {
    return mg_call(42, hdr, ptr_arg(rules), 0, ptr_arg(members));
}
int _sys_clear_fgroup(void) noexcept { return mg_call(43); }

int _sys_add_kill_acl(void *rec) noexcept { return mg_call(44, rec); }
int _sys_mod_kill_acl(void *rec) noexcept { return mg_call(45, rec); }
int _sys_del_kill_acl(void *rec) noexcept { return mg_call(46, rec); }
int _sys_kill_acl_cnt(void) noexcept { return mg_call(47); }
int _sys_get_all_kill_acl_hdr(void *buf, int count) noexcept { return mg_call(48, buf, 0, count); }
int _sys_clear_kill_acl(void) noexcept { return mg_call(49); }

int _sys_add_setuid_acl(void *rec) noexcept { return mg_call(50, rec); }
int _sys_mod_setuid_acl(void *rec) noexcept { return mg_call(51, rec); }
int _sys_del_setuid_acl(void *rec) noexcept { return mg_call(52, rec); }
int _sys_setuid_acl_cnt(void) noexcept { return mg_call(53); }
int _sys_get_all_setuid_acl_hdr(void *buf, int count) noexcept { return mg_call(54, buf, 0, count); }
int _sys_clear_setuid_acl(void) noexcept { return mg_call(55); }

int _sys_get_auto_dl_cnt(void) noexcept { return mg_call(56); }
int _sys_get_auto_dl(void *buf, int count) noexcept { return mg_call(57, buf, 0, count); }
int _sys_move_dl_to_actbl(void *rec) noexcept { return mg_call(58, rec); }

int _sys_file_mls_cnt(void) noexcept { return mg_call(59, nullptr, 0, 1); }
int _sys_dir_mls_cnt(void) noexcept { return mg_call(59, nullptr, 0, 2); }
int _sys_get_file_mls(void *buf, int count) noexcept { return mg_call(60, buf, 0, count); }
int _sys_get_dir_mls(void *buf, int count) noexcept { return mg_call(61, buf, 0, count); }

int _sys_getalcmd(void *buf) noexcept { return buf ? mg_call(62, buf) : invalid(); }
int _sys_setalcmd(void *list, int count) noexcept { return list ? mg_call(63, list, 0, count) : invalid(); }
int _sys_add_ipaddr_to_table(MGLoginOrigin *rec) noexcept { return rec ? mg_call(64, rec) : invalid(); }

int _sys_get_alsvc_cnt(int table, int n) noexcept {
    long sub;
    if (n < 0 || !alsvc_sub(table, 65, 66, 82, &sub)) return invalid();
    return mg_call(sub, nullptr, 0, n);
}

int _sys_get_alsvc_rule(int table, int index, int count, void *buf) noexcept {
    long sub;
    if (index < 0 || count < 1 || buf == nullptr || !alsvc_sub(table, 67, 68, 83, &sub)) return invalid();
    return mg_call(sub, buf, index, count);
}

int _sys_set_alsvc_rule(int table, void *hdr, void *rules) noexcept {
    long sub;
    if (hdr == nullptr || rules == nullptr || hdr_int(hdr, 1) < 0 || hdr_int(hdr, 0) < 1 ||
        !alsvc_sub(table, 69, 70, 84, &sub))
        return invalid();
    return mg_call(sub, hdr, ptr_arg(rules));
}

int _sys_del_alsvc_rule(int table, void *hdr) noexcept {
    long sub;
    if (hdr == nullptr || hdr_int(hdr, 1) < 0 || !alsvc_sub(table, 71, 72, 85, &sub)) return invalid();
    return mg_call(sub, hdr);
}

int _sys_del_alsvc_rule_all(int table) noexcept {
    long sub;
    return alsvc_sub(table, 73, 74, 86, &sub) ? mg_call(sub) : invalid();
}

int _sys_get_alsvc_hdr_cnt(int table) noexcept {
    long sub;
    return alsvc_sub(table, 75, 76, 87, &sub) ? mg_call(sub) : invalid();
}

int _sys_get_alsvc_hdr_all(int table, int count, void *buf) noexcept {
    long sub;
    if (count < 1 || buf == nullptr || !alsvc_sub(table, 77, 78, 88, &sub)) return invalid();
    return mg_call(sub, buf, 0, count);
}

int _sys_proc_all_reset(void) noexcept { return mg_call(79); }
int _sys_get_seslog(void *buf, int len) noexcept { return len < 1 ? -1 : mg_call(80, buf, 0, len); }
int _sys_set_sesuser(void *buf, int len) noexcept { return mg_call(81, buf, 0, len); }

long mg::kernel::presence_probe() noexcept { return syscall(SYS_kill, MG_PROBE_PID, MG_PROBE_SIG); }
