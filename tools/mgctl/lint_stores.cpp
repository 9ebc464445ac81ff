// mgctl lint, the text stores. Each store is read with the library's own
// record readers, as its load reads it. What makes the load fail is an error:
// a load is all or nothing, so the kernel table then stays empty. What the
// load skips, or what the kernel or the library would refuse on a later
// change, is a warning.
#include "mgctl/lint.hpp"

#include <mossgrove/kernel.h>
#include <mossgrove/rules.h>

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "stores/rulestore.hpp"
#include "stores/store_lines.hpp"

namespace mgctl {
namespace {

const std::string kNoLoad = ": the store does not load and its kernel table stays empty";

using LineReader = char *(*)(char *, int, FILE *);

struct FreeDeleter {
    void operator()(void *p) const { std::free(p); }
};
template <class T>
using Malloced = std::unique_ptr<T, FreeDeleter>;

// A store file in memory, read through a stream by the library's readers.
// Its significant lines (those the readers see) are indexed once with the
// same line reader and buffer size, so that every record and field can be
// named by its line in the file.
class StoreFile {
public:
    StoreFile(Report &report, std::string path, LineReader reader, int line_size)
        : report_(report), path_(std::move(path)), reader_(reader), line_(static_cast<size_t>(line_size)) {}
    ~StoreFile() {
        if (stream_ != nullptr) std::fclose(stream_);
    }
    StoreFile(const StoreFile &) = delete;
    StoreFile &operator=(const StoreFile &) = delete;

    // False when there is nothing to check: the file is absent or empty (an
    // empty table), or it cannot be read (reported).
    bool open();
    bool unreadable() const { return unreadable_; }
    FILE *stream() const { return stream_; }
    // The next significant line, or nullptr at the end of the file.
    char *next() { return reader_(line_.data(), static_cast<int>(line_.size()), stream_); }
    // Index of the significant line the readers read last.
    size_t last() const {
        const long pos = std::ftell(stream_);
        const size_t read = static_cast<size_t>(std::upper_bound(ends_.begin(), ends_.end(), pos) - ends_.begin());
        return read == 0 ? 0 : read - 1;
    }
    // File line of the significant line with this index.
    int line_at(size_t index) const { return lines_.empty() ? 1 : lines_[std::min(index, lines_.size() - 1)]; }
    int last_line() const { return line_at(last()); }
    void error(int line, const std::string &text) { report_.error(path_, line, text); }
    void warning(int line, const std::string &text) { report_.warning(path_, line, text); }

private:
    Report &report_;
    std::string path_;
    LineReader reader_;
    std::vector<char> line_;
    std::string text_;
    FILE *stream_ = nullptr;
    bool unreadable_ = false;
    std::vector<long> ends_;  // stream offset after each significant line
    std::vector<int> lines_;  // and its line in the file
};

bool StoreFile::open() {
    FILE *in = std::fopen(path_.c_str(), "rb");
    if (in == nullptr) {
        unreadable_ = errno != ENOENT;
        if (unreadable_) error(0, std::string("cannot be read (") + std::strerror(errno) + ")" + kNoLoad);
        return false;
    }
    char chunk[65536];
    for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, in)) > 0;) text_.append(chunk, n);
    unreadable_ = std::ferror(in) != 0;
    std::fclose(in);
    if (unreadable_) error(0, "cannot be read" + kNoLoad);
    if (unreadable_ || text_.empty()) return false;

    FILE *scan = fmemopen(text_.data(), text_.size(), "r");
    stream_ = fmemopen(text_.data(), text_.size(), "r");
    if (scan == nullptr || stream_ == nullptr) {
        if (scan != nullptr) std::fclose(scan);
        unreadable_ = true;
        error(0, "out of memory");
        return false;
    }
    long counted = 0;
    int newlines = 0;
    while (reader_(line_.data(), static_cast<int>(line_.size()), scan) != nullptr) {
        const long end = std::ftell(scan);
        // The line holds the last byte read.
        newlines += static_cast<int>(std::count(text_.begin() + counted, text_.begin() + end - 1, '\n'));
        counted = end - 1;
        ends_.push_back(end);
        lines_.push_back(newlines + 1);
    }
    std::fclose(scan);
    return true;
}

// The account and group databases, indexed once for every store, as a load does.
struct Accounts {
    mg::rules::NameIndex users{mg::rules::NameIndex::Db::Users};
    mg::rules::NameIndex groups{mg::rules::NameIndex::Db::Groups};
};

