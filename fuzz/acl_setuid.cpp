// Fuzzes the setuid ACL loader against the simulated kernel: it ends in
// success or with the kernel table empty.
#include <mossgrove/rules.h>

#include <cerrno>

#include "mgsim.h"
#include "rules_fuzz.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    rulesfuzz::store_file("acl_setuid", data, size);
    static bool ready = [] {
        rulesfuzz::check(mgsim_use_state((rulesfuzz::root() + "/state").c_str()) == 0);
        return true;
    }();
    (void)ready;
    rulesfuzz::check(mgsim_reset() == 0);
    if (load_setuid_acl() != 0) rulesfuzz::check(mgsim_count(MGSIM_T_SETUID) == 0);
    return 0;
}
