// Fuzzes the file group record reader: accepted records hold their counted
// rule entries and members, and nothing leaks on the refusals.
#include <mossgrove/rules.h>

#include <cstring>

#include "rules_fuzz.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FILE *in = rulesfuzz::stream_of(data, size);
    char line[2048];
    while (fgets_rule_file(line, sizeof line, in) != nullptr && strcmp(line, "[FGROUP]") == 0) {
        fgrouphdr hdr;
        rulentry *entries = nullptr;
        mpath *members = nullptr;
        if (read_fgroup_record(in, &hdr, &entries, &members) != 0) {
            rulesfuzz::check(entries == nullptr && members == nullptr);
            break;
        }
        rulesfuzz::check(hdr.name[0] != '\0' && strnlen(hdr.name, sizeof hdr.name) < sizeof hdr.name);
        rulesfuzz::check((hdr.rule_cnt > 0) == (entries != nullptr) && (hdr.member_cnt > 0) == (members != nullptr));
        for (int i = 0; i < hdr.member_cnt; ++i) rulesfuzz::check(members[i].path[0] == '/');
        for (int i = 0; i < hdr.rule_cnt; ++i) rulesfuzz::check(entries[i].in_use == 1);
        free(entries);
        free(members);
    }
    fclose(in);
    return 0;
}
