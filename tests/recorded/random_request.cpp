#include "random_request.h"

#include <string>

#include "cpuDefend_nm.h"

using namespace channel;

namespace recorded
{

/* ---- What requests speak of: few enough to meet again ------------------------------------- */

static const char *const policies[] = {
    "a",  "b",   "a",    "b",        "default", "default",
    "cc", "ddd", "test", "\x80\xff", "nobody",  "a-name-as-long-as-a-name-may-be!",
    ""};
static const uint32_t values[] = {0,   1,   1,   2,    2,    3,    4,    10,    30,    60,
                                  90,  100, 128, 255,  256,  64,   16,   16,    64,    257,
                                  511, 512, 999, 1000, 2000, 2001, 3000, 65535, 65536, 0xFFFFFFFF};
static const uint32_t ruleNumbers[] = {1, 2, 1, 2, 1, 3, 0, 255, 256, 258, 0xFFFFFFFF};
static const uint32_t packetTypes[] = {1, 7, 1, 7, 1, 7, 0, 2, 9, 10, 11, 14, 21, 57, 58, 59, 257};
static const struct {
    uint32_t sysId, slotId;
} slots[] = {{1, 1}, {1, 2}, {2, 1}, {1, 1}, {1, 2}, {0, 0}, {3, 3}, {257, 1}, {1, 256}};

/** A table of the protocol: its function codes, how many attributes, which of them are bytes. */
static const struct Table {
    uint32_t firstCode, codes, attributes;
    std::vector<uint32_t> octets;
} tables[] = {
    {CPUDEFEND_GLOBAL_GETAPI,
     3,
     CPUDEFEND_GLOBAL_SYNCSTATE + 1,
     {CPUDEFEND_GLOBAL_POLICY, CPUDEFEND_GLOBAL_L1POLICYNAME, CPUDEFEND_GLOBAL_L2POLICYNAME,
      CPUDEFEND_GLOBAL_L3POLICYNAME, CPUDEFEND_GLOBAL_SYNCSTATE}},
    {CPUDEFEND_SLOT_GETFIRST,
     5,
     CPUDEFEND_SLOT_L3POLICYNAME + 1,
     {CPUDEFEND_SLOT_POLICY, CPUDEFEND_SLOT_L1POLICYNAME, CPUDEFEND_SLOT_L2POLICYNAME,
      CPUDEFEND_SLOT_L3POLICYNAME}},
    {CPUDEFEND_POLICY_GETFIRST, 5, CPUDEFEND_POLICY_REFCOUNT + 1, {CPUDEFEND_POLICY_DESCRIPTION}},
    {CPUDEFEND_USERDEFINED_GETFIRST, 5, CPUDEFEND_USERDEFINEDT_CBS + 1, {}},
    {CPUDEFEND_CARPKT_GETFIRST, 5, CPUDEFEND_CARPKT_TOTALPKTPPS + 1, {}},
    {CPUDEFEND_SRCTRACE_GETFIRST,
     3,
     CPUDEFEND_SRCTRACE_TOTALNUM + 1,
     {CPUDEFEND_SRCTRACE_DSTIP, CPUDEFEND_SRCTRACE_PTKDATA}},
};

/** Which table, so that policies, rules and bindings come about often. */
static const uint32_t tableOf[] = {0, 0, 0, 1, 1, 2, 2, 2, 2, 3, 3, 3, 4, 4, 5, 5, 5};

static bool isOctets(const Table &table, uint32_t attr)
{
    for (uint32_t octets : table.octets)
        if (attr == octets)
            return true;
    return false;
}

/* ---- Parts ---------------------------------------------------------------------------------- */

static Bytes some(Dice &dice, uint32_t length)
{
    Bytes bytes;
    while (bytes.size() < length)
        bytes.push_back(static_cast<uint8_t>(dice.number()));
    return bytes;
}

static Index randomIndex(Dice &dice, uint32_t table)
{
    switch (table) {
    case 0: return globalIndex(dice.below(3));
    case 1: {
        const auto &slot = dice.of(slots);
        return slotIndex(slot.sysId, slot.slotId);
    }
    case 2: return policyIndex(dice.of(policies));
    case 3: {
        const std::string policy = dice.of(policies);
        return childIndex(policy, dice.of(ruleNumbers));
    }
    case 4: {
        const std::string policy = dice.of(policies);
        return childIndex(policy, dice.of(packetTypes));
    }
    default: {
        const uint32_t unit = dice.once(12) ? 0x80000001 : dice.below(5);
        const auto type = static_cast<uint8_t>(dice.of(packetTypes));
        const auto host = static_cast<uint8_t>(dice.below(5));
        const auto filter = static_cast<uint8_t>(dice.once(2) ? dice.number() : 0);
        return srcTraceIndex(unit, {10, 0, 0, host}, type, {2, 0, 0, 0, 0, host}, filter);
    }
    }
}

/** Records of the standby's peer, the last one perhaps in part. */
static std::string peerRecords(Dice &dice)
{
    Bytes records;
    for (uint32_t n = dice.below(4); n > 0; n--) {
        const auto &slot = dice.of(slots);
        records = records + be32(slot.sysId) + be32(slot.slotId) +
                  be32(dice.once(9) ? 255 : dice.below(5));
    }
    records = records + some(dice, dice.once(4) ? dice.below(12) : 0);
    return std::string(records.begin(), records.end());
}

static Value randomOctets(Dice &dice, uint32_t table, uint32_t attr)
{
    if (table == 0 && attr == CPUDEFEND_GLOBAL_SYNCSTATE)
        return octets(peerRecords(dice));
    if (!dice.once(8))
        return octets(dice.of(policies));
    const Bytes bytes = some(dice, dice.below(100));
    return octets(std::string(bytes.begin(), bytes.end()));
}

static uint32_t randomNumber(Dice &dice)
{
    return dice.once(10) ? dice.number() : dice.of(values);
}

/** A value that fits the attribute mostly. */
static Value randomValue(Dice &dice, uint32_t table, uint32_t attr)
{
    if (dice.once(12))
        return unknown(static_cast<uint8_t>(dice.number()));
    const bool wantsOctets = isOctets(tables[table], attr);
    if (wantsOctets != dice.once(12))
        return randomOctets(dice, table, attr);
    const uint32_t number = randomNumber(dice);
    return dice.once(6) ? counter(number, dice.number()) : channel::number(number);
}

/* ---- Requests ------------------------------------------------------------------------------- */

static Bytes anyRequest(Dice &dice)
{
    static const uint32_t rooms[] = {0, 0, 3, 30, 100};
    const uint32_t table = dice.of(tableOf);
    const uint32_t code = tables[table].firstCode + dice.below(tables[table].codes);
    const uint32_t attr =
        dice.once(15) ? dice.of(values) : dice.below(tables[table].attributes + 1);
    const Index index = randomIndex(dice, table);
    const Value value = randomValue(dice, table, attr);
    return request(code, attr, index, value, dice.of(rooms));
}

/** The function code that sets an attribute of a table here, or its twin for the peer's. */
static uint32_t setCode(Dice &dice, uint32_t code)
{
    return dice.once(4) ? code + 1 : code;
}

/** A policy's or a rule's row status, so that there are some. */
static Bytes rowRequest(Dice &dice)
{
    static const uint32_t statuses[] = {CPUDEFEND_ROW_CREATE, CPUDEFEND_ROW_CREATE,
                                        CPUDEFEND_ROW_ACTIVATE, CPUDEFEND_ROW_DESTROY, 3};
    const bool rule = dice.once(2);
    const uint32_t codes[] = {CPUDEFEND_POLICY_SETAPI, CPUDEFEND_USERDEFINED_SETAPI};
    const uint32_t code = setCode(dice, codes[rule]);
    const Index index = randomIndex(dice, rule ? 3 : 2);
    return request(code, CPUDEFEND_POLICY_ENTRYSTATUS, index, number(dice.of(statuses)));
}

/** A policy's ACLs, or what it traces. */
static Bytes policyRequest(Dice &dice)
{
    static const struct {
        uint32_t attr, values[3];
    } settings[] = {
        {CPUDEFEND_POLICY_WHITELISTENABLE, {1, 1, 2}},
        {CPUDEFEND_POLICY_WHITELISTIP4ACL, {0, 2000, 2001}},
        {CPUDEFEND_POLICY_WHITELISTIP6ACL, {0, 3000, 3001}},
        {CPUDEFEND_POLICY_BLACKLISTENABLE, {1, 1, 2}},
        {CPUDEFEND_POLICY_BLACKLISTIP4ACL, {0, 2500, 2501}},
        {CPUDEFEND_POLICY_BLACKLISTIP6ACL, {0, 3500, 3501}},
        {CPUDEFEND_POLICY_SRCTRACEENABLE, {1, 1, 2}},
        {CPUDEFEND_POLICY_SRCTRACEPKTDATAENABLE, {1, 1, 2}},
        {CPUDEFEND_POLICY_SRCTRACETHRESHOLD, {0, 1, 3}},
        {CPUDEFEND_POLICY_SRCTRACEALARMTHRESHOLD, {0, 1, 3}},
    };
    const auto &setting = dice.of(settings);
    const uint32_t code = setCode(dice, CPUDEFEND_POLICY_SETAPI);
    const Index index = randomIndex(dice, 2);
    return request(code, setting.attr, index, number(dice.of(setting.values)));
}

/** A rule's ACLs and what it does. */
static Bytes ruleRequest(Dice &dice)
{
    static const uint32_t numbers[] = {0, 1, 2000, 4000, 65536};
    const uint32_t code = setCode(dice, CPUDEFEND_USERDEFINED_SETAPI);
    const Index index = randomIndex(dice, 3);
    const uint32_t attr = 1 + dice.below(CPUDEFEND_USERDEFINEDT_CBS);
    return request(code, attr, index, number(dice.of(numbers)));
}

/** A policy for the system or a slot, or for a level. */
static Bytes bindRequest(Dice &dice)
{
    static const uint32_t system[] = {CPUDEFEND_GLOBAL_POLICY, CPUDEFEND_GLOBAL_L1POLICYNAME,
                                      CPUDEFEND_GLOBAL_L2POLICYNAME, CPUDEFEND_GLOBAL_L3POLICYNAME};
    static const uint32_t slot[] = {CPUDEFEND_SLOT_POLICY, CPUDEFEND_SLOT_L1POLICYNAME,
                                    CPUDEFEND_SLOT_L2POLICYNAME, CPUDEFEND_SLOT_L3POLICYNAME};
    const bool ofSlot = dice.once(2);
    const uint32_t code = setCode(dice, ofSlot ? CPUDEFEND_SLOT_SETAPI : CPUDEFEND_GLOBAL_SETAPI);
    const uint32_t attr = ofSlot ? dice.of(slot) : dice.of(system);
    const Index index = randomIndex(dice, ofSlot ? 1 : 0);
    return request(code, attr, index, octets(dice.of(policies)));
}

/** The mode of the system or a slot, or a level's threshold. */
static Bytes modeRequest(Dice &dice)
{
    static const uint32_t thresholds[] = {0, 10, 30, 50, 60, 90, 100, 255};
    const bool ofSlot = dice.once(2);
    const uint32_t code = setCode(dice, ofSlot ? CPUDEFEND_SLOT_SETAPI : CPUDEFEND_GLOBAL_SETAPI);
    const uint32_t modes[] = {CPUDEFEND_GLOBAL_POLICYMODE, CPUDEFEND_SLOT_POLICYMODE};
    const uint32_t mode = modes[ofSlot];
    const Index index = randomIndex(dice, ofSlot ? 1 : 0);
    if (dice.once(2))
        return request(code, mode, index, number(dice.below(2)));
    const uint32_t level = mode + 1 + 2 * dice.below(3);
    return request(code, level, index, number(dice.of(thresholds)));
}

/** Some bytes changed, cut off or behind it. */
static Bytes damaged(Dice &dice, Bytes body)
{
    for (uint32_t n = 1 + dice.below(3); n > 0; n--) {
        const uint32_t at = dice.below(static_cast<uint32_t>(body.size()));
        body[at] = static_cast<uint8_t>(dice.once(2) ? dice.below(8) : dice.number());
    }
    if (dice.once(3))
        body.resize(dice.below(static_cast<uint32_t>(body.size()) + 1));
    return body;
}

Bytes randomRequest(Dice &dice)
{
    static Bytes (*const kinds[])(Dice &) = {
        anyRequest,    anyRequest,    anyRequest,  anyRequest,  anyRequest,  rowRequest, rowRequest,
        policyRequest, policyRequest, ruleRequest, bindRequest, bindRequest, modeRequest};
    const Bytes body = dice.of(kinds)(dice);
    return dice.once(10) ? damaged(dice, body) : body;
}

std::vector<Bytes> provisions()
{
    std::vector<Bytes> requests;
    for (const char *name : {"a", "b", "default"}) {
        const Index policy = policyIndex(name);
        const auto set = [&](uint32_t attr, uint32_t value) {
            requests.push_back(request(CPUDEFEND_POLICY_SETAPI, attr, policy, number(value)));
        };
        set(CPUDEFEND_POLICY_ENTRYSTATUS, CPUDEFEND_ROW_CREATE);
        set(CPUDEFEND_POLICY_SRCTRACEENABLE, 1);
        set(CPUDEFEND_POLICY_SRCTRACETHRESHOLD, 0);
        set(CPUDEFEND_POLICY_WHITELISTENABLE, 1);
        set(CPUDEFEND_POLICY_WHITELISTIP4ACL, 2000);
    }
    requests.push_back(request(CPUDEFEND_GLOBAL_SETAPI, CPUDEFEND_GLOBAL_POLICY, globalIndex(),
                               octets("default")));
    return requests;
}

Bytes setGlobal(uint32_t attr, uint32_t value)
{
    return request(CPUDEFEND_GLOBAL_SETAPI, attr, globalIndex(), number(value));
}

} // namespace recorded
