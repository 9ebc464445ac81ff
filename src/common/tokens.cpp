// Token slots, field splitting and the key/value tokenizer.
#include <mossgrove/common.h>

#include <cstring>

#include "common/text.hpp"

namespace {

// Process-wide split state: each slot remembers where its split goes on.
struct TokSlot {
    bool used;
    char *pos;
};
TokSlot g_tokslots[MG_TOKSLOT_COUNT];

// Where get_token(NULL) goes on.
char *g_token_next;

bool valid_slot(int slot) { return slot >= 0 && slot < MG_TOKSLOT_COUNT; }

}  // namespace

namespace mg::text {

char *find_sep(const char *s, int ch) noexcept {
    if (static_cast<char>(ch) == '\0') return nullptr;
    return const_cast<char *>(strchr(s, ch));
}

char *scan_token(char *from, char **next) noexcept {
    *next = nullptr;
    while (is_space(*from) || *from == '=') ++from;
    if (*from == '\0' || *from == '#') return nullptr;
    char *end = from;
    while (*end != '\0' && !is_space(*end) && *end != '=' && *end != '#') ++end;
    if (*end != '\0') {
        *end = '\0';
        *next = end + 1;
    }
    if (static_cast<size_t>(end - from) > kMaxToken) from[kMaxToken] = '\0';
    return from;
}

}  // namespace mg::text

void init_tokslot(void) noexcept {
    for (TokSlot &s : g_tokslots) s = TokSlot{false, nullptr};
}

int get_tokslot(void) noexcept {
    for (int i = 0; i < MG_TOKSLOT_COUNT; ++i) {
        if (!g_tokslots[i].used) {
            g_tokslots[i].used = true;
            return i;
        }
    }
    return -1;
}

// A number outside the slot range is ignored rather than written through.
void return_tokslot(int slot) noexcept {
    if (valid_slot(slot)) g_tokslots[slot] = TokSlot{false, nullptr};
}

char *split_at(char *str, int ch) noexcept {
    if (str == nullptr) return nullptr;
    char *sep = mg::text::find_sep(str, ch);
    if (sep == nullptr) return nullptr;
    *sep = '\0';
    return sep + 1;
}

char *xsplit_at(char *str, int ch, int slot) noexcept {
    if (!valid_slot(slot)) return nullptr;
    char *&pos = g_tokslots[slot].pos;
    if (str != nullptr) pos = str;
    char *field = pos;
    if (field == nullptr) return nullptr;
    char *sep = mg::text::find_sep(field, ch);
    if (sep != nullptr) {
        *sep = '\0';
        pos = sep + 1;
    } else {
        pos = nullptr;
    }
    return field;
}

int xparse_string(char *str, int ch, char **fields, int n) noexcept {
    int slot = get_tokslot();
    if (slot < 0) return 0;
    int stored = 0;
    if (fields != nullptr && n > 0) {
        char *f = xsplit_at(str, ch, slot);
        while (f != nullptr) {
            fields[stored++] = f;
            if (stored == n) break;  // the rest of the line is ignored
            f = xsplit_at(nullptr, ch, slot);
        }
    }
    return_tokslot(slot);
    return stored == n ? 1 : -1;
}

int count_char(const char *str, int ch) noexcept {
    if (str == nullptr) return -1;
    const char c = static_cast<char>(ch);
    int n = 0;
    for (; *str != '\0'; ++str)
        if (*str == c) ++n;
    return n;
}

char *get_token(char *str) noexcept { return mg::text::next_token(str, g_token_next); }
