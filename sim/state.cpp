// State file of the simulated kernel: encoding, failure specifications and the
// locked read-modify-write session around every call.
#include "state.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace mgsim {

std::array<uint8_t, 22> default_conf() {
    // MAC, DAC and kill ACL warn; command and setuid restriction warn; file
    // encryption not supported by this module; every other switch off.
    std::array<uint8_t, 22> c{};
    c[0] = 1;
    c[1] = 1;
    c[2] = 1;
    c[6] = 1;
    c[7] = 1;
    c[11] = 128;
    return c;
}

State::State() : conf(default_conf()) {}

namespace {

constexpr char kMagic[8] = {'M', 'G', 'S', 'I', 'M', 'S', 'T', '2'};
constexpr uint32_t kFormat = 2;
constexpr uint64_t kRegionAlign = 4096;
// Bounds on what a damaged file can make the decoder allocate: a table of
// records (the largest, 8192 MLS users, takes 11 MB), and a table of entries,
// each of which takes at least two bytes of the file.
constexpr size_t kMaxTableBytes = 16u << 20;

uint32_t fnv1a(std::string_view data) {
    uint32_t h = 2166136261u;
    for (unsigned char c : data) {
        h ^= c;
        h *= 16777619u;
    }
    return h;
}

// Writer and Reader share one interface, so that transfer() below describes
// the file layout once for both directions.
class Writer {
public:
    std::string out;

    template <class T>
    void num(const T &v) {
        static_assert(std::is_arithmetic_v<T>);
        out.append(reinterpret_cast<const char *>(&v), sizeof v);
    }
    void str(const std::string &s) {
        num(static_cast<uint32_t>(s.size()));
        out.append(s);
    }
    // Records are mostly zero bytes (fixed path and name buffers): zero runs
    // are stored as a count.
    void bytes(const void *p, size_t n) {
        const auto *b = static_cast<const unsigned char *>(p);
        size_t i = 0;
        while (i < n) {
            size_t j = i;
            while (j < n && b[j] == 0) ++j;
            if (j > i) {
                out.push_back('\0');
                varint(j - i);
                i = j;
                continue;
            }
            // Literal run until the next run of at least four zero bytes.
            while (j < n && !(j + 4 <= n && b[j] == 0 && b[j + 1] == 0 && b[j + 2] == 0 && b[j + 3] == 0))
                ++j;
            out.push_back('\1');
            varint(j - i);
            out.append(reinterpret_cast<const char *>(b + i), j - i);
            i = j;
        }
    }
    template <class T>
    void record(const T &r) {
        static_assert(std::is_trivially_copyable_v<T>);
        bytes(&r, sizeof r);
    }
    template <class T>
    void records(const std::vector<T> &v) {
        static_assert(std::is_trivially_copyable_v<T>);
        num(static_cast<uint32_t>(v.size()));
        bytes(v.data(), v.size() * sizeof(T));
    }
    template <class E, class Each>
    void table(const std::vector<E> &v, Each each) {
        num(static_cast<uint32_t>(v.size()));
        for (const E &e : v) each(*this, e);
    }

private:
    void varint(size_t v) {
        while (v >= 0x80) {
            out.push_back(static_cast<char>((v & 0x7f) | 0x80));
            v >>= 7;
        }
        out.push_back(static_cast<char>(v));
    }
};

class Reader {
public:
    explicit Reader(std::string_view in) : in_(in) {}
    bool ok = true;