// The rule entries of a record, from the index of the first: resolved as the
// load resolves them (the names in the file give the numbers) and checked as
// a change of the record checks them.
void check_rules(StoreFile &file, size_t first, rulentry *rules, int count, Accounts &accounts) {
    if (count <= 0) return;
    mg::rules::resolve_rule_ids(rules, count, accounts.users, accounts.groups);
    const int status = get_module_status();
    for (int i = 0; i < count; ++i) {
        const rulentry &r = rules[i];
        const int line = file.line_at(first + static_cast<size_t>(i));
        const int kind = static_cast<int>(r.type & 0x17);
        if ((kind == 1 || kind == 16) && r.id == UINT32_MAX)
            file.warning(line, std::string(kind == 1 ? "no account '" : "no group '") + r.name +
                                   "': the rule loads with id -1 and applies to no one");
        else if (is_valid_rulentry(&r, status) != 1)
            file.warning(line, "no such category or role: a change of this record is refused");
    }
}

void check_policy_group(StoreFile &file, int line, int id, const std::optional<std::set<int>> &groups) {
    if (id != 0 && groups && groups->count(id) == 0)
        file.warning(line, "policy group " + std::to_string(id) + " is not in policy_group");
}

// The marker line that opens a record; false (reported) when it is not there.
bool opens_record(StoreFile &file, const char *line, const char *marker) {
    if (std::strcmp(line, marker) == 0) return true;
    file.error(file.last_line(), std::string("expected ") + marker + kNoLoad);
    return false;
}

void lint_file_acl(Report &report, const std::string &path, const std::optional<std::set<int>> &groups,
                   Accounts &accounts) {
    StoreFile file(report, path, fgets_rule_file, 2048);
    if (!file.open()) return;
    std::set<std::string> paths;
    while (const char *line = file.next()) {
        if (!opens_record(file, line, "[ACL]")) return;
        const size_t start = file.last();
        faclhdr hdr;
        rulentry *raw = nullptr;
        if (read_facl_record(file.stream(), &hdr, &raw) != 0)
            return file.error(file.last_line(), "malformed file ACL record" + kNoLoad);
        Malloced<rulentry> rules(raw);
        const int at = file.line_at(start);
        if (is_valid_faclhdr(&hdr) != 1)
            file.error(at, "rule count (1-32), mode (0-2), flag (0-1) or policy group (0-512) out of range" + kNoLoad);
        check_policy_group(file, at, hdr.polgrp_id, groups);
        if (!paths.insert(hdr.path).second)
            file.error(file.line_at(start + 1), "the path has an entry already" + kNoLoad);
        else if (is_valid_rulepath(hdr.path) != 1)
            file.warning(file.line_at(start + 1), "a path that no add accepts (a \"*\" only in the last component)");
        check_rules(file, start + 6, raw, hdr.rule_cnt, accounts);
    }
}

void lint_file_groups(Report &report, const std::string &path, const std::optional<std::set<int>> &groups,
                      Accounts &accounts) {
    StoreFile file(report, path, fgets_rule_file, 2048);
    if (!file.open()) return;
    while (const char *line = file.next()) {
        if (!opens_record(file, line, "[FGROUP]")) return;
        const size_t start = file.last();
        fgrouphdr hdr;
        rulentry *raw_rules = nullptr;
        mpath *raw_members = nullptr;
        if (read_fgroup_record(file.stream(), &hdr, &raw_rules, &raw_members) != 0)
            return file.error(file.last_line(), "malformed file group record" + kNoLoad);
        Malloced<rulentry> rules(raw_rules);
        Malloced<mpath> members(raw_members);
        const int at = file.line_at(start);
        hdr.fgroup_id = 0;  // the load creates every group afresh
        if (is_valid_fgrouphdr(&hdr) != 1)
            file.error(at, "rule count (0-32), member count (0-1024), mode (0-2) or policy group (0-512) out of range" +
                               kNoLoad);
        check_policy_group(file, at, hdr.polgrp_id, groups);
        check_rules(file, start + 7, raw_rules, hdr.rule_cnt, accounts);
        const size_t first_member = start + 7 + static_cast<size_t>(std::max(hdr.rule_cnt, 0));
        for (int i = 0; i < hdr.member_cnt && raw_members != nullptr; ++i) {
            const int member_line = file.line_at(first_member + 2 * static_cast<size_t>(i));
            if (is_valid_mpath(&raw_members[i]) != 1)
                file.error(member_line, "a member needs an absolute path and a flag 0 or 1" + kNoLoad);
            else if (is_valid_rulepath(raw_members[i].path) != 1)
                file.warning(member_line, "a member path that no change accepts (a \"*\" only in the last component)");
        }
    }
}

void lint_kill_acl(Report &report, const std::string &path) {
    StoreFile file(report, path, fgets_rule_file, 2048);
    if (!file.open()) return;
    std::set<std::string> paths;
    while (const char *line = file.next()) {
        if (!opens_record(file, line, "[KACL]")) return;
        const size_t start = file.last();
        kaclent entry;
        if (read_kacl_record(file.stream(), &entry) != 0)
            return file.error(file.last_line(), "malformed kill ACL record (flag 0 or 1, signals as HUP:KILL:...)" + kNoLoad);
        if (!paths.insert(entry.path).second)
            file.error(file.line_at(start + 1), "the path has an entry already" + kNoLoad);
    }
}

