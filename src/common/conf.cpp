// The key/value configuration reader: one process-wide table, and the
// installation root read through it.
#include <mossgrove/common.h>
#include <strings.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "common/handles.hpp"
#include "common/heap_array.hpp"
#include "common/paths.hpp"
#include "common/text.hpp"

namespace {

// Lines are read in pieces of this size; the rest of a longer line is read,
// and treated, as a line of its own.
constexpr int kLineBuf = 2048;
constexpr size_t kMaxKey = 255;
constexpr size_t kConfValueSize = 1024;  // caller buffer of get_conf

// Entries in file order. Keys and values live in one text block that is never
// appended to once the table is installed, so value pointers stay put.
struct ConfTable {
    struct Entry {
        size_t key, value;  // offsets into text
    };
    mg::HeapArray<Entry> entries;
    mg::HeapArray<char> text;

    // False when out of memory.
    bool add(const char *key, const char *value) noexcept {
        Entry e;
        return append(key, kMaxKey, &e.key) &&
               append(value != nullptr ? value : "", mg::text::kMaxToken, &e.value) && entries.push_back(e);
    }

private:
    bool append(const char *s, size_t max, size_t *at) noexcept {
        *at = text.size();
        return text.append(s, strnlen(s, max)) && text.push_back('\0');
    }
};

// The loaded table. read_conf installs a new one without freeing the old
// (pointers handed out from it stay valid); close_conf frees and forgets it.
ConfTable *g_conf;

// A piece counts unless it starts with '#' or is an empty line.
bool is_significant(const char *line) { return line[0] != '#' && line[0] != '\n'; }

// Calls fn on every significant piece from the current position; false on a
// read error.
template <class Fn>
bool each_significant_line(FILE *file, Fn fn) {
    char line[kLineBuf];
    while (fgets(line, sizeof line, file) != nullptr)
        if (is_significant(line)) fn(line);
    return ferror(file) == 0;
}

}  // namespace

int count_lines(FILE *file) noexcept {
    if (file == nullptr) return -1;
    int n = 0;
    each_significant_line(file, [&n](char *) { ++n; });
    return n;
}

// One pass: the significant lines are counted while the table is built. A file
// with none (empty, or comments only) is a failure even though it opened. A
// failed read leaves the installed table as it was.
int read_conf(const char *path) noexcept {
    if (path == nullptr) return 0;
    mg::UniqueFile file(fopen(path, "re"));
    if (!file) return 0;
    std::unique_ptr<ConfTable> table(new (std::nothrow) ConfTable);
    if (!table) return 0;
    long counted = 0;
    bool stored = true;
    const bool ok = each_significant_line(file.get(), [&](char *line) {
        ++counted;
        char *next = nullptr;
        char *key = mg::text::scan_token(line, &next);
        if (key == nullptr) return;
        // A key that ends the line has no value (next stays null).
        char *value = next != nullptr ? mg::text::scan_token(next, &next) : nullptr;
        stored = table->add(key, value) && stored;
    });
    if (!ok || !stored || counted == 0) return 0;
    g_conf = table.release();
    return 1;
}

char *get_conf_ptr(const char *key) noexcept {
    ConfTable *table = g_conf;
    if (table == nullptr || key == nullptr) return nullptr;
    for (const auto &e : table->entries)
        if (strcasecmp(key, table->text.data() + e.key) == 0) return table->text.data() + e.value;
    return nullptr;
}

int get_conf(const char *key, char *value) noexcept {
    if (value == nullptr) return 0;
    const char *found = get_conf_ptr(key);
    if (found == nullptr) {
        value[0] = '\0';
        return 0;
    }
    snprintf(value, kConfValueSize, "%s", found);
    return 1;
}

int close_conf(void) noexcept {
    delete g_conf;
    g_conf = nullptr;
    return 1;
}

int get_mgroot(char *buffer, int size) noexcept {
    if (buffer == nullptr || size < 1) return set_errno(EINVAL);
    char root[kConfValueSize];
    if (const char *given = mg::paths::root_override()) {
        mg::text::copy_cut(root, sizeof root, given);
    } else {
        if (read_conf(mg::paths::evmg()) != 1) return set_errno(MG_ERR_NO_EVMG);
        const int found = get_conf("MG_ROOT", root);
        close_conf();
        if (found != 1) return set_errno(MG_ERR_NO_MGROOT);
    }
    size_t len = strlen(root);
    if (len <= 1) return set_errno(MG_ERR_NO_MGROOT);
    if (root[len - 1] == '/') root[--len] = '\0';
    mg::text::copy_cut(buffer, static_cast<size_t>(size), root);
    return 0;
}
