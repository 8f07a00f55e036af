#include "cli/output.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <ranges>

#include "client/text.h"

namespace ctl
{

using cpudefend::printable;

namespace
{

using Json = nlohmann::ordered_json;

template <class... Ts> struct Overload : Ts... {
    using Ts::operator()...;
};
template <class... Ts> Overload(Ts...) -> Overload<Ts...>;

std::string join(const std::vector<uint32_t> &numbers)
{
    std::string text;
    for (const uint32_t number : numbers)
        text += (text.empty() ? "" : ",") + std::to_string(number);
    return text;
}

bool isNothing(const Cell &cell)
{
    return std::holds_alternative<std::monostate>(cell);
}

std::string textOf(const Cell &cell)
{
    return std::visit(
        Overload{[](std::monostate) { return std::string("-"); },
                 [](const std::string &text) { return text.empty() ? "-" : printable(text); },
                 [](uint32_t number) { return std::to_string(number); },
                 [](bool on) { return std::string(on ? "on" : "off"); },
                 [](const Pool &pool) {
                     return std::to_string(pool.used) + " of " + std::to_string(pool.max);
                 },
                 [](const std::vector<uint32_t> &numbers) { return join(numbers); }},
        cell);
}

Json jsonOf(const Cell &cell)
{
    return std::visit(Overload{[](std::monostate) { return Json(nullptr); },
                               [](const Pool &pool) {
                                   return Json{{"used", pool.used}, {"max", pool.max}};
                               },
                               [](const auto &value) { return Json(value); }},
                      cell);
}

void writeJson(std::ostream &out, const std::vector<Record> &records)
{
    Json array = Json::array();
    for (const Record &record : records) {
        Json object = Json::object();
        for (const Field &field : record)
            object[std::string(field.name)] = jsonOf(field.cell);
        array.push_back(std::move(object));
    }
    // Bytes that are no UTF-8 become the replacement character: JSON cannot carry them.
    out << array.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

void writeSheet(std::ostream &out, const Record &record)
{
    std::size_t width = 0;
    for (const Field &field : record)
        width = std::max(width, field.name.size());
    for (const Field &field : record) {
        out << field.name << std::string(width - field.name.size() + 2, ' ') << textOf(field.cell);
        if (!field.unit.empty() && !isNothing(field.cell))
            out << ' ' << field.unit;
        out << '\n';
    }
}

/** Columns that a printable text takes: one for each character. */
std::size_t columnsOf(std::string_view text)
{
    return static_cast<std::size_t>(
        std::ranges::count_if(text, [](char c) { return (c & 0xC0) != 0x80; }));
}

struct Column {
    bool toTheRight;
    std::vector<std::string> lines; // the heading, then a line for each record
    std::size_t width = 0;          // of the longest line
};

std::vector<Column> layOut(const std::vector<Record> &records)
{
    std::vector<Column> columns;
    for (std::size_t i = 0; i < records[0].size(); ++i) {
        const Field &head = records[0][i];
        const bool hasNumbers = std::ranges::any_of(records, [i](const Record &record) {
            return std::holds_alternative<uint32_t>(record[i].cell);
        });
        Column column{hasNumbers, {std::string(head.name)}};
        if (!head.unit.empty())
            column.lines[0] += " (" + std::string(head.unit) + ")";
        for (const Record &record : records)
            column.lines.push_back(textOf(record[i].cell));
        column.width = std::ranges::max(column.lines | std::views::transform(columnsOf));
        columns.push_back(std::move(column));
    }
    return columns;
}

void writeTable(std::ostream &out, const std::vector<Record> &records)
{
    const std::vector<Column> columns = layOut(records);
    for (std::size_t row = 0; row <= records.size(); ++row) {
        std::string line;
        for (const Column &column : columns) {
            const std::string &text = column.lines[row];
            const std::string gap(column.width - columnsOf(text), ' ');
            line += (column.toTheRight ? gap + text : text + gap) + "  ";
        }
        line.erase(line.find_last_not_of(' ') + 1);
        out << line << '\n';
    }
}

} // namespace

void write(std::ostream &out, Format format, Layout layout, const std::vector<Record> &records)
{
    if (format == Format::Json)
        writeJson(out, records);
    else if (layout == Layout::Table && !records.empty())
        writeTable(out, records);
    else
        for (const Record &record : records)
            writeSheet(out, record);
}

} // namespace ctl
