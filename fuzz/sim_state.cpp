// The simulator's parsers: its binary state file, the failure-injection
// rules and the call-log line. The first byte picks the parser; for
// the state file it also picks whether the rest is a whole file or a payload
// that gets a valid frame (so that the fuzzer gets past the checksum).
#include "mgsim.h"
#include "state.hpp"

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    std::string_view rest(reinterpret_cast<const char *>(data) + 1, size - 1);
    switch (data[0] % 3) {
        case 0:
        case 1: {
            std::string file = data[0] % 3 == 0 ? std::string(rest) : mgsim::frame(rest);
            mgsim::State s;
            if (!mgsim::decode(file, &s)) return 0;
            // Whatever decodes encodes back to a file that decodes the same.
            std::string again = mgsim::encode(s);
            mgsim::State t;
            if (!mgsim::decode(again, &t) || mgsim::encode(t) != again) abort();
            return 0;
        }
        default: {
            std::vector<mgsim::FailRule> rules;
            if (mgsim::parse_fail_rules(rest, &rules)) {
                std::vector<mgsim::FailRule> back;
                if (!mgsim::parse_fail_rules(mgsim::format_fail_rules(rules), &back) || back.size() != rules.size())
                    abort();
            }
            std::string line(rest);
            mgsim_call call;
            mgsim_parse_log_line(line.c_str(), &call);
            return 0;
        }
    }
}
