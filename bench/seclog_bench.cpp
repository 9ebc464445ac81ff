// Secure log writer throughput, 1 and 8 concurrent writer processes.
//
// Each run appends the same total number of records to one log file (limit
// large enough that no rotation happens); a row reports records per second,
// the processor time of all writers per record, and the throughput as a
// fraction of the floor. The floor is the bare sequence the writer cannot avoid: open the lock
// file, take the one-byte lock (blocking, so waiting costs no processor time),
// append one line, close both. The writer is measured with each way of waiting
// for a busy lock:
//   spin   retry at once
//   yield  sched_yield between tries (the writer's setting)
//   block  wait in the kernel (for comparison only)
//
// usage: seclog_bench [records per run] [directory]   (defaults 40000, $TMPDIR or /tmp)
#include <mossgrove/seclog.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "seclog/seclog.hpp"

namespace {

using mg::seclog::LockWait;

std::string g_dir;

std::string log_file() { return g_dir + "/mglog.01"; }
std::string lock_file() { return g_dir + "/mglog.lock"; }

SecureLogRecord make_record(int writer, int i) {
    SecureLogRecord rec;
    memset(&rec, 0, sizeof rec);
    rec.nSource = 7;
    rec.nLevel = 1;
    rec.tEvent = static_cast<int32_t>(time(nullptr));
    snprintf(rec.szProgram, sizeof rec.szProgram, "PAM-ACL");
    snprintf(rec.szAddress, sizeof rec.szAddress, "192.0.2.10");
    snprintf(rec.szMessage, sizeof rec.szMessage,
             "Session opened: user=alice service=sshd host=198.51.100.7 tty=pts/%d seq=%d", writer,
             i);
    return rec;
}

// The floor: the plain steps of one append under the one-byte lock.
bool floor_append(const char *line, size_t len) {
    int lock = open(lock_file().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 02600);
    if (lock < 0 || lockf(lock, F_LOCK, 1) != 0) return false;
    int fd = open(log_file().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    bool ok = fd >= 0 && write(fd, line, len) == static_cast<ssize_t>(len);
    if (fd >= 0) close(fd);
    close(lock);
    return ok;
}

int floor_writer(int writer, int count) {
    // One line of the writer's length, formatted once: the floor is the bare steps.
    SecureLogRecord rec = make_record(writer, count);
    char line[2048];
    int n = snprintf(line, sizeof line, "%d\t%d\t%d\t%d\t%d\t%s\t%s\t%s\n", rec.nSource,
                     rec.nFlag, rec.nLevel, rec.tEvent, rec.tEvent, rec.szProgram, rec.szAddress,
                     rec.szMessage);
    for (int i = 0; i < count; ++i)
        if (!floor_append(line, static_cast<size_t>(n))) return 1;
    return 0;
}

int seclog_writer(int writer, int count) {
    for (int i = 0; i < count; ++i) {
        SecureLogRecord rec = make_record(writer, i);
        if (SaveSecureLog(MG_SECLOG_FILE, &rec) != 0) return 1;
    }
    return 0;
}

struct Result {
    double seconds = 0;  // wall
    double cpu = 0;      // user + system of all writers
    long records = 0;
};

double cpu_of_children() {
    struct rusage ru;
    getrusage(RUSAGE_CHILDREN, &ru);
    auto sec = [](const timeval &tv) { return static_cast<double>(tv.tv_sec) + tv.tv_usec / 1e6; };
    return sec(ru.ru_utime) + sec(ru.ru_stime);
}

// Runs `writers` processes of fn(writer, total / writers) released together.
Result run(int writers, int total, const std::function<int(int, int)> &fn) {
    unlink(log_file().c_str());
    int go[2];
    if (pipe(go) != 0) exit(2);
    std::vector<pid_t> pids;
    const int each = total / writers;
    for (int w = 0; w < writers; ++w) {
        pid_t pid = fork();
        if (pid < 0) exit(2);
        if (pid == 0) {
            close(go[1]);
            char c;
            if (read(go[0], &c, 1) != 0) _exit(2);
            _exit(fn(w, each));
        }
        pids.push_back(pid);
    }
    close(go[0]);
    const double cpu0 = cpu_of_children();
    auto t0 = std::chrono::steady_clock::now();
    close(go[1]);
    bool ok = true;
    for (pid_t pid : pids) {
        int status = 0;
        waitpid(pid, &status, 0);
        ok = ok && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    auto t1 = std::chrono::steady_clock::now();
    if (!ok) {
        fprintf(stderr, "a writer failed\n");
        exit(1);
    }
    struct stat st;
    if (stat(log_file().c_str(), &st) != 0) exit(1);
    return {std::chrono::duration<double>(t1 - t0).count(), cpu_of_children() - cpu0,
            static_cast<long>(each) * writers};
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

struct Variant {
    const char *name;
    bool is_floor;
    LockWait wait;
    std::vector<double> rate, cpu_per_record, ratio;  // one entry per round
};

// The machine may be shared, so the load drifts: every round runs all
// variants back to back, each variant's throughput is divided by the floor's
// of the same round, and the medians over the rounds are reported.
void measure(int writers, int total, int rounds, std::vector<Variant> &variants) {
    for (int round = 0; round < rounds; ++round) {
        double floor_rate = 0;
        for (Variant &v : variants) {
            Result r;
            if (v.is_floor) {
                r = run(writers, total, floor_writer);
            } else {
                mg::seclog::set_lock_wait(v.wait);
                r = run(writers, total, seclog_writer);
            }
            double rate = r.records / r.seconds;
            if (v.is_floor) floor_rate = rate;
            v.rate.push_back(rate);
            v.cpu_per_record.push_back(r.cpu / r.records * 1e6);
            v.ratio.push_back(rate / floor_rate);
        }
    }
}

}  // namespace

int main(int argc, char **argv) {
    int total = argc > 1 ? atoi(argv[1]) : 40000;
    const char *tmp = getenv("TMPDIR");
    std::string base = argc > 2 ? argv[2] : (tmp != nullptr && *tmp != '\0' ? tmp : "/tmp");
    std::string templ = base + "/mgbench.XXXXXX";
    if (mkdtemp(templ.data()) == nullptr) {
        perror("mkdtemp");
        return 1;
    }
    g_dir = templ;
    if (total < 8) total = 8;
    if (InitSecureLog("MGLog", log_file().c_str(), 1 << 30, 5, 0) != 0) return 1;

    const int rounds = 5;
    printf("%d records per run, %d rounds, medians; log in %s, %ld processors\n\n", total, rounds,
           g_dir.c_str(), sysconf(_SC_NPROCESSORS_ONLN));
    printf("%-14s %7s %12s %12s %10s\n", "variant", "writers", "records/s", "cpu us/rec",
           "x floor");
    for (int writers : {1, 8}) {
        std::vector<Variant> variants = {{"floor", true, LockWait::spin, {}, {}, {}},
                                         {"writer spin", false, LockWait::spin, {}, {}, {}},
                                         {"writer yield", false, LockWait::yield, {}, {}, {}},
                                         {"writer block", false, LockWait::block, {}, {}, {}}};
        measure(writers, total, rounds, variants);
        for (const Variant &v : variants)
            printf("%-14s %7d %12.0f %12.2f %10.2f\n", v.name, writers, median(v.rate),
                   median(v.cpu_per_record), median(v.ratio));
    }
    unlink(log_file().c_str());
    unlink(lock_file().c_str());
    rmdir(g_dir.c_str());
    return 0;
}
