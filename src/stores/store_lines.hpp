// Readers of single lines and entries of the text stores whose loaders go
// line by line, shared by those loaders and by the administration tools'
// checks, so that both accept exactly the same text.
#pragma once

#include <mossgrove/rules.h>

#include <cstdio>

namespace mg::rules {

// One "flag:path" line of the setuid ACL (only the first ":" separates; the
// flag 0 or 1, the path absolute). The line is cut at the ":".
bool parse_setuid_line(char *line, suidaclent *entry) noexcept;

// One "number:name" line of the policy groups (only the first ":" separates;
// the name is not empty and is cut at 31 characters). The line is cut at the ":".
bool parse_polgrp_line(char *line, polgrp *group) noexcept;

// One allowed command: its path line, already read, and the numbers line read
// from in, checked as a load checks them.
bool read_alcmd_entry(const char *path_line, FILE *in, alcmd *entry) noexcept;

}  // namespace mg::rules
