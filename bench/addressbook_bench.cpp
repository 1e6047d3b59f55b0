// Address-book benchmark: a 20000-contact book with 50 groups of 400
// members. Each figure is a ratio against a baseline measured in the same
// run on the same data, so the machine's speed cancels out.
//
//   load    ab_load of the contact file  vs  fgets + splitting at "^|^"
//   save    ab_save_contacts             vs  the same bytes through one stream
//           (the formatting; the whole durable save is judged end to end
//           against a durable write in e2e_bench)
//   lookup  ab_find of every name        vs  std::map<std::string,int>::find
//   memory  heap bytes per contact beyond its text (mallinfo2)
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "addressbook/address_book.h"
#include "addressbook/address_book_files.h"
#include "common/fileops.h"
#include "common/runtime.h"

using namespace smsgw;

namespace {

constexpr int kContacts = 20000;
constexpr int kGroups = 50;
constexpr int kMembers = 400;

struct Contact {
    std::string name, number, description;
};

std::vector<Contact> make_contacts() {
    static const char* first[] = {"Anna", "Ben",  "Carla", "David", "Eva",  "Frank", "Greta",
                                  "Hans", "Ines", "Jonas", "Karin", "Lars", "Mia",   "Nils",
                                  "Olga", "Paul", "Rita",  "Sven",  "Tina", "Uwe"};
    std::mt19937 rng(42);
    std::vector<Contact> v;
    v.reserve(kContacts);
    char buf[64];
    for (int i = 0; i < kContacts; ++i) {
        Contact c;
        std::string last;
        size_t len = 5 + rng() % 6;
        last += static_cast<char>('A' + rng() % 26);
        while (last.size() < len) last += static_cast<char>('a' + rng() % 26);
        c.name = std::string(first[rng() % 20]) + " " + last;
        std::snprintf(buf, sizeof buf, "+49%09u", static_cast<unsigned>(rng() % 1000000000u));
        c.number = buf;
        c.description = (i % 4 == 0) ? "" : "customer since " + std::to_string(1990 + i % 30);
        v.push_back(std::move(c));
    }
    return v;
}

// CPU time of this process: the machine is shared, and wall time would
// count the time other processes hold the cores.
double cpu_now() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double seconds_min(int reps, const std::function<void()>& fn) {
    double best = 1e9;
    for (int r = 0; r < reps; ++r) {
        double t0 = cpu_now();
        fn();
        best = std::min(best, cpu_now() - t0);
    }
    return best;
}

void fill(AddressBook& ab, const std::vector<Contact>& contacts) {
    std::vector<Entry*> entries;
    for (const auto& c : contacts) {
        TrieNode* n = ab.ab_insert(c.name, c.number, c.description);
        if (n) entries.push_back(AddressBook::ab_find_number(n->entries.get(), c.number));
    }
    char name[16];
    for (int g = 0; g < kGroups; ++g) {
        std::snprintf(name, sizeof name, "group%02d", g);
        Group* grp = ab.group_create(name);
        for (int m = 0; m < kMembers; ++m)
            ab.group_add_member_to(grp, entries[static_cast<size_t>(g * kMembers + m)]);
    }
}

size_t heap_in_use() {
    struct mallinfo2 mi = mallinfo2();
    return mi.uordblks + mi.hblkhd;
}

}  // namespace

