// Access lists and packets: the input is rules, a line each, '+' before those of IPv6 and '/' where
// the next list begins. What is parsed is compiled and must say what the lists say.

#include <stdlib.h>

#include <string_view>

#include "acl_fixture.h"

using namespace zynlinux;

static void addRule(BoundAcls &lists, std::string_view line)
{
    AclFamily family = line.starts_with('+') ? AclFamily::Ipv6 : AclFamily::Ipv4;
    if (line == "/" || lists.empty() || lists.back().family != family)
        lists.push_back({1, family, {}});
    if (line == "/")
        return;
    line.remove_prefix(family == AclFamily::Ipv6 ? 1 : 0);
    try {
        lists.back().rules.push_back(parseAclRule(line, family));
    } catch (const AclError &) {
        // Said what is wrong, as it should.
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    BoundAcls lists;
    std::string_view text(reinterpret_cast<const char *>(data), size);
    while (!text.empty()) {
        size_t end = std::min(text.find('\n'), text.size());
        addRule(lists, text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    std::erase_if(lists, [](const AclList &list) { return list.rules.empty(); });
    CompiledAcls compiled(lists);
    AclDice dice(static_cast<uint32_t>(size));
    for (int i = 0; compiled.fits() && !lists.empty() && i < 200; i++) {
        cpd_acl_key key = dice.packetNear(lists[dice.below(static_cast<uint32_t>(lists.size()))]);
        if (compiled.decide(key) != walkAcls(lists, key))
            abort();
    }
    return 0;
}
