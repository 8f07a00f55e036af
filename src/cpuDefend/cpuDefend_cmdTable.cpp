/**
 * What each function code works on.
 */
#include "cpuDefend_cmd.h"

using namespace cpudefend;

namespace
{

/* ---- Index fields: each an item, whose head is not looked at ----------------------------- */

bool readInt(adr_t *adr, uint32_t *value)
{
    int32_t number;
    if (adr_offset(adr, ZYN_ITEM_HEAD) != 0 || adr_getint32(adr, &number) != 0)
        return false;
    *value = static_cast<uint32_t>(number);
    return true;
}

bool readBytes(adr_t *adr, uint8_t *bytes, uint32_t len)
{
    return adr_offset(adr, ZYN_ITEM_HEAD) == 0 && adr_getchar(adr, bytes, len) == 0;
}

bool readName(adr_t *adr, uint8_t *name, uint32_t *len)
{
    return readInt(adr, len) && *len <= CPUDEFEND_NAME_MAXLEN && readBytes(adr, name, *len);
}

void writeInt(adr_t *adr, uint32_t value)
{
    adr_encodedata(adr, ZYN_ITEM_UINT32, sizeof value, &value);
}

void writeBytes(adr_t *adr, const uint8_t *bytes, uint32_t len)
{
    adr_encodedata(adr, ZYN_ITEM_OCTETS, static_cast<uint16_t>(len), bytes);
}

void writeName(adr_t *adr, const uint8_t *name, uint32_t len)
{
    writeInt(adr, len);
    writeBytes(adr, name, len);
}

bool readUnit(adr_t *adr, tCmdIndex *)
{
    uint32_t ignored; // there although the index count is 0, and not used
    return readInt(adr, &ignored);
}

bool readSlot(adr_t *adr, tCmdIndex *idx)
{
    return readInt(adr, &idx->slot.sysId) && readInt(adr, &idx->slot.slotId);
}

void writeSlot(adr_t *adr, const tCmdIndex *idx)
{
    writeInt(adr, idx->slot.sysId);
    writeInt(adr, idx->slot.slotId);
}

bool readPolicy(adr_t *adr, tCmdIndex *idx)
{
    return readName(adr, idx->policy.name, &idx->policy.len);
}

void writePolicy(adr_t *adr, const tCmdIndex *idx)
{
    writeName(adr, idx->policy.name, idx->policy.len);
}

bool readUserDefined(adr_t *adr, tCmdIndex *idx)
{
    return readName(adr, idx->userDefined.policyName, &idx->userDefined.policyNameLen) &&
           readInt(adr, &idx->userDefined.index);
}

void writeUserDefined(adr_t *adr, const tCmdIndex *idx)
{
    writeName(adr, idx->userDefined.policyName, idx->userDefined.policyNameLen);
    writeInt(adr, idx->userDefined.index);
}

bool readCarPkt(adr_t *adr, tCmdIndex *idx)
{
    return readName(adr, idx->carPkt.policyName, &idx->carPkt.policyNameLen) &&
           readInt(adr, &idx->carPkt.pktType);
}

void writeCarPkt(adr_t *adr, const tCmdIndex *idx)
{
    writeName(adr, idx->carPkt.policyName, idx->carPkt.policyNameLen);
    writeInt(adr, idx->carPkt.pktType);
}

bool readSrcTrace(adr_t *adr, tCmdIndex *idx)
{
    tcpuDefendSrcTraceIdx &key = idx->srcTrace;
    return readInt(adr, &key.ifUnit) && readBytes(adr, key.srcIp, sizeof key.srcIp) &&
           readBytes(adr, &key.pktType, sizeof key.pktType) &&
           readBytes(adr, key.srcMac, sizeof key.srcMac) &&
           readBytes(adr, &key.searchBit, sizeof key.searchBit);
}

void writeSrcTrace(adr_t *adr, const tCmdIndex *idx)
{
    const tcpuDefendSrcTraceIdx &key = idx->srcTrace;
    writeInt(adr, key.ifUnit);
    writeBytes(adr, key.srcIp, sizeof key.srcIp);
    writeBytes(adr, &key.pktType, sizeof key.pktType);
    writeBytes(adr, key.srcMac, sizeof key.srcMac);
    writeBytes(adr, &key.searchBit, sizeof key.searchBit);
}

/* ---- Handlers, each called with its table's member of the index -------------------------- */

template <auto Handler, auto Member> int32_t first(tCmdIndex *idx)
{
    return Handler(&(idx->*Member));
}

template <auto Handler, auto Member> int32_t next(tCmdIndex *idx, tCmdIndex *nextIdx)
{
    return Handler(&(idx->*Member), &(nextIdx->*Member));
}

template <auto Handler, auto Member> int32_t access(tCmdIndex *idx, uint32_t cmd, tCmdValue *value)
{
    return Handler(&(idx->*Member), cmd, value);
}

template <int32_t (*Handler)(tcpuDefendSlotIdx *, uint32_t, octetstring *)>
int32_t accessSlot(tCmdIndex *idx, uint32_t cmd, tCmdValue *value)
{
    return Handler(&idx->slot, cmd, &value->octets);
}

/** The global table has one row, unit 0. */
template <int32_t (*Handler)(uint32_t, uint32_t, octetstring *)>
int32_t accessGlobal(tCmdIndex *, uint32_t cmd, tCmdValue *value)
{
    return Handler(0, cmd, &value->octets);
}

/* ---- Tables ----------------------------------------------------------------------------- */

constexpr tCmdTable global = {
    .indexNum = 0,
    .indexNumError = "\r\n  indexNum %d err in func %s in line %d!",
    .readIndex = readUnit,
    .kind = cpuDefendGlobalAttrKind,
    .get = accessGlobal<cpuDefendGlobalGetApi>,
    .set = accessGlobal<cpuDefendGlobalSetApi>,
    .sync = accessGlobal<cpuDefendGlobalSyncApi>,
};

constexpr tCmdTable slot = {
    .indexNum = 2,
    .readIndex = readSlot,
    .writeIndex = writeSlot,
    .walkNeedsInteger = true,
    .kind = cpuDefendSlotAttrKind,
    .getFirst = first<cpuDefendSlotGetFirst, &tCmdIndex::slot>,
    .getNext = next<cpuDefendSlotGetNext, &tCmdIndex::slot>,
    .get = accessSlot<cpuDefendSlotGetApi>,
    .set = accessSlot<cpuDefendSlotSetApi>,
    .sync = accessSlot<cpuDefendSlotSyncApi>,
};

constexpr tCmdTable policy = {
    .indexNum = 2,
    .readIndex = readPolicy,
    .writeIndex = writePolicy,
    .kind = cpuDefendPolicyAttrKind,
    .getFirst = first<cpuDefendPolicyGetFirst, &tCmdIndex::policy>,
    .getNext = next<cpuDefendPolicyGetNext, &tCmdIndex::policy>,
    .get = access<cpuDefendPolicyGetApi, &tCmdIndex::policy>,
    .set = access<cpuDefendPolicySetApi, &tCmdIndex::policy>,
    .sync = access<cpuDefendPolicySyncApi, &tCmdIndex::policy>,
};

constexpr tCmdTable userDefined = {
    .indexNum = 3,
    .readIndex = readUserDefined,
    .writeIndex = writeUserDefined,
    .kind = cpuDefendUserDefinedAttrKind,
    .getFirst = first<cpuDefendUserDefinedGetFirst, &tCmdIndex::userDefined>,
    .getNext = next<cpuDefendUserDefinedGetNext, &tCmdIndex::userDefined>,
    .get = access<cpuDefendUserDefinedGetApi, &tCmdIndex::userDefined>,
    .set = access<cpuDefendUserDefinedSetApi, &tCmdIndex::userDefined>,
    .sync = access<cpuDefendUserDefinedSyncApi, &tCmdIndex::userDefined>,
};

constexpr tCmdTable carPkt = {
    .indexNum = 3,
    .readIndex = readCarPkt,
    .writeIndex = writeCarPkt,
    .kind = cpuDefendCarPktAttrKind,
    .getFirst = first<cpuDefendCarPktGetFirst, &tCmdIndex::carPkt>,
    .getNext = next<cpuDefendCarPktGetNext, &tCmdIndex::carPkt>,
    .get = access<cpuDefendCarPktGetApi, &tCmdIndex::carPkt>,
    .set = access<cpuDefendCarPktSetApi, &tCmdIndex::carPkt>,
    .sync = access<cpuDefendCarPktSyncApi, &tCmdIndex::carPkt>,
};

constexpr tCmdTable srcTrace = {
    .indexNum = 5,
    .readIndex = readSrcTrace,
    .writeIndex = writeSrcTrace,
    .kind = cpuDefendSrcTraceAttrKind,
    .getFirst = first<cpuDefendSrcTraceGetFirst, &tCmdIndex::srcTrace>,
    .getNext = next<cpuDefendSrcTraceGetNext, &tCmdIndex::srcTrace>,
    .get = access<cpuDefendSrcTraceGetApi, &tCmdIndex::srcTrace>,
};

/** By function code, from 1 on. */
constexpr tCmdFunc funcs[] = {
    {&global, CMD_GET},
    {&global, CMD_SET},
    {&global, CMD_SYNC},
    {&slot, CMD_GETFIRST},
    {&slot, CMD_GETNEXT},
    {&slot, CMD_GET},
    {&slot, CMD_SET},
    {&slot, CMD_SYNC},
    {&policy, CMD_GETFIRST},
    {&policy, CMD_GETNEXT},
    {&policy, CMD_GET},
    {&policy, CMD_SET},
    {&policy, CMD_SYNC},
    {&userDefined, CMD_GETFIRST},
    {&userDefined, CMD_GETNEXT},
    {&userDefined, CMD_GET},
    {&userDefined, CMD_SET},
    {&userDefined, CMD_SYNC},
    {&carPkt, CMD_GETFIRST},
    {&carPkt, CMD_GETNEXT},
    {&carPkt, CMD_GET},
    {&carPkt, CMD_SET},
    {&carPkt, CMD_SYNC},
    {&srcTrace, CMD_GETFIRST},
    {&srcTrace, CMD_GETNEXT},
    {&srcTrace, CMD_GET},
};
static_assert(sizeof funcs / sizeof funcs[0] == CPUDEFEND_FUNC_MAX);

} // namespace

const tCmdFunc &cpudefend::cmdFunc(uint32_t func)
{
    return funcs[func - 1];
}
