/**
 * Text for people.
 */
#ifndef CPUDEFEND_CLIENT_TEXT_H
#define CPUDEFEND_CLIENT_TEXT_H

#include <string>
#include <string_view>

namespace cpudefend
{

/** Bytes from elsewhere made fit for a terminal: what is not text stands as \xNN. */
std::string printable(std::string_view bytes);

} // namespace cpudefend

#endif
