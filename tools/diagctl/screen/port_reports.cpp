#include "network/json.h"
#include "screen/reports.h"
#include "topics.h"

#include <fmt/core.h>

#include <algorithm>
#include <cctype>

namespace
{

struct field_unit {
    size_t offset;
    const char *unit;
};

// Of the fields whose meaning is known; the others count what the card's port handling makes of them.
constexpr field_unit STATS_UNITS[] = {
    {STATS_GOOD_FRAMES, "frames"},    {STATS_LINK_DOWN_SECONDS, "s"}, {STATS_LINK_DOWN_COUNT, "times"},
    {STATS_ERPS_DOWN_COUNT, "times"}, {STATS_ERPS_DOWN_SECONDS, "s"}, {STATS_ERRORED_FRAMES, "frames"},
    {STATS_ERROR_RATIO_PPM, "ppm"},
};

const char *unit_of(const stats_field &field)
{
    const auto found = std::find_if(std::begin(STATS_UNITS), std::end(STATS_UNITS),
                                    [&](const field_unit &unit) { return unit.offset == field.offset; });
    return found == std::end(STATS_UNITS) ? "" : found->unit;
}

// Right-aligned, as numbers are read.
screen_lines align_right(std::vector<std::string> texts, const std::vector<text_style> &styles = {})
{
    size_t width = 0;
    for (const std::string &text : texts) {
        width = std::max(width, text.size());
    }
    screen_lines cells;
    for (size_t i = 0; i < texts.size(); i++) {
        const text_style style = i < styles.size() ? styles[i] : text_style::PLAIN;
        cells.push_back({{style, std::string(width - texts[i].size(), ' ') + texts[i]}});
    }
    return cells;
}

// "Port A  red  smf".
screen_line port_title(const node &shown, int port)
{
    std::string text = "Port " + port_text(port);
    const auto index = static_cast<size_t>(port);
    if (index < LUM_FRONT_PORTS && shown.colours && (*shown.colours)[index] != PORT_STATUS_NONE) {
        text += std::string("  ") + colour_name((*shown.colours)[index]);
    }
    if (index < LUM_FRONT_PORTS && shown.media && (*shown.media)[index] != LUM_TYPE_NONE) {
        text += std::string("  ") + hwinfo_lumtype_enum_to_str((*shown.media)[index]);
    }
    return {{text_style::BOLD, text}};
}

void add_port_lines(screen_lines &lines, const node &shown, int port, const port_records &records)
{
    lines.push_back(port_title(shown, port));
    if (!records.stats.value) {
        lines.push_back(plain("  statistics " + fact_text(records.stats, "not published", "")));
        return;
    }
    std::vector<std::string> totals;
    std::vector<std::string> rates;
    for (const stats_field &field : STATS_FIELDS) {
        const std::optional<double> rate = field_rate(records, field);
        totals.push_back(std::to_string(field_value(*records.stats.value, field)));
        rates.push_back(rate ? rate_text(*rate) : "");
    }
    const screen_lines total_cells = align_right(totals);
    const screen_lines rate_cells = align_right(rates);
    std::vector<screen_lines> rows;
    for (size_t i = 0; i < STATS_FIELDS.size(); i++) {
        rows.push_back({plain(std::string("  ") + STATS_FIELDS[i].name), total_cells[i],
                        plain(unit_of(STATS_FIELDS[i])), rate_cells[i]});
    }
    append_lines(lines, columns(rows));
}

// The values of a field in the periods that can be decoded.
std::vector<uint64_t> values_of(const std::vector<closed_record> &periods, const pm_field &field)
{
    std::vector<uint64_t> values;
    for (const closed_record &item : periods) {
        if (item.record.value) {
            values.push_back(field_value(*item.record.value, field));
        }
    }
    return values;
}

// Neighbours share a bar, the highest of them, where there is no room for each.
screen_lines sparklines(const std::vector<closed_record> &periods,
                        const std::vector<const pm_field *> &fields, const pm_style &style)
{
    constexpr size_t LABELS = 40; // of name and maximum
    const size_t room = style.width > 2 * LABELS ? style.width - LABELS : LABELS;
    const size_t share = (periods.size() - 1) / room + 1;
    std::vector<screen_lines> rows;
    for (const pm_field *const field : fields) {
        std::vector<double> bars;
        const std::vector<uint64_t> values = values_of(periods, *field);
        for (size_t i = 0; i < values.size(); i++) {
            if (i % share == 0) {
                bars.push_back(0);
            }
            bars.back() = std::max(bars.back(), static_cast<double>(values[i]));
        }
        const uint64_t max = *std::max_element(values.begin(), values.end());
        rows.push_back({plain(field->name), plain(sparkline(bars, static_cast<double>(max), style.is_utf8)),
                        plain("max " + std::to_string(max))});
    }
    screen_lines lines = columns(rows);
    if (share > 1) {
        lines.push_back(plain("(each bar the highest of " + std::to_string(share) + ")"));
    }
    return lines;
}

// Titles of two lines, for the names are longer than the values: "errored" above "frames".
void add_title(std::vector<screen_lines> &rows, const std::string &title)
{
    const size_t cut = title.rfind('_');
    const bool is_words = cut != std::string::npos && !std::isdigit(static_cast<unsigned char>(title.back()));
    rows[0].push_back({{text_style::BOLD, is_words ? title.substr(0, cut) : ""}});
    rows[1].push_back({{text_style::BOLD, is_words ? title.substr(cut + 1) : title}});
}

screen_lines pm_table(const std::vector<closed_record> &periods, const std::vector<const pm_field *> &fields)
{
    std::vector<screen_lines> rows(2);
    add_title(rows, "CLOSED");
    add_title(rows, "SLOT");
    for (const closed_record &item : periods) {
        const std::string closed =
            item.record.value ? date_text({{}, item.time()}) : fact_text(item.record, "", "");
        rows.push_back({plain(closed), plain(item.slot + (item.is_last ? " (last)" : ""))});
    }
    for (const pm_field *const field : fields) {
        add_title(rows, field->name);
        std::vector<std::string> texts;
        std::vector<text_style> styles;
        for (const closed_record &item : periods) {
            const uint64_t value = item.record.value ? field_value(*item.record.value, *field) : 0;
            // What makes a port red is also marked, as in the table of nodes.
            const bool is_problem = value > field->limit;
            texts.push_back((item.record.value ? std::to_string(value) : "") + (is_problem ? "!" : " "));
            styles.push_back(is_problem ? text_style::RED : text_style::PLAIN);
        }
        const screen_lines cells = align_right(texts, styles);
        for (size_t i = 0; i < cells.size(); i++) {
            rows[i + 2].push_back(cells[i]);
        }
    }
    return columns(rows);
}

} // namespace