    template <class T>
    void num(T &v) {
        static_assert(std::is_arithmetic_v<T>);
        if (!take(&v, sizeof v)) ok = false;
    }
    void str(std::string &s) {
        uint32_t n = 0;
        num(n);
        if (!ok || n > in_.size() - pos_) {
            ok = false;
            return;
        }
        s.assign(in_.substr(pos_, n));
        pos_ += n;
    }
    void bytes(void *p, size_t n) {
        auto *b = static_cast<unsigned char *>(p);
        size_t done = 0;
        while (ok && done < n) {
            unsigned char tag = 0;
            if (!take(&tag, 1)) break;
            size_t run = varint();
            if (!ok || run == 0 || run > n - done) {
                ok = false;
                break;
            }
            if (tag == 0) {
                memset(b + done, 0, run);
            } else if (tag == 1 && run <= in_.size() - pos_) {
                memcpy(b + done, in_.data() + pos_, run);
                pos_ += run;
            } else {
                ok = false;
                break;
            }
            done += run;
        }
        if (done != n) ok = false;
    }
    template <class T>
    void record(T &r) {
        bytes(&r, sizeof r);
    }
    template <class T>
    void records(std::vector<T> &v) {
        uint32_t n = 0;
        num(n);
        if (!ok || n > kMaxTableBytes / sizeof(T)) {
            ok = false;
            return;
        }
        v.assign(n, T{});
        bytes(v.data(), n * sizeof(T));
    }
    template <class E, class Each>
    void table(std::vector<E> &v, Each each) {
        uint32_t n = 0;
        num(n);
        if (!ok || n > (in_.size() - pos_) / 2) {
            ok = false;
            return;
        }
        v.resize(n);
        for (E &e : v) {
            each(*this, e);
            if (!ok) return;
        }
    }
    bool at_end() const { return pos_ == in_.size(); }

private:
    bool take(void *p, size_t n) {
        if (n > in_.size() - pos_) return false;
        memcpy(p, in_.data() + pos_, n);
        pos_ += n;
        return true;
    }
    size_t varint() {
        size_t v = 0;
        for (int shift = 0; shift < 35; shift += 7) {
            unsigned char c = 0;
            if (!take(&c, 1)) break;
            v |= static_cast<size_t>(c & 0x7f) << shift;
            if (!(c & 0x80)) return v;
        }
        ok = false;
        return 0;
    }
    std::string_view in_;
    size_t pos_ = 0;
};

// The payload layout, in both directions (St is State or const State).
template <class Io, class St>
void transfer(Io &io, St &s) {
    io.num(s.absent);
    io.str(s.log_path);
    io.records(s.fails);
    io.str(s.version);
    io.num(s.status);
    io.record(s.conf);
    io.records(s.procs);
    io.records(s.setpids);
    io.table(s.files, [](Io &x, auto &f) {
        x.str(f.path);
        x.record(f.label);
        x.num(f.is_dir);
        x.num(f.ino);
        x.num(f.dev);
    });
    io.records(s.users);
    io.records(s.cats);
    io.records(s.cmds);
    io.records(s.su);
    io.table(s.facl, [](Io &x, auto &e) {
        x.record(e.hdr);
        x.records(e.rules);
    });
    io.table(s.fgroups, [](Io &x, auto &e) {
        x.record(e.hdr);
        x.records(e.rules);
        x.records(e.members);
    });
    io.records(s.kill_acl);
    io.records(s.setuid_acl);
    io.records(s.auto_dl);
    io.records(s.alcmd);
    io.records(s.origins);
    for (auto &table : s.alsvc)
        io.table(table, [](Io &x, auto &e) {
            x.record(e.hdr);
            x.records(e.rules);
        });
    io.str(s.kernlog);
    io.str(s.seslog);
    io.str(s.sesuser);
}

}  // namespace

namespace {

FileHeader make_header(uint64_t offset, std::string_view payload, uint64_t generation) {
    FileHeader h{};
    memcpy(h.magic, kMagic, sizeof kMagic);
    h.format = kFormat;
    h.length = static_cast<uint32_t>(payload.size());
    h.offset = offset;
    h.generation = generation;
    h.checksum = fnv1a(payload);
    h.header_checksum = fnv1a({reinterpret_cast<const char *>(&h), offsetof(FileHeader, header_checksum)});
    return h;
}

bool header_ok(const FileHeader &h) {
    return memcmp(h.magic, kMagic, sizeof kMagic) == 0 && h.format == kFormat &&
           h.header_checksum == fnv1a({reinterpret_cast<const char *>(&h), offsetof(FileHeader, header_checksum)}) &&
           h.offset >= sizeof(FileHeader) && h.offset <= (1ull << 40);
}

bool decode_payload(std::string_view payload, State *out) {
    State s;
    Reader r(payload);
    transfer(r, s);
    if (!r.ok || !r.at_end() || s.version.size() >= sizeof(MGModuleInfo::version)) return false;
    *out = std::move(s);
    return true;
}

std::string encode_payload(const State &s) {
    Writer w;
    transfer(w, s);
    return std::move(w.out);
}

}  // namespace

std::string frame(std::string_view payload) {
    FileHeader h = make_header(sizeof h, payload, 1);
    std::string out(reinterpret_cast<const char *>(&h), sizeof h);
    out.append(payload);
    return out;
}

