// Fuzzes the kill ACL record reader and the deny-mask conversions: an
// accepted record's mask writes as text that reads back to the same mask.
#include <mossgrove/rules.h>

#include <cstring>

#include "rules_fuzz.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FILE *in = rulesfuzz::stream_of(data, size);
    char line[2048];
    while (fgets_rule_file(line, sizeof line, in) != nullptr && strcmp(line, "[KACL]") == 0) {
        kaclent e;
        if (read_kacl_record(in, &e) != 0) break;
        rulesfuzz::check(e.flag == 0 || e.flag == 1);
        char text[MG_DENYMASK_STR];
        rulesfuzz::check(denymask2str(e.denymask, text) == 0 && strlen(text) < sizeof text);
        uint32_t back = 0;
        rulesfuzz::check(str2denymask(text, &back) == 0 && back == e.denymask);
    }
    fclose(in);
    return 0;
}
