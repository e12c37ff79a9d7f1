#include "export/history.h"

#include "export/site_metrics.h"
#include "topics.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <istream>
#include <sstream>
#include <utility>

namespace
{

constexpr const char *WRITTEN_HEAD = "diagctl export --pm 1";
constexpr const char *END = "# EOF";
constexpr const char *KINDS[] = {"periods", "days"}; // by pm_kind
constexpr size_t KEPT = size_t{2} * PM_PERIODS;
constexpr double PARTS_PER_MILLION = 1e6;

template <typename T>
bool parse_number(std::string_view text, T &value)
{
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

// --- families of metrics, one for each field of the records of a kind

struct family {
    pm_kind kind;
    const pm_field *field;
    std::string name;
    std::string head;
};

// "link_down_count" counts link downs: as a metric, "link_downs".
std::string metric_name(const pm_field &field)
{
    std::string name = field.name;
    if (field.offset == PM_ERROR_RATIO_PPM) {
        return "error_ratio";
    }
    constexpr std::string_view COUNT = "_count";
    return name.ends_with(COUNT) ? name.replace(name.size() - COUNT.size(), COUNT.size(), "s") : name;
}

const std::vector<family> &families()
{
    static const std::vector<family> all = [] {
        std::vector<family> made;
        for (const pm_kind kind : {pm_kind::PERIODS, pm_kind::DAYS}) {
            const bool is_period = kind == pm_kind::PERIODS;
            for (const pm_field &field : PM_FIELDS) {
                if (field.treatment == pm_treatment::CLOSING_TIME) {
                    continue;
                }
                const std::string what = metric_name(field);
                const std::string name = fmt::format("diag_port_{}_{}", is_period ? "period" : "day", what);
                made.push_back({kind, &field, name,
                                fmt::format("# TYPE {0} gauge\n# HELP {0} Performance of a port in the {1} "
                                            "that ended then: {2}.\n",
                                            name, is_period ? "quarter hour" : "day", what)});
            }
        }
        return made;
    }();
    return all;
}

std::string sample_line(const family &of, const std::string &labels, int64_t time, const pm_record &record)
{
    const uint64_t value = field_value(record, *of.field);
    const std::string text = of.field->offset == PM_ERROR_RATIO_PPM
                                 ? fmt::format("{}", static_cast<double>(value) / PARTS_PER_MILLION)
                                 : fmt::format("{}", value);
    return fmt::format("{}{{{}}} {} {}\n", of.name, labels, text, time);
}

// --- what was written before

struct sample {
    std::string_view labels;
    int64_t time = 0;
    record_series series = {};
};

std::string_view label_value(std::string_view labels, std::string_view name)
{
    const size_t start = labels.find(std::string(name) + "=\"");
    if (start == std::string_view::npos) {
        return {};
    }
    const std::string_view rest = labels.substr(start + name.size() + 2);
    return rest.substr(0, rest.find('"'));
}

// Reads a text line by line, as it must be.
class history_reader
{
public:
    explicit history_reader(std::istream &given) : text(given) { next(); }

    void take_head(const family &of)
    {
        std::istringstream head(of.head);
        for (std::string wanted; std::getline(head, wanted); next()) {
            expect(line == wanted);
        }
        current = &of;
        last.clear();
        parse();
    }
    void take_end()
    {
        expect(line == END);
        next();
        expect(text.eof());
    }

    bool has_sample() const { return current != nullptr; } // of the family whose head was taken
    const sample &get() const { return parsed; }
    const std::string &get_line() const { return line; }
    void take_sample()
    {
        last.assign(parsed.labels);
        last_time = parsed.time;
        next();
        parse();
    }

private:
    void expect(bool is_so) const
    {
        if (!is_so) {
            throw bad_history(fmt::format("line {} isn't of export --pm", number));
        }
    }
    void next()
    {
        number++;
        std::getline(text, line);
    }
    void parse()
    {
        if (line.starts_with('#')) {
            current = nullptr;
            return;
        }
        const std::string_view all = line;
        const size_t end = all.rfind("} ");
        const size_t before_time = all.rfind(' ');
        expect(all.starts_with(current->name + "{") && end != std::string::npos && before_time > end + 1);
        const size_t start = current->name.size() + 1;
        parsed.labels = all.substr(start, end - start);
        const auto mac = parse_topic_mac(label_value(parsed.labels, "mac"));
        const auto port = parse_port(label_value(parsed.labels, "port"));
        double value = 0;
        expect(mac && port && parse_number(all.substr(before_time + 1), parsed.time) &&
               parse_number(all.substr(end + 2, before_time - end - 2), value));
        parsed.series = {*mac, *port, current->kind};
        expect(last.empty() ||
               std::pair(std::string_view(last), last_time) < std::pair(parsed.labels, parsed.time));
    }

    std::istream &text;
    size_t number = 0;
    std::string line;
    const family *current = nullptr;
    sample parsed;
    std::string last; // labels before
    int64_t last_time = 0;
};

void add_records(const node &shown, const std::string &network_label, const node_names &names, history &out)
{
    const std::string *const name = names.of(shown.mac);
    std::string card = fmt::format("mac=\"{}\"", mac_text(shown.mac));
    card += name == nullptr ? "" : fmt::format(",name=\"{}\"", *name);
    card += network_label.empty() ? "" : fmt::format(",network=\"{}\"", network_label);
    for (const auto &[port, records] : shown.ports) {
        const std::string labels = fmt::format("{},port=\"{}\"", card, port_text(port));
        for (const auto &[slot, record] : records.pm) {
            if (!record.value) {
                continue;
            }
            const pm_kind kind = slot.starts_with(PM_PERIOD) ? pm_kind::PERIODS : pm_kind::DAYS;
            history_series &series = out[static_cast<size_t>(kind)][labels];
            series.series = {shown.mac, port, kind};
            series.records.try_emplace(closing_time(*record.value), *record.value);
        }
    }
}

} // namespace

bool written_records::has(const record_series &series, int64_t time) const
{
    const auto found = times.find(series);
    return found != times.end() &&
           std::find(found->second.begin(), found->second.end(), time) != found->second.end();
}

void written_records::note(const record_series &series, int64_t time)
{
    std::vector<int64_t> &noted = times[series];
    std::erase(noted, time);
    noted.push_back(time);
    if (noted.size() > KEPT) {
        noted.erase(noted.begin());
    }
}

std::string written_records::text() const
{
    std::string all = std::string(WRITTEN_HEAD) + "\n";
    for (const auto &[series, noted] : times) {
        all += fmt::format("{} {} {} {}\n", mac_text(series.mac), port_text(series.port),
                           KINDS[static_cast<size_t>(series.kind)], fmt::join(noted, " "));
    }
    return all;
}

written_records written_records::parse(std::istream &text)
{
    written_records read;
    std::string line;
    if (!std::getline(text, line) || line != WRITTEN_HEAD) {
        throw bad_history("it isn't of this version of diagctl");
    }
    for (size_t number = 2; std::getline(text, line); number++) {
        std::istringstream words(line);
        std::string mac;
        std::string port;
        std::string kind;
        words >> mac >> port >> kind;
        const auto known_mac = parse_topic_mac(mac);
        const auto known_port = parse_port(port);
        const auto known_kind = std::find(std::begin(KINDS), std::end(KINDS), kind);
        const bool is_series = known_mac && known_port && known_kind != std::end(KINDS);
        int64_t time = 0;
        while (is_series && words >> time) {
            read.note({*known_mac, *known_port, static_cast<pm_kind>(known_kind - KINDS)}, time);
        }
        if (!is_series || !words.eof() || text.eof()) {
            throw bad_history(fmt::format("line {} is damaged", number));
        }
    }
    return read;
}

history card_history(const network &net)
{
    history found;
    for (const auto &[mac, shown] : net.nodes) {
        add_records(shown, "", net.names, found);
    }
    return found;
}

history site_history(const site &all)
{
    history found;
    for (const site_network &shown : all.networks()) {
        const std::string label = network_label(all, shown);
        for (const mac_address &mac : shown.cards) {
            // What counts comes first: of records of one time the first one stays.
            std::vector<const site_account *> accounts = {&all.account(all.best(mac))};
            for (size_t broker = 0; broker < all.brokers(); broker++) {
                accounts.push_back(&all.account(broker));
            }
            for (const site_account *account : accounts) {
                if (const auto known = account->net.nodes.find(mac); known != account->net.nodes.end()) {
                    add_records(known->second, label, account->net.names, found);
                }
            }
        }
    }
    return found;
}

size_t record_count(const history &records)
{
    size_t count = 0;
    for (const auto &of_kind : records) {
        for (const auto &[labels, series] : of_kind) {
            count += series.records.size();
        }
    }
    return count;
}

void note_history(std::istream &text, written_records &noted)
{
    history_reader reader(text);
    for (const family &of : families()) {
        for (reader.take_head(of); reader.has_sample(); reader.take_sample()) {
            // Every family has every record.
            if (of.field == families()[0].field) {
                noted.note(reader.get().series, reader.get().time);
            }
        }
    }
    reader.take_end();
}

void write_history(const history &records, std::istream *before,
                   const std::function<void(std::string_view)> &write)
{
    std::optional<history_reader> old;
    if (before != nullptr) {
        old.emplace(*before);
    }
    const auto write_old = [&](const auto &is_due) {
        for (; old && old->has_sample() && is_due(old->get()); old->take_sample()) {
            write(old->get_line() + "\n");
        }
    };
    for (const family &of : families()) {
        write(of.head);
        if (old) {
            old->take_head(of);
        }
        for (const auto &[labels, series] : records[static_cast<size_t>(of.kind)]) {
            for (const auto &[time, record] : series.records) {
                const std::pair<std::string_view, int64_t> due(labels, time);
                write_old([&](const sample &given) { return std::pair(given.labels, given.time) < due; });
                write(sample_line(of, labels, time, record));
            }
        }
        write_old([](const sample &) { return true; });
    }
    write(std::string(END) + "\n");
}
