// CSV export of the contact table and import of an uploaded file whose
// column layout comes from "/var/run/csv_frmt.dat".
//
// Import reads the upload twice: a validation pass that rejects the whole
// file on the first bad line (marker file, upload emptied), then the import
// pass. A line keeps at most 1999 characters; the rest of a longer line is
// dropped rather than taken for a line of its own. Fields are held to the
// sizes the web interface works with (names and number 51 bytes,
// description 200).
#include "addressbook/csv.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <optional>
#include <string>
#include <utility>

#include "addressbook/address_book_util.h"
#include "common/fileops.h"

namespace smsgw {

namespace {

constexpr size_t kLineMax = 1999;
constexpr size_t kNameMax = 51;
constexpr size_t kDescriptionMax = 200;
constexpr size_t kScratchMax = 99;
constexpr size_t kFullNameMax = 49;  // "%s %s" into 50 bytes

enum Field { kFirst = 0, kLast = 1, kNumber = 2, kDescription = 3 };

// The upload, its format file and the export live at fixed names in a
// directory other programs write to: a link planted there must neither
// feed another file into the address book nor let an export or the
// emptying of the upload write through it.
FilePtr open_for_reading(const std::string& path) {
    Fd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return FilePtr();
    if (::fcntl(fd.get(), F_SETFL, 0) != 0) return FilePtr();
    FILE* f = ::fdopen(fd.get(), "r");
    if (f) fd.release();
    return FilePtr(f);
}

// Truncates or creates the file; anything but a plain file of its own
// (a link, a second name of another file) is removed first.
FilePtr open_for_writing(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0 && (!S_ISREG(st.st_mode) || st.st_nlink != 1))
        ::unlink(path.c_str());
    Fd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!fd) return FilePtr();
    FILE* f = ::fdopen(fd.get(), "w");
    if (f) fd.release();
    return FilePtr(f);
}

// Column numbers in file order (first, last, number, description), the
// same sorted ascending, and for each sorted place the field it fills.
struct ColumnFormat {
    long long column[4] = {0, 0, 0, 0};
    long long sorted[4] = {0, 0, 0, 0};
    int field_at[4] = {0, 1, 2, 3};
};

std::optional<ColumnFormat> read_format(const std::string& path) {
    FilePtr f = open_for_reading(path);
    if (!f) return std::nullopt;
    ColumnFormat fmt;
    char buf[10];
    for (long long& c : fmt.column) {
        // Each value is read with at most nine characters, like the web
        // interface's writer expects.
        c = std::fgets(buf, sizeof buf, f.get()) ? c_atoi(buf) : 0;
    }
    for (int i = 0; i < 4; ++i) fmt.sorted[i] = fmt.column[i];
    for (int pass = 0; pass < 3; ++pass)
        for (int i = 0; i < 3 - pass; ++i)
            if (fmt.sorted[i] > fmt.sorted[i + 1]) std::swap(fmt.sorted[i], fmt.sorted[i + 1]);
    bool taken[4] = {false, false, false, false};
    for (int k = 0; k < 4; ++k) {
        for (int f2 = 0; f2 < 4; ++f2) {
            if (!taken[f2] && fmt.column[f2] == fmt.sorted[k]) {
                fmt.field_at[k] = f2;
                taken[f2] = true;
                break;
            }
        }
    }
    return fmt;
}

class LineFields {
  public:
    std::string text[4];

    void clear() {
        for (auto& t : text) t.clear();
        scratch_.clear();
    }

    // Splits one line into the four fields.
    void parse(std::string_view line, const ColumnFormat& fmt) {
        int place = 0;
        int column = 0;
        select(fmt.column[kFirst] == 1 ? fmt.field_at[0] : -1);
        bool in_quotes = false;
        bool quoted = false;
        size_t n = examined_length(line);
        for (size_t i = 0; i < n; ++i) {
            char c = line[i];
            if (c == '"') {
                if (!in_quotes) {
                    in_quotes = true;
                    quoted = true;
                    put('"');
                } else if (i + 1 < n && line[i + 1] == '"') {
                    put('"');
                    ++i;
                } else {
                    in_quotes = false;
                    if (i + 1 == n) drop_leading_quote();
                }
                continue;
            }
            if (c == ',' && !in_quotes) {
                if (place == 3) break;  // all four fields are filled
                if (quoted) drop_leading_quote();
                quoted = false;
                ++column;
                if (column == fmt.sorted[place + 1] - 1) {
                    ++place;
                    select(fmt.field_at[place]);
                } else {
                    select(-1);
                }
                continue;
            }
            put(c);
        }
    }

