// Module start and stop. Starting fills every kernel policy table that is
// still empty from its store, in a fixed order, and then switches enforcement
// on: only the MLS users and the categories are needed for a start, every
// other table is best effort, and a table the kernel already holds is never
// reloaded. Stopping saves the setuid ACL the kernel may have gathered first.
#include <mossgrove/common.h>
#include <mossgrove/config.h>
#include <mossgrove/kernel.h>
#include <mossgrove/labels.h>
#include <mossgrove/modctl.h>
#include <mossgrove/rules.h>
#include <mossgrove/stores.h>

#include <syslog.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <initializer_list>


namespace {

void log_error(const char *text) { syslog(LOG_ERR, "%s", text); }

// The policy modes of ips.conf over the kernel's current block, sent only
// when the result is a valid block and the kernel's unsupported protections
// could be taken over.
void apply_policy_modes() {
    unsigned char block[MG_RGCONF_SIZE];
    if (make_rgconf_from_file(MG_RGCONF_REQ_KERNEL, block, nullptr) <= 0) return;
    uint32_t w[5];
    memcpy(w, block, sizeof w);
    if (verify_config(w[0], w[1], w[2], w[3], w[4]) == 1 && adjust_not_supported_ips(block + 12) != 0)
        _sys_setconf_all(block);
}

// A store read once through its enumeration first, so that a lost store is
// restored from its backup, then loaded.
template <class Set, class Get, class End, class Load>
int load_store(Set set, Get get, End end, Load load) {
    set();
    get();
    end();
    return load();
}

struct TableLoad {
    int (*count)();
    int (*load)();
    const char *message;
};

int setuid_count() { return _sys_setuid_acl_cnt(); }
int file_acl_count() { return _sys_file_acl_cnt(); }
int fgroup_count() { return _sys_fgroup_cnt(); }
int kill_count() { return _sys_kill_acl_cnt(); }

constexpr TableLoad kTables[] = {
    {setuid_count, load_setuid_acl, "Fail to load setuid ACL. [errno=%d]"},
    {file_acl_count, load_file_acl, "Fail to load file ACL. [errno=%d]"},
    {fgroup_count, load_fgroup, "Fail to load FileGroup. [errno=%d]"},
    {kill_count, load_kill_acl, "Fail to load kill ACL. [errno=%d]"},
};

// Best effort: every failure is logged and the start goes on.
void load_optional_tables() {
    // Only a store that exists (restored from its backup if need be) is loaded.
    if (load_store(setcmdent, getcmdent, endcmdent, loadcmdent) != 0 && errno != ENOENT)
        log_error("Load restricted Cmd Entry Error\n");
    if (load_store(setsuent, getsuent, endsuent, loadsuent) != 0 && errno != ENOENT)
        log_error("Load Su List Error\n");

    for (const TableLoad &t : kTables) {
        if (t.count() != 0) continue;
        // An empty store (nothing to load) is not reported.
        if (t.load() != 0 && errno != MG_ERR_NOTHING_TO_LOAD) syslog(LOG_ERR, t.message, errno);
    }

    static alcmd_list allowed;
    memset(&allowed, 0, sizeof allowed);
    if (get_alcmd_list(&allowed) == 0 && allowed.count >= 1) _sys_setalcmd(allowed.entries, allowed.count);

    // The user and group service rules; the default set is left to its first use.
    for (int kind : {0, 1})
        if (get_alsvc_hdr_cnt(kind) == 0) load_rule_from_file(kind);
}

}  // namespace

int module_start(MGModuleInfo *block) noexcept {
    if (block == nullptr || chk_mgrootdir() != 1) return -1;
    set_dbpath();
    set_cmdpath();
    set_supath();

    switch (get_module_status()) {
        case MG_STATUS_FAILED: log_error("Get Module Info Syscall Error\n"); return -1;
        case MG_STATUS_ABSENT:
            log_error("MG_Checkmodule Error\n");
            block->status = MG_STATUS_ABSENT;
            return -1;
        case MG_STATUS_RUNNING: block->status = MG_STATUS_QUERY; return 1;
        default: block->status = MG_STATUS_QUERY; break;
    }

    apply_policy_modes();
    if (_sys_getmu_num() == 0 && load_store(setmuent, getmuent, endmuent, loadmuent) != 0) {
        log_error("Load mu Entry Error\n");
        return -1;
    }
    if (_sys_getcat_num() == 0 && load_store(setcatent, getcatent, endcatent, loadcatent) != 0) {
        log_error("Load Cat Entry Error\n");
        return -1;
    }
    load_optional_tables();
    return _start_module(block) == 0 ? 0 : -1;
}

int module_stop(void) noexcept {
    switch (get_module_status()) {
        case MG_STATUS_FAILED:
        case MG_STATUS_ABSENT: return -1;
        case MG_STATUS_STOPPED: return 1;
        default: break;
    }
    if (_sys_setuid_acl_cnt() > 0) dump_setuid_acl();
    return _stop_module() == 0 ? 0 : -1;
}