std::string rate_text(double rate)
{
    return rate > 0 && rate < 100 ? fmt::format("{:.1f}/s", rate) : fmt::format("{:.0f}/s", rate);
}

screen_lines ports_lines(const node &shown)
{
    screen_lines lines;
    for (const auto &[number, records] : shown.ports) {
        if (records.stats.is_published) {
            if (!lines.empty()) {
                lines.emplace_back();
            }
            add_port_lines(lines, shown, number, records);
        }
    }
    return lines;
}

screen_lines pm_lines(const node &shown, int port, pm_kind kind, const pm_style &style)
{
    const std::vector<closed_record> periods = closed_records(shown, port, kind);
    if (periods.empty()) {
        return {plain(kind == pm_kind::DAYS ? "no day has closed yet" : "no quarter hour has closed yet")};
    }
    // Only what has something to tell has a column and a sparkline.
    std::vector<const pm_field *> fields;
    std::string zeros;
    for (const pm_field &field : PM_FIELDS) {
        const std::vector<uint64_t> values = values_of(periods, field);
        if (field.treatment == pm_treatment::CLOSING_TIME) {
            continue;
        }
        if (std::any_of(values.begin(), values.end(), [](uint64_t value) { return value != 0; })) {
            fields.push_back(&field);
        } else {
            zeros += (zeros.empty() ? "" : ", ") + std::string(field.name);
        }
    }
    screen_lines lines = pm_table(periods, fields);
    lines.emplace_back();
    append_lines(lines, sparklines(periods, fields, style));
    if (!zeros.empty()) {
        lines.push_back(plain("always 0: " + zeros));
    }
    return lines;
}

screen_lines pm_csv(const node &shown, int port, pm_kind kind)
{
    std::string head = "slot";
    for (const pm_field &field : PM_FIELDS) {
        head += std::string(",") + field.name;
    }
    screen_lines lines = {plain(head)};
    for (const closed_record &item : closed_records(shown, port, kind)) {
        std::string row = item.slot;
        for (const pm_field &field : PM_FIELDS) {
            row += ",";
            if (item.record.value) {
                row += field.treatment == pm_treatment::CLOSING_TIME
                           ? utc_text(item.time())
                           : std::to_string(field_value(*item.record.value, field));
            }
        }
        // Without numbers, so that nobody calculates with a record that couldn't be read.
        lines.push_back(plain(item.record.value ? row : item.slot + "," + fact_text(item.record, "", "")));
    }
    return lines;
}