int main() {
    char tmpl[] = "/tmp/ab_bench_XXXXXX";
    if (!mkdtemp(tmpl)) return 1;
    std::string root = tmpl;
    Runtime rt(root);
    make_dirs(rt.path("/var/AddressBook"));
    make_dirs(rt.path("/var/run"));
    const std::string book = rt.path("/var/AddressBook/Address_Book");
    const std::string groups = rt.path("/var/AddressBook/groups");

    std::vector<Contact> contacts = make_contacts();

    // Memory: heap growth while the book is built, less the text it holds.
    ReplyBuffer reply;
    size_t before = heap_in_use();
    auto ab = std::make_unique<AddressBook>(reply);
    fill(*ab, contacts);
    size_t after = heap_in_use();
    size_t text = 0;
    ab->ab_for_each_entry(
        [&](Entry& e) { text += e.name.size() + e.number.size() + e.description.size(); });
    double per_contact = (static_cast<double>(after - before) - static_cast<double>(text)) /
                         static_cast<double>(ab->entry_count());

    // The files every load starts from.
    {
        FilePtr f = open_file(book, "w");
        ab_save_contacts(*ab, f.get());
    }
    ab_save_groups(*ab, rt);
    const std::string book_bytes = *read_file(book);
    const std::string group_bytes = *read_file(groups);

    // Save vs. the same bytes written through one stream.
    const std::string out = root + "/out";
    double t_save = seconds_min(7, [&] {
        FilePtr f = open_file(out, "w");
        ab_save_contacts(*ab, f.get());
    });
    double t_write = seconds_min(7, [&] {
        FilePtr f = open_file(out, "w");
        size_t pos = 0;
        while (pos < book_bytes.size()) {
            size_t nl = book_bytes.find('\n', pos);
            size_t end = nl == std::string::npos ? book_bytes.size() : nl + 1;
            std::fwrite(book_bytes.data() + pos, 1, end - pos, f.get());
            pos = end;
        }
    });

    // Load vs. reading the file and splitting every line at "^|^".
    double t_load = 1e9;
    for (int r = 0; r < 5; ++r) {
        write_file(book, book_bytes);
        write_file(groups, group_bytes);
        ReplyBuffer r2;
        AddressBook fresh(r2);
        double t0 = cpu_now();
        ab_load(fresh, rt);
        t_load = std::min(t_load, cpu_now() - t0);
        if (fresh.entry_count() != kContacts) std::fprintf(stderr, "load lost contacts\n");
    }
    write_file(book, book_bytes);
    volatile size_t sink = 0;
    double t_split = seconds_min(5, [&] {
        FILE* f = std::fopen(book.c_str(), "r");
        char line[500];
        size_t fields = 0;
        while (std::fgets(line, sizeof line, f)) {
            for (char* p = line; (p = std::strstr(p, "^|^")) != nullptr; p += 3) ++fields;
        }
        std::fclose(f);
        sink = sink + fields;
    });

    // Lookup of every name vs. std::map::find over the same names.
    std::map<std::string, int> reference;
    for (const auto& c : contacts) reference[c.name] = 1;
    std::vector<std::string> names;
    for (const auto& c : contacts) names.push_back(c.name);
    std::shuffle(names.begin(), names.end(), std::mt19937(7));
    double t_find = seconds_min(7, [&] {
        size_t found = 0;
        for (const auto& n : names) found += ab->ab_find(n) != nullptr;
        sink = sink + found;
    });
    double t_map = seconds_min(7, [&] {
        size_t found = 0;
        for (const auto& n : names) found += reference.find(n) != reference.end();
        sink = sink + found;
    });

    std::printf("address book: %d contacts, %d groups of %d members, contact file %zu bytes\n",
                kContacts, kGroups, kMembers, book_bytes.size());
    std::printf("%-8s %12s %12s %8s %8s\n", "what", "ours", "baseline", "ratio", "goal");
    std::printf("%-8s %10.2fms %10.2fms %8.2f %8s\n", "load", t_load * 1e3, t_split * 1e3,
                t_load / t_split, "<= 3");
    std::printf("%-8s %10.2fms %10.2fms %8.2f %8s\n", "save", t_save * 1e3, t_write * 1e3,
                t_save / t_write, "<= 2");
    std::printf("%-8s %10.2fms %10.2fms %8.2f %8s\n", "lookup", t_find * 1e3, t_map * 1e3,
                t_find / t_map, "<= 2");
    std::printf("%-8s %10.1f B/contact beyond its text %14s\n", "memory", per_contact, "<= 160");

    ab.reset();
    std::remove(out.c_str());
    std::remove(book.c_str());
    std::remove(groups.c_str());
    ::rmdir(rt.path("/var/AddressBook").c_str());
    ::rmdir(rt.path("/var/run").c_str());
    ::rmdir(rt.path("/var").c_str());
    ::rmdir(root.c_str());
    return 0;
}
