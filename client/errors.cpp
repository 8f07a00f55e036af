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
    CodeText{CPUDEFEND_OK, "done", ""},
    CodeText{CPUDEFEND_FAIL,
             "the daemon does not have this setting, does not let it be changed, or cannot take "
             "this value",
             "look the setting and its range up in the table of attributes"},
    CodeText{CPUDEFEND_ENOSLOT, "there is no such slot",
             "list the slots: they come and go with the line cards"},
    CodeText{CPUDEFEND_EBADINDEX, "this does not name a traced source",
             "ask for a source as the walk of them gives it"},
    CodeText{CPUDEFEND_ENOMEM, "the daemon has no free record left for it",
             "delete what is needed no more, or start the daemon with room for more policies"},
    CodeText{CPUDEFEND_ENOENTRY, "there is no such entry", "list what there is"},
    CodeText{CPUDEFEND_ENOPOLICY, "the policy that it belongs to does not exist",
             "create the policy first"},
    CodeText{CPUDEFEND_EINUSE,
             "the policy is bound: the value is stored, and takes effect when the policy is bound "
             "the next time",
             "unbind the policy, and bind it again"},
    CodeText{CPUDEFEND_EWHITELISTOFF, "the policy's white list is off",
             "switch the white list on first"},
    CodeText{CPUDEFEND_EBLACKLISTOFF, "the policy's black list is off",
             "switch the black list on first"},
    CodeText{CPUDEFEND_ENONAME, "there is no policy of this name",
             "list the policies, or create it first"},
    CodeText{CPUDEFEND_EBOUND, "the policy is bound, unbind it first",
             "unbind it, change it, and bind it again"},
};

struct Advice {
    Failure failure;
    std::string_view text;
};

constexpr std::array kAdvice{
    Advice{Failure::NotRunning, "start the daemon"},
    Advice{Failure::NotPermitted, "ask as root, or as the user who runs the daemon"},
    Advice{Failure::NotTrusted, "remove what has taken the socket's place, and start the daemon"},
    Advice{Failure::TimedOut, "ask again; when that fails, too, look into the daemon's log"},
    Advice{Failure::Closed, "ask again; when that fails, too, look into the daemon's log"},
    Advice{Failure::RequestMalformed, "bring the front end and the daemon to one version"},
    Advice{Failure::ReplyMalformed, "bring the front end and the daemon to one version"},
    Advice{Failure::System, "see to what the system lacks, and ask again"},
    Advice{Failure::Platform, "look for the platform's reason in the daemon's log"},
    Advice{Failure::InPart, "look for the platform's reason in the daemon's log"},
    Advice{Failure::Exists, "change it, or delete it first"},
    Advice{Failure::NotTracing, "switch source-trace on in a policy, and bind it to the slot"},
    Advice{Failure::BadArgument, "give a value that the reason allows"},
};

const CodeText *find(int32_t code)
{
    const auto known = std::ranges::find(kCodeTexts, code, &CodeText::code);
    return known == kCodeTexts.end() ? nullptr : &*known;
}

} // namespace

Error::Error(int32_t code)
    : Error(find(code) ? Failure::Refused : Failure::Platform, codeText(code), code)
{
}

std::string Error::sentence(const std::string &asked, const std::string &subject) const
{
    const std::string step = step_.what + " " + (subject.empty() ? step_.subject : subject);
    const std::string how = failure_ == Failure::InPart ? " in full" : "";
    return "couldn't " + (step_.what.empty() ? asked : step) + how + ": " + what();
}

std::string_view Error::advice() const
{
    return failure_ == Failure::Refused
               ? find(code_)->advice
               : std::ranges::find(kAdvice, failure_, &Advice::failure)->text;
}

std::span<const CodeText> codeTexts()
{
    return kCodeTexts;
}

std::string codeText(int32_t code)
{
    const CodeText *known = find(code);
    return known ? std::string(known->text) : platformCodeText(code);
}

std::string platformCodeText(int32_t code)
{
    char text[64];
    std::snprintf(text, sizeof text, "the platform answered with code %d (0x%08X)", code,
                  static_cast<unsigned>(code));
    return text;
}

} // namespace cpudefend
