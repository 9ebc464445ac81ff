// mgctl lint: the report shared by the checks of the rule files and of the
// stores.
#pragma once

#include <cstdio>
#include <string>

namespace mgctl {

// Compiler-style lines "FILE:LINE: error|warning: message", counted.
struct Report {
    int errors = 0, warnings = 0;
    void error(const std::string &file, int line, const std::string &text) {
        std::printf("%s:%d: error: %s\n", file.c_str(), line, text.c_str());
        ++errors;
    }
    void warning(const std::string &file, int line, const std::string &text) {
        std::printf("%s:%d: warning: %s\n", file.c_str(), line, text.c_str());
        ++warnings;
    }
};

// The text stores under root/data (file ACL, file groups, kill and setuid
// ACL, policy groups, service rules, allowed commands).
void lint_text_stores(Report &report, const std::string &root);

}  // namespace mgctl
