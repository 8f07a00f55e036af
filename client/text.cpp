#include "client/text.h"

#include <algorithm>
#include <cstdio>

namespace cpudefend
{

namespace
{

/**
 * Bytes of the printable character that @a bytes begin with, 0 when they begin with none.
 * UTF-8 of two to four bytes passes, but for the control characters U+0080 to U+009F.
 */
std::size_t characterAt(std::string_view bytes)
{
    const auto lead = static_cast<unsigned char>(bytes[0]);
    if (lead < 0x80)
        return lead >= 0x20 && lead != 0x7F ? 1 : 0;
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || bytes.size() < length)
        return 0;
    const bool rest =
        std::ranges::all_of(bytes.substr(1, length - 1), [](char c) { return (c & 0xC0) == 0x80; });
    const bool control = lead == 0xC2 && static_cast<unsigned char>(bytes[1]) < 0xA0;
    return rest && !control ? length : 0;
}

} // namespace

std::string printable(std::string_view bytes)
{
    std::string text;
    while (!bytes.empty()) {
        const std::size_t length = characterAt(bytes);
        char escape[5];
        std::snprintf(escape, sizeof escape, "\\x%02X", static_cast<unsigned char>(bytes[0]));
        text += length > 0 ? bytes.substr(0, length) : std::string_view(escape);
        bytes.remove_prefix(length > 0 ? length : 1);
    }
    return text;
}

} // namespace cpudefend
