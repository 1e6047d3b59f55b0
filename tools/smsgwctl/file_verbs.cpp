#include "file_verbs.h"

#include <cerrno>
#include <cstring>
#include <optional>

#include "client.h"
#include "common/fileops.h"
#include "common/text.h"

namespace smsgw::ctl {
namespace {

constexpr size_t kMaxUpload = 16u << 20;

bool failure_text(const std::string& reply) {
    return starts_with(reply, "ERROR") || !plain_meaning(reply).empty();
}

// "FIRST,LAST,NUMBER,DESC" as the four lines of "/var/run/csv_frmt.dat".
std::string column_format(const std::string& columns) {
    std::string format;
    size_t count = 0;
    const std::string list = columns + ",";
    FieldCutter cut(list);
    while (auto col = cut.next(",")) {
        format += std::to_string(number_arg("--columns", std::string(*col), 1, 999)) + "\n";
        ++count;
    }
    if (count != 4)
        throw usage_error("--columns takes four column numbers: FIRST,LAST,NUMBER,DESC");
    return format;
}

// The upload and its column file, staged for the daemon: unless the daemon
// was reached, both are put back as they were, so a failed import leaves
// nothing behind.
class StagedUpload {
  public:
    StagedUpload(const Client& c, const std::string& data, const std::string& format)
        : upload_(c.path("/var/run/AddressBook.csv")),
          format_(c.path("/var/run/csv_frmt.dat")),
          old_upload_(read_file(upload_, kMaxUpload)),
          old_format_(read_file(format_, 4096)) {
        if (!write_file_atomic(upload_, data) || !write_file_atomic(format_, format)) {
            restore();
            throw Failure{
                kExitLocal, "cannot write the upload " + upload_ + ": " + std::strerror(errno), {}};
        }
    }
    ~StagedUpload() {
        if (!handed_over_) restore();
    }
    StagedUpload(const StagedUpload&) = delete;
    StagedUpload& operator=(const StagedUpload&) = delete;
    void handed_over() { handed_over_ = true; }

  private:
    void restore() const {
        put_back(upload_, old_upload_);
        put_back(format_, old_format_);
    }
    static void put_back(const std::string& path, const std::optional<std::string>& old) {
        if (old)
            write_file_atomic(path, *old);
        else
            remove_file(path);
    }

    std::string upload_, format_;
    std::optional<std::string> old_upload_, old_format_;
    bool handed_over_ = false;
};

}  // namespace

int cmd_raw(Global& g, const Words& w) {
    Args a = parse_args(g, w, {}, 1, 1, "raw TEXT");
    Client c(g);
    const std::string reply = c.request(a.positional[0]);
    std::optional<std::string> file;
    if (c.names(reply, "/var/run/RESPONSE_FILE")) file = c.read("/var/run/RESPONSE_FILE");
    if (failure_text(reply)) {
        if (!g.json) print_line(reply);
        fail(reply, "the daemon refused the request");
    }
    if (g.json) {
        JsonObject o;
        o.boolean("ok", true).str("reply", reply);
        if (file) o.str("file", *file);
        print(o.done() + "\n");
    } else if (file) {
        print_data(*file);
        if (!file->empty() && file->back() != '\n') print("\n");
    } else {
        print_line(reply);
    }
    return kExitOk;
}

int cmd_save(Global& g, const Words& w) {
    parse_args(g, w, {}, 0, 0, "save");
    const std::string reply = Client(g).request("save-address-book ^|^");
    if (reply == "ERROR") refused("the address book could not be written", reply);
    if (reply != "SUCCESS") fail(reply, "cannot save the address book");
    return succeed(g, "address book saved");
}

int cmd_export_csv(Global& g, const Words& w) {
    parse_args(g, w, {}, 0, 0, "export-csv");
    Client c(g);
    const std::string reply = c.request("CSVEXPORT");
    if (!c.names(reply, "/var/run/QX_Address_Book.csv")) fail(reply, "cannot export the contacts");
    const std::string csv = c.read("/var/run/QX_Address_Book.csv");
    if (g.json)
        print(JsonObject().str("file", reply).str("csv", csv).done() + "\n");
    else
        print_data(csv);
    return kExitOk;
}

int cmd_import_csv(Global& g, const Words& w) {
    Args a = parse_args(g, w, {{"--columns", 1}}, 1, 1,
                        "import-csv FILE [--columns FIRST,LAST,NUMBER,DESC]");
    // Without --columns the file is laid out as the export writes it:
    // first name, last name, description, number.
    const std::string format = column_format(a.value("--columns").value_or("1,2,4,3"));
    auto data = read_file(a.positional[0], kMaxUpload);
    if (!data)
        throw Failure{
            kExitLocal, "cannot read " + a.positional[0] + ": " + std::strerror(errno), {}};
    Client c(g);
    // The markers are the daemon's only verdict on the file; stale ones from
    // an earlier import must not be taken for this one's.
    const std::string empty_err = c.path("/var/tmp/csv_empty_err");
    const std::string space_err = c.path("/var/tmp/csv_lsp_err");
    remove_file(empty_err);
    remove_file(space_err);
    std::string reply;
    {
        StagedUpload staged(c, *data, format);
        reply = c.request("CSVFILE");
        staged.handed_over();
    }
    if (file_exists(empty_err)) refused("a line lacks the first name or the number", reply);
    if (file_exists(space_err)) refused("a first name or number begins with a blank", reply);
    if (!reply.empty()) fail(reply, "cannot import " + a.positional[0]);
    const std::string count = c.request("get-sms total-entries phone_book^|^");
    return succeed(g, "imported " + a.positional[0] + " (contacts in the book: " + count + ")",
                   JsonObject().num("contacts", c_atoi(count)));
}

}  // namespace smsgw::ctl
