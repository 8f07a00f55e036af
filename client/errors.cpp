#include "client/errors.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "cpuDefend_nm.h"

namespace cpudefend
{

namespace
{

constexpr std::array kCodeTexts{
    CodeText{CPUDEFEND_OK, "done"},
    CodeText{CPUDEFEND_FAIL, "the daemon does not have this setting, does not let it be changed, "
                             "or cannot take this value"},
    CodeText{CPUDEFEND_ENOSLOT, "there is no such slot"},
    CodeText{CPUDEFEND_EBADINDEX, "this does not name a traced source"},
    CodeText{CPUDEFEND_ENOMEM, "the daemon has no free record left for it"},
    CodeText{CPUDEFEND_ENOENTRY, "there is no such entry"},
    CodeText{CPUDEFEND_ENOPOLICY, "the policy that it belongs to does not exist"},
    CodeText{CPUDEFEND_EINUSE, "the policy is bound: the value is stored, and takes effect when "
                               "the policy is bound the next time"},
    CodeText{CPUDEFEND_EWHITELISTOFF, "the policy's white list is off"},
    CodeText{CPUDEFEND_EBLACKLISTOFF, "the policy's black list is off"},
    CodeText{CPUDEFEND_ENONAME, "there is no policy of this name"},
    CodeText{CPUDEFEND_EBOUND, "the policy is bound, unbind it first"},
};

} // namespace

Error::Error(int32_t code)
    : std::runtime_error(codeText(code)), failure_(Failure::Refused), code_(code)
{
}

std::span<const CodeText> codeTexts()
{
    return kCodeTexts;
}

std::string codeText(int32_t code)
{
    const auto known = std::ranges::find(kCodeTexts, code, &CodeText::code);
    if (known != kCodeTexts.end())
        return std::string(known->text);
    return platformCodeText(code);
}

std::string platformCodeText(int32_t code)
{
    char text[64];
    std::snprintf(text, sizeof text, "the platform answered with code %d (0x%08X)", code,
                  static_cast<unsigned>(code));
    return text;
}

} // namespace cpudefend
