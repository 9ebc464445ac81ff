// Process and file labels, read whole and changed field by field.
#include <mossgrove/common.h>
#include <mossgrove/kernel.h>

#include <unistd.h>

#include <cerrno>

namespace {

constexpr int kKeep = -1;

// Replaces one packed field unless the caller keeps it (-1).
int put_field(int label, int value, int shift, int mask) {
    if (value == kKeep) return label;
    return (label & ~(mask << shift)) | ((value & mask) << shift);
}

int proc_label_with(int current, int role, int level, int category) {
    current = put_field(current, role, 13, 7);
    current = put_field(current, level, 7, 7);
    return put_field(current, category, 0, 0x7f);
}

// set_proc_mls and set_proc_auth differ only in the kernel call that writes.
int change_proc_label(int pid, int role, int level, int category, int (*write)(int, int)) {
    if (role == kKeep && level == kKeep && category == kKeep) return set_errno(EINVAL);
    int current = _sys_getmp(pid);
    if (current == -1) return -1;
    return write(pid, proc_label_with(current, role, level, category)) < 0 ? -1 : 0;
}

// 0 with the label, or -1 with *label 0.
int report_label(int result, int *label) {
    *label = result == -1 ? 0 : result;
    return result == -1 ? -1 : 0;
}

}  // namespace

int get_prole(int pid) noexcept {
    int label = _sys_getmp(pid);
    return label == -1 ? -1 : MG_PLABEL_ROLE(label);
}

// The role narrowed to a signed byte, as the callers compare it.
static int role_of(pid_t pid) noexcept {
    if (pid < 0) return -1;
    return static_cast<signed char>(get_prole(static_cast<int>(pid)));
}

int get_cprole(void) noexcept { return role_of(getpid()); }
int get_pprole(void) noexcept { return role_of(getppid()); }

int get_proc_mls(int pid, int *label) noexcept {
    if (label == nullptr) return set_errno(EINVAL);
    return report_label(_sys_getmp(pid), label);
}

int get_file_mls(const char *path, int *label) noexcept {
    if (label == nullptr) return set_errno(EINVAL);
    return report_label(_sys_getmf(path), label);
}

int set_proc_mls(int pid, int role, int level, int category) noexcept {
    return change_proc_label(pid, role, level, category, _sys_setmp);
}

int set_proc_auth(int pid, int role, int level, int category) noexcept {
    return change_proc_label(pid, role, level, category, _sys_set_authproc);
}

// The flag bit (bit 11) of the file label is always kept.
int set_file_mls(const char *path, int kind, int level, int category) noexcept {
    if (kind == kKeep && level == kKeep && category == kKeep) return set_errno(EINVAL);
    int current = _sys_getmf(path);
    if (current == -1) return -1;
    current = put_field(current, kind, 14, 3);
    current = put_field(current, level, 8, 7);
    current = put_field(current, category, 0, 0x7f);
    return _sys_setmf(path, current) < 0 ? -1 : 0;
}
