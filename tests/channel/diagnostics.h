/**
 * What the daemon prints, without what changes with every edit of its sources.
 */
#ifndef CHANNEL_DIAGNOSTICS_H
#define CHANNEL_DIAGNOSTICS_H

#include <string>

namespace channel
{

/** @a text with the number of each "in line <number>" as N. */
inline std::string withoutLines(std::string text)
{
    static const std::string mark = "in line ";
    for (size_t at = 0; (at = text.find(mark, at)) != std::string::npos;) {
        at += mark.size();
        const size_t end = text.find_first_not_of("0123456789", at);
        const size_t digits = (end == std::string::npos ? text.size() : end) - at;
        if (digits > 0)
            text.replace(at, digits, "N");
    }
    return text;
}

} // namespace channel

#endif
