// Fuzzes the policy group reader: every list it returns holds at most 512
// named groups, and saving it writes a file that reads back as many groups.
#include <mossgrove/rules.h>

#include <cctype>
#include <cstring>

#include "rules_fuzz.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    rulesfuzz::store_file("policy_group", data, size);
    polgrp *list = nullptr;
    int count = 0;
    if (get_all_polgrp(&list, &count) == 0) {
        rulesfuzz::check(count >= 0 && count <= 512 && (count == 0) == (list == nullptr));
        for (int i = 0; i < count; ++i) rulesfuzz::check(list[i].name[0] != '\0' && list[i].name[31] == '\0');
        // Numbers cut to a negative int, and names cut before a blank (the
        // reader trims lines), do not read back; the rest does.
        bool plain = true;
        for (int i = 0; i < count; ++i) {
            const size_t len = strlen(list[i].name);
            plain = plain && list[i].polgrp_id >= 0 && !isspace(static_cast<unsigned char>(list[i].name[len - 1]));
        }
        rulesfuzz::check(save_polgrp(list, count) == 0);
        polgrp *back = nullptr;
        int n = 0;
        if (plain) rulesfuzz::check(get_all_polgrp(&back, &n) == 0 && n == count);
        free(back);
    }
    free(list);
    return 0;
}
