// Loading and saving "/var/AddressBook/Address_Book" and
// "/var/AddressBook/groups".
//
// Reader limits. The files are text written by this daemon, but a hand-made
// or damaged file must not corrupt memory or shift the meaning of the lines
// that follow it, so over-long lines are read like this:
//  - groups: a line is one group; its first 51 bytes are the name and the
//    rest of an over-long line is dropped (so line n stays group n);
//  - contacts: a line is read in pieces of at most 499 bytes and the first
//    piece must hold the name and number separators, else the whole line is
//    skipped; the later pieces of a line are never taken for lines of their
//    own. Pieces join seamlessly, so the description and the group list may
//    run past the first piece. Name and number keep 51 bytes, the
//    description 200 (the rest is read and dropped);
//  - a NUL byte ends its line, as it ends a C string.
#include "addressbook/address_book_files.h"

#include <dirent.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "addressbook/address_book_util.h"
#include "common/fileops.h"
#include "common/trace.h"

namespace smsgw {

namespace {

constexpr size_t kGroupLineMax = 51;
constexpr size_t kContactPiece = 499;
constexpr size_t kFieldMax = 51;
constexpr size_t kDescriptionMax = 200;
// A physical line longer than this is consumed but not kept: nothing the
// daemon writes comes near it.
constexpr size_t kLineKeep = 64 * 1024;

void append_bounded(std::string& to, std::string_view text, size_t max) {
    if (to.size() < max) to.append(text.substr(0, max - to.size()));
}

void load_groups(AddressBook& ab, const std::string& path) {
    FilePtr f = open_file(path, "r");
    if (!f) return;
    std::string line;
    while (read_line(f.get(), line, kLineKeep)) {
        std::string name = line.substr(0, kGroupLineMax);
        if (name == "\n") continue;
        trace("%s - %d\n", name.c_str(), static_cast<int>(name.size()));
        size_t nl = name.find('\n');
        if (nl != std::string::npos) name.resize(nl);
        trace("%s - %d\n", name.c_str(), static_cast<int>(name.size()));
        ab.group_append_loaded(name);
    }
}

// Field 3: the description up to its separator, which may lie on a later
// line. `rest` is left behind the separator.
std::string read_description(FILE* f, std::string& line, std::string_view& rest) {
    std::string description;
    for (;;) {
        size_t p = rest.find(kSep);
        if (p != std::string_view::npos) {
            append_bounded(description, rest.substr(0, p), kDescriptionMax);
            rest.remove_prefix(p + kSep.size());
            return description;
        }
        append_bounded(description, rest, kDescriptionMax);
        if (!read_line(f, line, kLineKeep)) {
            rest = {};
            return description;
        }
        rest = line;
    }
}

void add_positions(AddressBook& ab, std::string_view list, Entry* entry) {
    size_t p = list.find(kSep);
    if (p == std::string_view::npos) return;
    list = list.substr(0, p);
    while (!list.empty()) {
        size_t comma = list.find(',');
        std::string_view piece = list.substr(0, comma);
        ab.group_add_by_position(c_atoi(piece), entry);
        if (comma == std::string_view::npos) break;
        list.remove_prefix(comma + 1);
    }
}

void load_contacts(AddressBook& ab, const std::string& path) {
    FilePtr f = open_file(path, "r");
    if (!f) return;
    std::string line;
    Tokenizer tok;
    int counter = 1;
    while (read_line(f.get(), line, kLineKeep)) {
        if (iequals(line, "\n")) continue;
        trace("%d\n", counter++);

        std::string_view piece = std::string_view(line).substr(0, kContactPiece);
        std::string_view cursor = tok.next_token(piece, kSep);
        if (!tok.token_found()) continue;
        std::string name = tok.word().substr(0, kFieldMax);
        cursor = tok.next_token(cursor, kSep);
        if (!tok.token_found()) continue;
        std::string number = tok.word().substr(0, kFieldMax);

        std::string_view rest =
            std::string_view(line).substr(static_cast<size_t>(cursor.data() - piece.data()));
        std::string description = read_description(f.get(), line, rest);

        TrieNode* node = ab.ab_insert(name, number, description);
        if (!node) continue;
        Entry* entry = AddressBook::ab_find_number(node->entries.get(), number);
        if (!entry) continue;
        add_positions(ab, rest, entry);
    }
}

// The memory copy is authoritative from here on: the directory is emptied
// as "rm -f *" would (plain files, no dot files, no directories).
void empty_directory(const std::string& dir) {
    DIR* d = ::opendir(dir.c_str());
    if (!d) return;
    while (dirent* de = ::readdir(d)) {
        if (de->d_name[0] == '.') continue;
        ::unlinkat(::dirfd(d), de->d_name, 0);
    }
    ::closedir(d);
}

}  // namespace

void ab_load(AddressBook& ab, const Runtime& rt) {
    load_groups(ab, rt.path("/var/AddressBook/groups"));
    load_contacts(ab, rt.path("/var/AddressBook/Address_Book"));
    empty_directory(rt.path("/var/AddressBook"));
    remove_file(rt.path("/var/run/init_address_book"));
}

void ab_save_contacts(AddressBook& ab, FILE* stream) {
    if (!stream) return;
    // The stream is the listing output only for the length of the save: the
    // caller closes it afterwards.
    FILE* previous = ab.list_output;
    ab.list_output = stream;
    ab.ab_for_each_entry([&](Entry& e) {
        std::fwrite(e.name.data(), 1, e.name.size(), stream);
        std::fwrite("^|^", 1, 3, stream);
        std::fwrite(e.number.data(), 1, e.number.size(), stream);
        std::fwrite("^|^", 1, 3, stream);
        std::fwrite(e.description.data(), 1, e.description.size(), stream);
        std::fwrite("^|^", 1, 3, stream);
        ab.group_write_memberships(stream, e.name, e.number);
    });
    ab.list_output = previous;
}

void ab_save_groups(AddressBook& ab, const Runtime& rt) {
    FilePtr f = open_file(rt.path("/var/AddressBook/groups"), "w");
    if (!f) return;
    for (Group* g = ab.first_group(); g; g = g->next.get()) {
        std::fwrite(g->group_name.data(), 1, g->group_name.size(), f.get());
        std::fputc('\n', f.get());
    }
}

}  // namespace smsgw
