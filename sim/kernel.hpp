// The simulated kernel module: one system-call-223 request against the state.
#pragma once

#include "state.hpp"

#include <string>

namespace mgsim {

struct Request {
    long sub;
    long ptr;
    long arg2;
    long len;
    long flag;
    int caller;  // pid of the calling process
};

// Carries out one request. Returns the kernel's result; on failure -1 with
// *err set (sub-commands 26 and 28 instead return the error number itself).
// Sets *dirty when the state changed.
long dispatch(State &s, const Request &rq, bool *dirty, int *err);

// Label helpers shared with the control API.
ProcEntry *find_proc(State &s, int pid, bool *dirty);
void set_proc(State &s, int pid, int role, int level, int category, int auth);
// Canonical path and identity of an existing file; 0 or an errno value.
int resolve_path(const char *path, std::string *canon, FileEntry *identity);
FileEntry *find_file(State &s, const std::string &canon);

}  // namespace mgsim