  private:
    // The bytes a line's fields are taken from: all but its final one
    // (normally the line break), and a CR just before a final LF belongs to
    // the line end too, so that an exported file ("\r\n") reads back as
    // it was written.
    static size_t examined_length(std::string_view line) {
        size_t n = line.size();
        if (n >= 2 && line[n - 2] == '\r' && line[n - 1] == '\n') return n - 2;
        return n == 0 ? 0 : n - 1;
    }
    // -1 selects the scratch buffer that swallows unused columns.
    void select(int field) {
        if (field < 0) {
            scratch_.clear();
            current_ = &scratch_;
            limit_ = kScratchMax;
        } else {
            current_ = &text[field];
            limit_ = field == kDescription ? kDescriptionMax : kNameMax;
        }
    }
    void put(char c) {
        if (current_->size() < limit_) current_->push_back(c);
    }
    void drop_leading_quote() {
        if (!current_->empty() && (*current_)[0] == '"') current_->erase(0, 1);
    }

    std::string scratch_;
    std::string* current_ = &scratch_;
    size_t limit_ = kScratchMax;
};

bool has_digit(const std::string& s) {
    for (char c : s)
        if (c >= '0' && c <= '9') return true;
    return false;
}

void blank_out_breaks_and_quotes(std::string& s) {
    for (char& c : s)
        if (c == '\n' || c == '\r' || c == '"') c = ' ';
}

// Rejects the upload: the marker tells the web interface why.
void reject(const Runtime& rt, const char* marker, const std::string& upload) {
    touch_file(rt.path(marker));
    open_for_writing(upload);
}

// True when every line has a first name and a number, neither beginning
// with a blank.
bool validate(const Runtime& rt, const std::string& upload, const ColumnFormat& fmt) {
    FilePtr f = open_for_reading(upload);
    if (!f) return false;
    LineReader reader(f.get());
    std::string line;
    LineFields fields;
    while (reader.next(line, kLineMax)) {
        fields.clear();
        fields.parse(line, fmt);
        const std::string& first = fields.text[kFirst];
        const std::string& number = fields.text[kNumber];
        if (first.empty() || number.empty()) {
            f.reset();
            reject(rt, "/var/tmp/csv_empty_err", upload);
            return false;
        }
        if (first[0] == ' ' || number[0] == ' ') {
            f.reset();
            reject(rt, "/var/tmp/csv_lsp_err", upload);
            return false;
        }
    }
    return true;
}

}  // namespace

void csv_export(AddressBook& ab, const std::string& path) {
    FilePtr f = open_for_writing(path);
    if (!f) return;
    std::fputs("Firstname,Lastname,Description,Phone-Number\r\n", f.get());
    std::string line;
    ab.ab_for_each_entry([&](Entry& e) {
        std::string_view name = e.name;
        size_t blank = name.find(' ');
        std::string_view first = name.substr(0, blank);
        std::string_view last = blank == std::string_view::npos ? "" : name.substr(blank + 1);
        line.assign(first);
        line += ',';
        line.append(last);
        line += ',';
        size_t d = line.size();
        line += e.description;
        for (size_t i = d; i < line.size(); ++i)
            if (line[i] == '\n' || line[i] == '\r') line[i] = ' ';
        line += ',';
        line += e.number;
        line += "\r\n";
        std::fwrite(line.data(), 1, line.size(), f.get());
    });
}

void csv_import(AddressBook& ab, const Runtime& rt, const std::string& path) {
    std::optional<ColumnFormat> fmt = read_format(rt.path("/var/run/csv_frmt.dat"));
    if (!fmt) return;
    if (!validate(rt, path, *fmt)) return;

    FilePtr f = open_for_reading(path);
    if (!f) return;
    LineReader reader(f.get());
    std::string line;
    LineFields fields;
    while (reader.next(line, kLineMax)) {
        fields.clear();
        fields.parse(line, *fmt);
        std::string& number = fields.text[kNumber];
        // Also drops the header line: "Phone-Number" holds no digit.
        if (!has_digit(number)) continue;
        std::string name = fields.text[kFirst] + " " + fields.text[kLast];
        if (name.size() > kFullNameMax) name.resize(kFullNameMax);
        std::string& description = fields.text[kDescription];
        blank_out_breaks_and_quotes(name);
        blank_out_breaks_and_quotes(number);
        blank_out_breaks_and_quotes(description);
        ab.ab_insert(name, number, description);
    }
}

}  // namespace smsgw
