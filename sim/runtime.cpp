// Process-side plumbing of the simulator: state selection, batch session,
// call log and failure injection.
#include "runtime.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace mgsim {

std::mutex &process_mutex() {
    static std::mutex m;
    return m;
}

const char *state_path() {
    const char *p = getenv(kStateEnv);
    return (p && *p) ? p : nullptr;
}

namespace {

// The state file, or nullptr with errno EINVAL when none is configured.
const char *configured_path() {
    const char *path = state_path();
    if (path == nullptr) errno = EINVAL;
    return path;
}

}  // namespace

namespace {

struct Batch {
    Session session;
    pid_t owner;
};
std::unique_ptr<Batch> g_batch;

Batch *current_batch() {
    // A child forked inside a batch does not own it.
    return (g_batch && g_batch->owner == getpid()) ? g_batch.get() : nullptr;
}

void warn_once(const char *path, int err) {
    static bool warned = false;
    if (warned) return;
    warned = true;
    fprintf(stderr, "mgsim: cannot use state file %s: %s\n", path, strerror(err));
}

}  // namespace

bool Access::open() {
    if (Batch *b = current_batch()) {
        session_ = &b->session;
        batch_ = true;
        return true;
    }
    const char *path = configured_path();
    if (path == nullptr) return false;
    if (!own_.open(path)) {
        warn_once(path, errno);
        return false;
    }
    session_ = &own_;
    return true;
}

bool Access::finish() {
    if (session_ == nullptr || batch_) return true;
    bool ok = own_.commit();
    own_.close();
    session_ = nullptr;
    return ok;
}

Access::~Access() { finish(); }

bool batch_begin() {
    if (current_batch()) {
        errno = EBUSY;
        return false;
    }
    const char *path = configured_path();
    if (path == nullptr) return false;
    auto b = std::make_unique<Batch>();
    if (!b->session.open(path)) return false;
    b->owner = getpid();
    g_batch = std::move(b);
    return true;
}

bool batch_end() {
    Batch *b = current_batch();
    if (b == nullptr) {
        errno = EINVAL;
        return false;
    }
    bool ok = b->session.commit();
    int e = errno;
    g_batch.reset();
    errno = e;
    return ok;
}

std::string log_path(const State *state) {
    const char *env = getenv(kLogEnv);
    if (env && *env) return env;
    return state ? state->log_path : std::string();
}

std::string format_log_line(int pid, long sub, const long *a, long result, int err) {
    char line[256];
    if (sub < 0)
        snprintf(line, sizeof line, "pid=%d sub=probe ptr=0x0 arg2=0 len=0 flag=0 result=%ld errno=%d\n", pid,
                 result, err);
    else
        snprintf(line, sizeof line, "pid=%d sub=%ld ptr=%#lx arg2=%ld len=%ld flag=%ld result=%ld errno=%d\n", pid,
                 sub, static_cast<unsigned long>(a[1]), a[2], a[3], a[4], result, err);
    return line;
}

void log_call(const State *state, int pid, long sub, const long *args, long result, int err) {
    std::string path = log_path(state);
    if (path.empty()) return;
    int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) return;
    std::string line = format_log_line(pid, sub, args, result, err);
    // One write of an O_APPEND descriptor: lines of several processes never mix.
    ssize_t n = write(fd, line.data(), line.size());
    (void)n;
    close(fd);
}

bool env_failure(long sub, int *err) {
    // The parsed rules are kept with their counters until MGSIM_FAIL changes.
    static std::string text;
    static std::vector<FailRule> rules;
    const char *env = getenv(kFailEnv);
    if (env == nullptr) env = "";
    if (text != env) {
        text = env;
        if (!parse_fail_rules(text, &rules)) {
            fprintf(stderr, "mgsim: ignoring malformed %s=\"%s\"\n", kFailEnv, env);
            rules.clear();
        }
    }
    for (FailRule &r : rules) {
        if (r.sub != sub || r.remaining == 0) continue;
        if (r.remaining > 0) --r.remaining;
        *err = r.err;
        return true;
    }
    return false;
}

bool state_failure(State &s, long sub, int *err, bool *dirty) {
    for (size_t i = 0; i < s.fails.size(); ++i) {
        FailRule &r = s.fails[i];
        if (r.sub != sub) continue;
        *err = r.err;
        if (r.remaining > 0) {
            *dirty = true;
            if (--r.remaining == 0) s.fails.erase(s.fails.begin() + static_cast<long>(i));
        }
        return true;
    }
    return false;
}

bool env_absent() {
    const char *v = getenv(kAbsentEnv);
    return v && *v && strcmp(v, "0") != 0;
}

}  // namespace mgsim
