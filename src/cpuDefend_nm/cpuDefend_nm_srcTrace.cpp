/**
 * Management of traced sources: read and walk only. They leave the table by the reset attributes
 * of the system and of a slot.
 */
#include <string.h>

#include "cpuDefend_nm_attr.h"

using namespace cpudefend;

namespace
{

#define NUMBER(id, field) NM_ATTR_NUMBER(id, tCpuDefendSrcTraceEntry, field, NM_READ_ONLY)

constexpr tNmAttr attrs[] = {
    NUMBER(CPUDEFEND_SRCTRACE_OUTERVLAN, outerVlan),
    NUMBER(CPUDEFEND_SRCTRACE_INNERVLAN, innerVlan),
    NM_ATTR_NO_FIELD(CPUDEFEND_SRCTRACE_DSTIP, NM_OCTETS, NM_READ_ONLY),
    NM_ATTR_NO_FIELD(CPUDEFEND_SRCTRACE_PTKDATA, NM_OCTETS, NM_READ_ONLY),
    NUMBER(CPUDEFEND_SRCTRACE_TOTALNUM, totalNum),
};
static_assert(nmAttrsInOrder(attrs));

#undef NUMBER

/** Always four bytes, whatever length was asked for. */
void getDstIp(const tCpuDefendSrcTraceEntry *entry, octetstring *value)
{
    value->len = sizeof entry->dstIp;
    memcpy(value->pBuf, entry->dstIp, sizeof entry->dstIp);
}

void get(const tCpuDefendSrcTraceEntry *entry, uint32_t cmd, void *var)
{
    switch (cmd) {
    case CPUDEFEND_SRCTRACE_DSTIP: return getDstIp(entry, nmOctets(var));
    case CPUDEFEND_SRCTRACE_PTKDATA:
        return nmAnswerOctets(var, entry->pktData, sizeof entry->pktData);
    default: break;
    }
    if (const tNmAttr *attr = nmAttrToGet(attrs, cmd))
        nmAttrGet(*attr, entry, var);
}

/** Whether a walk with the filter bits and fields of @a idx stops at @a entry. */
bool passes(const tCpuDefendSrcTraceEntry *entry, const tcpuDefendSrcTraceIdx &idx)
{
    const auto asked = [&idx](int field) { return (idx.searchBit & (0x80 >> field)) != 0; };
    return (!asked(CPUDEFEND_SRCTRACEIDX_SEARCHIFUNIT) || entry->ifUnit == idx.ifUnit) &&
           (!asked(CPUDEFEND_SRCTRACEIDX_SEARCHSRCIP) ||
            memcmp(entry->srcIp, idx.srcIp, sizeof idx.srcIp) == 0) &&
           (!asked(CPUDEFEND_SRCTRACEIDX_SEARCHPKTTYPE) || entry->pktType == idx.pktType) &&
           (!asked(CPUDEFEND_SRCTRACEIDX_SEARCHSRCMAC) ||
            memcmp(entry->srcMac, idx.srcMac, sizeof idx.srcMac) == 0);
}

/** From @a found on, the first entry that passes the filter goes into @a answer. */
int32_t answerWalk(void *found, const tcpuDefendSrcTraceIdx &idx, tcpuDefendSrcTraceIdx *answer)
{
    for (; found; found = avl_next(&gCpuDefend.srcTraceList, found)) {
        const auto *entry = static_cast<const tCpuDefendSrcTraceEntry *>(found);
        if (!passes(entry, idx))
            continue;
        answer->ifUnit = entry->ifUnit;
        memcpy(answer->srcIp, entry->srcIp, sizeof answer->srcIp);
        answer->pktType = entry->pktType;
        memcpy(answer->srcMac, entry->srcMac, sizeof answer->srcMac);
        answer->searchBit = idx.searchBit;
        return CPUDEFEND_OK;
    }
    return CPUDEFEND_ENOENTRY;
}

} // namespace

tNmKind cpuDefendSrcTraceAttrKind(uint32_t cmd)
{
    return nmAttrKind(attrs, cmd);
}

int32_t cpuDefendSrcTraceGetApi(tcpuDefendSrcTraceIdx *srcTraceIdx, uint32_t cmd, void *var)
{
    if (!srcTraceIdx || !var || srcTraceIdx->ifUnit == 0 || srcTraceIdx->pktType == 0)
        return CPUDEFEND_EBADINDEX;
    NmLock lock;
    const tCpuDefendSrcTraceEntry *entry = cpuDefendSrcTraceEntryGet(
        srcTraceIdx->ifUnit, srcTraceIdx->srcIp, srcTraceIdx->pktType, srcTraceIdx->srcMac);
    if (!entry)
        return CPUDEFEND_ENOENTRY;
    get(entry, cmd, var);
    return CPUDEFEND_OK;
}

int32_t cpuDefendSrcTraceGetFirst(tcpuDefendSrcTraceIdx *srcTraceIdx)
{
    if (!srcTraceIdx)
        return CPUDEFEND_EBADINDEX;
    const tcpuDefendSrcTraceIdx filter = *srcTraceIdx;
    NmLock lock;
    return answerWalk(avl_first(&gCpuDefend.srcTraceList), filter, srcTraceIdx);
}

int32_t cpuDefendSrcTraceGetNext(tcpuDefendSrcTraceIdx *srcTraceIdx,
                                 tcpuDefendSrcTraceIdx *nextSrcTraceIdx)
{
    if (!srcTraceIdx || !nextSrcTraceIdx)
        return CPUDEFEND_EBADINDEX;
    const tcpuDefendSrcTraceIdx filter = *srcTraceIdx;
    const tCpuDefendSrcTraceEntry key =
        cpuDefendSrcTraceKey(filter.ifUnit, filter.srcIp, filter.pktType, filter.srcMac);
    NmLock lock;
    return answerWalk(nmAvlAfter(&gCpuDefend.srcTraceList, &key), filter, nextSrcTraceIdx);
}
