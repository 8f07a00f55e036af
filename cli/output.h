/**
 * What a command prints. Commands fill records; how these look as text and as JSON is decided
 * here alone, so that both always say the same.
 */
#ifndef CPUDEFENDCTL_OUTPUT_H
#define CPUDEFENDCTL_OUTPUT_H

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace ctl
{

/** How much of a pool is in use. */
struct Pool {
    uint32_t used;
    uint32_t max;
};

/** What stands in a cell; nothing where the daemon does not tell. */
using Cell = std::variant<std::monostate, std::string, uint32_t, bool, Pool, std::vector<uint32_t>>;

struct Field {
    std::string_view name;
    Cell cell;
    std::string_view unit = "";
};

using Record = std::vector<Field>;

enum class Format { Text, Json };

/** Layout of text; JSON is an array of objects in both. */
enum class Layout {
    Sheet, /**< a line for each field */
    Table  /**< a line for each record; all records have the same fields */
};

void write(std::ostream &out, Format format, Layout layout, const std::vector<Record> &records);

} // namespace ctl

#endif
