#include "host/looked_up.h"

#include <linux/fib_rules.h>

namespace zynlinux
{

namespace
{

struct Rule {
    fib_rule_hdr info;
    uint32_t table;
    uint32_t mark, mask;
    bool asksVrf; /**< for its table: each VRF has its own */
};

bool takeRule(NetlinkBytes body, Rule &rule)
{
    if (!takeFront(body, rule.info))
        return false;
    eachAttribute(body, [&](int type, NetlinkBytes value) {
        if (type == FRA_TABLE)
            rule.table = numberIn(value);
        else if (type == FRA_FWMARK)
            rule.mark = numberIn(value);
        else if (type == FRA_FWMASK)
            rule.mask = numberIn(value);
        else if (type == FRA_L3MDEV)
            rule.asksVrf = true;
    });
    return true;
}

/** Packets come in without a mark; what gives them one knows what it does. */
bool takesUnmarked(const Rule &rule)
{
    return (rule.mark & rule.mask) == 0 || (rule.info.flags & FIB_RULE_INVERT);
}

} // namespace

void LookedUp::add(NetlinkBytes body)
{
    Rule rule{};
    if (!takeRule(body, rule) || rule.info.action != FR_ACT_TO_TBL || !takesUnmarked(rule))
        return;
    tables_.insert(rule.table);
    all_ = all_ || rule.asksVrf;
}

} // namespace zynlinux