std::string encode(const State &s) { return frame(encode_payload(s)); }

bool decode(std::string_view bytes, State *out) {
    FileHeader h;
    if (bytes.size() < sizeof h) return false;
    memcpy(&h, bytes.data(), sizeof h);
    if (!header_ok(h) || h.offset > bytes.size() || h.length > bytes.size() - h.offset) return false;
    std::string_view payload = bytes.substr(h.offset, h.length);
    return fnv1a(payload) == h.checksum && decode_payload(payload, out);
}

namespace {

bool parse_int(std::string_view text, int32_t *out) {
    if (text.empty() || text.size() > 11) return false;
    char buf[16];
    memcpy(buf, text.data(), text.size());
    buf[text.size()] = '\0';
    char *end = nullptr;
    errno = 0;
    long v = strtol(buf, &end, 10);
    if (errno != 0 || *end != '\0' || v < INT32_MIN || v > INT32_MAX) return false;
    *out = static_cast<int32_t>(v);
    return true;
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\n')) s.remove_suffix(1);
    return s;
}

}  // namespace

bool parse_fail_rules(std::string_view text, std::vector<FailRule> *out) {
    std::vector<FailRule> rules;
    while (!trim(text).empty()) {
        size_t comma = text.find(',');
        std::string_view item = trim(text.substr(0, comma));
        text = comma == std::string_view::npos ? std::string_view{} : text.substr(comma + 1);
        FailRule r{0, 0, -1};
        size_t c1 = item.find(':');
        if (c1 == std::string_view::npos) return false;
        std::string_view rest = item.substr(c1 + 1);
        size_t c2 = rest.find(':');
        if (!parse_int(item.substr(0, c1), &r.sub) || r.sub < 0 || r.sub > 255) return false;
        if (!parse_int(rest.substr(0, c2), &r.err) || r.err <= 0) return false;
        if (c2 != std::string_view::npos &&
            (!parse_int(rest.substr(c2 + 1), &r.remaining) || r.remaining < 1))
            return false;
        rules.push_back(r);
    }
    *out = std::move(rules);
    return true;
}

std::string format_fail_rules(const std::vector<FailRule> &rules) {
    std::string s;
    for (const FailRule &r : rules) {
        if (!s.empty()) s += ',';
        s += std::to_string(r.sub) + ":" + std::to_string(r.err);
        if (r.remaining >= 0) s += ":" + std::to_string(r.remaining);
    }
    return s;
}

namespace {

bool pread_all(int fd, void *buf, size_t n, uint64_t offset) {
    auto *p = static_cast<char *>(buf);
    while (n > 0) {
        ssize_t r = pread(fd, p, n, static_cast<off_t>(offset));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        p += r;
        n -= static_cast<size_t>(r);
        offset += static_cast<uint64_t>(r);
    }
    return true;
}

bool pwrite_all(int fd, const void *buf, size_t n, uint64_t offset) {
    const auto *p = static_cast<const char *>(buf);
    while (n > 0) {
        ssize_t r = pwrite(fd, p, n, static_cast<off_t>(offset));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        p += r;
        n -= static_cast<size_t>(r);
        offset += static_cast<uint64_t>(r);
    }
    return true;
}

uint64_t align_up(uint64_t v) { return (v + kRegionAlign - 1) / kRegionAlign * kRegionAlign; }

// The last state this process read or wrote, and the header it belongs to.
struct Cache {
    std::string path;
    bool valid = false;
    FileHeader header{};
    State state;
};

Cache &cache() {
    static Cache *c = new Cache;  // never destroyed: calls may come during exit
    return *c;
}

bool same_version(const FileHeader &a, const FileHeader &b) {
    return a.generation == b.generation && a.length == b.length && a.checksum == b.checksum;
}

int lock_file(const std::string &path) {
    std::string lock = path + ".lock";
    int fd = ::open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) return -1;
    while (flock(fd, LOCK_EX) != 0) {
        if (errno != EINTR) {
            int e = errno;
            ::close(fd);
            errno = e;
            return -1;
        }
    }
    return fd;
}

