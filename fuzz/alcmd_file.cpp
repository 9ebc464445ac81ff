// Fuzzes the allowed command file reader (the kernel's list empty): a list
// it accepts holds at most 50 checked entries and exports as a file that
// reads back the same.
#include <mossgrove/rules.h>

#include <cstring>

#include "mgsim.h"
#include "rules_fuzz.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string path = rulesfuzz::store_file("alcmd_file", data, size);
    static bool ready = [] {
        rulesfuzz::check(mgsim_use_state((rulesfuzz::root() + "/state").c_str()) == 0);
        return mgsim_reset() == 0;
    }();
    rulesfuzz::check(ready);
    static alcmd_list list, back;
    if (make_alcmdlist(MG_ALCMD_LOAD, path.c_str(), &list) != 0) return 0;
    rulesfuzz::check(list.count >= 0 && list.count <= MG_ALCMD_MAX);
    for (int i = 0; i < list.count; ++i) rulesfuzz::check(check_alcmd(MG_ALCMD_LOAD, &list.entries[i]) == 0);
    rulesfuzz::check(export_alcmdlist_to_file(path.c_str(), &list) == 0);
    rulesfuzz::check(make_alcmdlist(MG_ALCMD_LOAD, path.c_str(), &back) == 0 && back.count == list.count);
    rulesfuzz::check(memcmp(back.entries, list.entries, sizeof(alcmd) * static_cast<size_t>(list.count)) == 0);
    return 0;
}
