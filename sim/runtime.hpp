// Process-side plumbing shared by the system-call interposer and the control
// interface: which state file, the batch session, the call log and the
// failure injection from the environment.
#pragma once

#include "state.hpp"

#include <mutex>

namespace mgsim {

// Serialises the threads of one process; the state file lock serialises processes.
std::mutex &process_mutex();

// MGSIM_STATE, or nullptr when unset or empty.
const char *state_path();

// Access to the state for one operation: the batch session when this process
// holds one, else a session of its own that finish() commits.
class Access {
public:
    // false: no state configured (errno EINVAL) or the state can't be used.
    bool open();
    bool finish();
    State &state() { return session_->state(); }
    bool &dirty() { return session_->dirty; }
    bool was_reset() const { return session_->was_reset; }
    ~Access();

private:
    Session own_;
    Session *session_ = nullptr;
    bool batch_ = false;
};

bool batch_begin();
bool batch_end();

// The log file in use: MGSIM_LOG, else the state's setting (state may be null).
std::string log_path(const State *state);
// Appends one line for a call (sub < 0: the presence probe).
void log_call(const State *state, int pid, long sub, const long *args, long result, int err);
std::string format_log_line(int pid, long sub, const long *args, long result, int err);

// Failure injection of MGSIM_FAIL (counters are per process): true and *err
// when the call must fail.
bool env_failure(long sub, int *err);
// Injection kept in the state: decrements counted rules.
bool state_failure(State &s, long sub, int *err, bool *dirty);
// MGSIM_ABSENT set to a non-empty value other than "0".
bool env_absent();

}  // namespace mgsim
