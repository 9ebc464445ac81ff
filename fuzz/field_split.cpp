// Fuzzes the field splitters: xparse_string, xsplit_at (nested), get_token,
// copy_token, split_at and the trimming helpers. The first byte is the
// separator, the second the field count; the rest is the line.
#include <mossgrove/common.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

void check(bool ok) {
    if (!ok) abort();
}

// A writable, NUL-terminated copy of the line (the text ends at its first NUL).
struct Line {
    explicit Line(const std::string &s) : buf(s.begin(), s.end()) { buf.push_back('\0'); }
    char *get() { return buf.data(); }
    std::vector<char> buf;
};

void parse(const std::string &text, char sep, int n) {
    Line line(text);
    std::vector<char *> fields(static_cast<size_t>(n) + 1, nullptr);
    const int r = xparse_string(line.get(), sep, fields.data(), n);
    check(r == 1 || r == -1);
    check(fields[static_cast<size_t>(n)] == nullptr);
}

// Every field of the outer split is split again in a second slot; the fields
// and separators add up to the text.
void nested(const std::string &text, char outer_sep, char inner_sep) {
    Line line(text);
    const size_t len = strlen(line.get());
    init_tokslot();
    const int outer = get_tokslot(), inner = get_tokslot();
    size_t total = 0, count = 0;
    for (char *f = xsplit_at(line.get(), outer_sep, outer); f != nullptr; f = xsplit_at(nullptr, outer_sep, outer)) {
        total += strlen(f);
        ++count;
        for (char *g = xsplit_at(f, inner_sep, inner); g != nullptr; g = xsplit_at(nullptr, inner_sep, inner)) {
        }
    }
    check(outer_sep == '\0' ? count == 1 : total + count - 1 == len);
    return_tokslot(inner);
    return_tokslot(outer);
}

void tokens(const std::string &text) {
    // Park the continuation in a live buffer: the input of the previous run is gone.
    static char park[3];
    memcpy(park, "x ", 3);
    get_token(park);
    Line line(text);
    char *prev = get_token(line.get());
    for (int i = 0; prev != nullptr && i < 64; ++i) {
        check(strlen(prev) <= 1023);
        char *tok = get_token(nullptr);
        if (tok == prev) break;  // the last token repeats
        prev = tok;
    }
}

void walk(const std::string &text, char delim) {
    Line line(text);
    std::vector<char> dst(line.buf.size());
    int guard = 0;
    for (const char *p = line.get(); p != nullptr; ++guard) {
        check(guard <= static_cast<int>(line.buf.size()));
        p = copy_token(dst.data(), p, delim);
        check(strlen(dst.data()) < dst.size());
    }
    Line trim(text);
    TrimWhiteSpace(trim.get(), trim.get());
    RemoveTailCRLF(trim.get());
    Line split(text);
    split_at(split.get(), delim);
    check(count_char(text.c_str(), delim) >= 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) return 0;
    const char sep = static_cast<char>(data[0]);
    const int n = data[1] % 16;
    const std::string text(reinterpret_cast<const char *>(data) + 2, size - 2);
    parse(text, sep, n);
    nested(text, sep, static_cast<char>(data[1]));
    tokens(text);
    walk(text, sep);
    return 0;
}
