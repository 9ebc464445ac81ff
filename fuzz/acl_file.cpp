// Fuzzes the file ACL record reader the way the loader drives it: every
// record it accepts has a path, a positive rule count and that many entries,
// and writes back as text that reads back the same.
#include <mossgrove/rules.h>

#include <cstring>

#include "rules_fuzz.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FILE *in = rulesfuzz::stream_of(data, size);
    char line[2048];
    while (fgets_rule_file(line, sizeof line, in) != nullptr && strcmp(line, "[ACL]") == 0) {
        faclhdr hdr;
        rulentry *entries = nullptr;
        if (read_facl_record(in, &hdr, &entries) != 0) {
            rulesfuzz::check(entries == nullptr);
            break;
        }
        rulesfuzz::check(hdr.path[0] == '/' && hdr.rule_cnt > 0 && entries != nullptr);
        // Numbers beyond int are cut on reading and would write back negative.
        bool plain = hdr.mode >= 0 && hdr.polgrp_id >= 0;
        for (int i = 0; i < hdr.rule_cnt; ++i) plain = plain && entries[i].type >= 0;
        if (!plain) {
            free(entries);
            continue;
        }
        char *text = nullptr;
        size_t len = 0;
        FILE *out = open_memstream(&text, &len);
        rulesfuzz::check(write_file_acl(out, &hdr, entries) == 0);
        fclose(out);
        FILE *again = fmemopen(text, len, "r");
        faclhdr hdr2;
        rulentry *entries2 = nullptr;
        rulesfuzz::check(fgets_rule_file(line, sizeof line, again) != nullptr && read_facl_record(again, &hdr2, &entries2) == 0);
        rulesfuzz::check(memcmp(&hdr, &hdr2, sizeof hdr) == 0);
        rulesfuzz::check(memcmp(entries, entries2, sizeof(rulentry) * static_cast<size_t>(hdr.rule_cnt)) == 0);
        fclose(again);
        free(text);
        free(entries);
        free(entries2);
    }
    fclose(in);
    return 0;
}