// Reads the state of an open, non-empty state file: 1 read, 0 damaged, -1 error.
int read_state(int fd, FileHeader *header, State *out, bool use_cache, const std::string &path) {
    FileHeader h;
    struct stat st;
    if (fstat(fd, &st) != 0) return -1;
    if (!pread_all(fd, &h, sizeof h, 0) || !header_ok(h) || h.offset + h.length > static_cast<uint64_t>(st.st_size))
        return 0;
    Cache &c = cache();
    if (use_cache && c.valid && c.path == path && same_version(c.header, h)) {
        *header = h;
        return 1;
    }
    std::string payload(h.length, '\0');
    if (!pread_all(fd, payload.data(), payload.size(), h.offset) || fnv1a(payload) != h.checksum) return 0;
    if (!decode_payload(payload, out)) return 0;
    *header = h;
    return 1;
}

}  // namespace

State &Session::state() { return cache().state; }

bool Session::open(const std::string &path) {
    close();
    path_ = path;
    dirty = false;
    was_reset = false;
    active_ = FileHeader{};
    lock_fd_ = lock_file(path);
    if (lock_fd_ < 0) return false;
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    struct stat st;
    if (fd_ < 0 || fstat(fd_, &st) != 0) {
        int e = errno;
        close();
        errno = e;
        return false;
    }
    Cache &c = cache();
    if (c.path != path) {
        c.path = path;
        c.valid = false;
    }
    if (st.st_size == 0) {  // created on first use
        c.state = State();
        c.valid = false;
        dirty = true;
        return true;
    }
    int r = read_state(fd_, &active_, &c.state, true, path);
    if (r == 1) {
        c.header = active_;
        c.valid = true;
        return true;
    }
    if (r < 0) {
        int e = errno;
        close();
        errno = e;
        return false;
    }
    // A damaged file is replaced by a fresh state; say so.
    fprintf(stderr, "mgsim: state file %s is damaged; reset to a fresh state\n", path.c_str());
    active_ = FileHeader{};
    c.state = State();
    c.valid = false;
    dirty = true;
    was_reset = true;
    return true;
}

bool Session::commit() {
    if (fd_ < 0) {
        errno = EBADF;
        return false;
    }
    if (!dirty) return true;
    Cache &c = cache();
    c.valid = false;  // until the file holds what memory holds
    std::string payload = encode_payload(c.state);
    // The lowest place that leaves the current payload intact: the first
    // region when the new payload fits before the current one, else after it.
    // The file stays below about three times the largest state.
    uint64_t offset = kRegionAlign;
    if (active_.length > 0 && offset + payload.size() > active_.offset)
        offset = align_up(active_.offset + active_.length);
    FileHeader h = make_header(offset, payload, active_.generation + 1);
    // No fsync: the state is scratch data of a test run and only has to
    // survive killed processes, not a crash of the machine.
    if (!pwrite_all(fd_, payload.data(), payload.size(), offset) || !pwrite_all(fd_, &h, sizeof h, 0)) return false;
    active_ = h;
    c.header = h;
    c.valid = true;
    dirty = false;
    return true;
}

void Session::close() {
    if (dirty) cache().valid = false;  // abandoned changes
    dirty = false;
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
    if (lock_fd_ >= 0) {
        ::close(lock_fd_);  // releases the lock
        lock_fd_ = -1;
    }
}

int check_file(const std::string &path) {
    int lock = lock_file(path);
    if (lock < 0) return -1;
    int result = 0;
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st;
    if (fd < 0) {
        result = errno == ENOENT ? 0 : -1;
    } else {
        FileHeader h;
        State s;
        if (fstat(fd, &st) != 0) {
            result = -1;
        } else if (st.st_size > 0) {
            int r = read_state(fd, &h, &s, false, path);
            result = r == 1 ? 0 : (r == 0 ? 1 : -1);
        }
        ::close(fd);
    }
    ::close(lock);
    return result;
}

uint64_t process_start(int pid) {
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/stat", pid);
    int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    char buf[1024];
    ssize_t n = read(fd, buf, sizeof buf - 1);
    ::close(fd);
    if (n <= 0) return 0;
    buf[n] = '\0';
    // The command name may hold blanks and parentheses: count fields after
    // its closing parenthesis. The start time is field 22; field 3 follows
    // the parenthesis.
    char *p = strrchr(buf, ')');
    if (p == nullptr) return 0;
    int field = 2;
    for (++p; *p != '\0'; ++p) {
        if (*p == ' ') {
            ++field;
            if (field == 22) return strtoull(p + 1, nullptr, 10);
        }
    }
    return 0;
}

}  // namespace mgsim