void lint_setuid_acl(Report &report, const std::string &path) {
    StoreFile file(report, path, fgets_rule_file, 2048);
    if (!file.open()) return;
    std::set<std::string> paths;
    while (char *line = file.next()) {
        suidaclent entry;
        if (!mg::rules::parse_setuid_line(line, &entry))
            return file.error(file.last_line(), "not \"flag:path\" with a flag 0 or 1 and an absolute path" + kNoLoad);
        if (!paths.insert(entry.path).second)
            file.warning(file.last_line(), "listed twice: the load skips this line");
        else if (access(entry.path, F_OK) != 0)
            file.warning(file.last_line(), "no such program: the load skips this line");
    }
}

// The numbers of the policy groups, or nothing when the list cannot be read.
std::optional<std::set<int>> lint_policy_groups(Report &report, const std::string &path) {
    std::set<int> ids;
    StoreFile file(report, path, fgets_rule_file, 2048);
    if (!file.open()) return file.unreadable() ? std::nullopt : std::optional(ids);
    for (int n = 1; char *line = file.next(); ++n) {
        if (n > MG_GROUP_ID_MAX) {
            file.warning(file.last_line(), "lines past the 512th are not read");
            break;
        }
        polgrp group;
        if (!mg::rules::parse_polgrp_line(line, &group)) {
            file.error(file.last_line(), "not \"number:name\": the list cannot be read, so no group can be "
                                         "added, renamed or deleted");
            return std::nullopt;
        }
        if (group.polgrp_id < 1 || group.polgrp_id > MG_GROUP_ID_MAX)
            file.warning(file.last_line(), "number outside 1 to 512");
        else if (!ids.insert(group.polgrp_id).second)
            file.warning(file.last_line(), "number used twice: a rename or delete reaches only the first");
    }
    return ids;
}

void lint_service_rules(Report &report, const std::string &path, int kind) {
    StoreFile file(report, path, fgets_alsvc_file, 1024);
    if (!file.open()) return;
    int blocks = 0;
    while (const char *line = file.next()) {
        if (!opens_record(file, line, "[ALSVC]")) return;
        const size_t start = file.last();
        alsvc_load *block = read_rule_from_file(file.stream());
        if (block == nullptr)
            return file.error(file.last_line(), "malformed header (id:name:count) or rule (service:n:n:address)" + kNoLoad);
        std::unique_ptr<alsvc_load, void (*)(alsvc_load *) noexcept> hold(block, free_load_hdr_all);
        const char *end = file.next();
        if (end == nullptr || std::strcmp(end, "[/ALSVC]") != 0)
            return file.error(file.last_line(), "expected [/ALSVC]" + kNoLoad);
        ++blocks;
        if (block->hdr->rule_cnt < 1 || block->hdr->id < 0)
            file.error(file.line_at(start + 1), "a header needs an id of 0 or more and at least one rule" + kNoLoad);
        for (int i = 0; i < block->hdr->rule_cnt; ++i)
            if (block->rules[i].ipaddr == INADDR_NONE)
                file.warning(file.line_at(start + 2 + static_cast<size_t>(i)),
                             "the address reads as 255.255.255.255 (a malformed address reads so too)");
    }
    if (kind == 2 && blocks > 1) file.warning(1, "more than one default header: the set cannot be exported");
}

void lint_allowed_commands(Report &report, const std::string &path) {
    StoreFile file(report, path, fgets_alcmd_file, 1024);
    if (!file.open()) return;
    std::set<std::string> paths;
    for (int n = 1; const char *line = file.next(); ++n) {
        const int at = file.last_line();
        if (n > MG_ALCMD_MAX) return file.warning(at, "entries past the 50th are ignored");
        alcmd entry;
        if (!mg::rules::read_alcmd_entry(line, file.stream(), &entry))
            return file.error(file.last_line(), "not an absolute path of at most 254 characters followed by "
                                                "four numbers the list accepts" + kNoLoad);
        if (!paths.insert(entry.path).second) file.warning(at, "listed twice: no add or change reaches the second");
    }
}

}  // namespace

void lint_text_stores(Report &report, const std::string &root) {
    const std::string data = root + "/data/";
    const std::optional<std::set<int>> groups = lint_policy_groups(report, data + "policy_group");
    Accounts accounts;
    lint_file_acl(report, data + "acl_file", groups, accounts);
    lint_file_groups(report, data + "acl_fgroup", groups, accounts);
    lint_kill_acl(report, data + "acl_kill");
    lint_setuid_acl(report, data + "acl_setuid");
    const char *service_files[] = {"alsvc_user", "alsvc_group", "alsvc_def"};
    for (int kind = 0; kind < 3; ++kind) lint_service_rules(report, data + service_files[kind], kind);
    lint_allowed_commands(report, data + "alcmd_file");
}

}  // namespace mgctl
