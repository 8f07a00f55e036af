/**
 * What a debugger, or the platform's console, calls by its name.
 */
#include <stdio.h>

#include "cpuDefend_nm_attr.h"

using namespace cpudefend;

/* ---- What the tables hold ------------------------------------------------------------------- */

int32_t cpuDefendSlotShow()
{
    tcpuDefendSlotIdx idx{};
    int32_t result = cpuDefendSlotGetFirst(&idx);
    printf("sysId=%d,slotId=%d,\r\n", static_cast<int>(idx.sysId), static_cast<int>(idx.slotId));
    while (result == CPUDEFEND_OK) {
        result = cpuDefendSlotGetNext(&idx, &idx);
        printf("sysId=%d,slotId=%d,ret=%d,\r\n", static_cast<int>(idx.sysId),
               static_cast<int>(idx.slotId), result);
    }
    return CPUDEFEND_OK;
}

static void show(const tCpuDefendPolicyIdx *nameIdx)
{
    const NmText name(nameIdx->name, nameIdx->len);
    printf("cpuDefendNameIdx->name=%s,len=%d,\r\n", name.text, static_cast<int>(nameIdx->len));
}

int32_t cpuDefendPolicyShow()
{
    tCpuDefendPolicyIdx nameIdx{};
    int32_t result = cpuDefendPolicyGetFirst(&nameIdx);
    show(&nameIdx);
    while (result == CPUDEFEND_OK) {
        result = cpuDefendPolicyGetNext(&nameIdx, &nameIdx);
        show(&nameIdx); // also after the last one: it is printed twice
    }
    return CPUDEFEND_OK;
}

static int show(const tcpuDefendUserDefinedIdx &idx)
{
    const NmText name(idx.policyName, idx.policyNameLen);
    return printf("policyName=%s,len=%d,index=%d\r\n", name.text,
                  static_cast<int>(idx.policyNameLen), static_cast<int>(idx.index));
}

int32_t cpuDefendUserDefinedShow()
{
    tcpuDefendUserDefinedIdx idx{};
    int32_t result = cpuDefendUserDefinedGetFirst(&idx);
    int printed = show(idx);
    while (result == CPUDEFEND_OK) {
        result = cpuDefendUserDefinedGetNext(&idx, &idx);
        printed = show(idx); // also after the last one: it is printed twice
    }
    return printed;
}

int32_t cpuDefendCarPktShow()
{
    list_for_each_entry(tCpuDefendCarPktEntry, entry, &gCpuDefend.carPktList, node)
    {
        const tCpuDefendPolicyEntry *pPolicy = entry->policyEntry;
        const NmText name(pPolicy->policyName, pPolicy->policyNameLen);
        puts("**************************************\r");
        // Wanted: "pri" is the queue.
        printf("policyName=%s,pktType=%d,cbs=%d,cir=%d,deny=%d,pri=%d", name.text, entry->pktType,
               static_cast<int>(entry->cbs), static_cast<int>(entry->cir), entry->deny,
               entry->queue);
    }
    return CPUDEFEND_OK;
}

int32_t cpuDefendSrcTraceShow()
{
    for (void *found = avl_first(&gCpuDefend.srcTraceList); found;
         found = avl_next(&gCpuDefend.srcTraceList, found)) {
        const auto *e = static_cast<const tCpuDefendSrcTraceEntry *>(found);
        puts("**************************************\r");
        // Wanted: the third byte of the source address stands in the second place, too.
        printf("ifUnit=%d,srcIp=%02x.%02x.%02x.%02x,dstIp=%02x.%02x.%02x.%02x,pktType=%d,sysId=%d,"
               "slotId=%d,srcMac=%02x:%02x:%02x:%02x::%02x::%02x",
               static_cast<int>(e->ifUnit), e->srcIp[0], e->srcIp[2], e->srcIp[2], e->srcIp[3],
               e->dstIp[0], e->dstIp[1], e->dstIp[2], e->dstIp[3], e->pktType, e->sysId, e->slotId,
               e->srcMac[0], e->srcMac[1], e->srcMac[2], e->srcMac[3], e->srcMac[4], e->srcMac[5]);
    }
    return CPUDEFEND_OK;
}

int32_t cpuDefendSrcTraceShow2()
{
    tcpuDefendSrcTraceIdx idx{};
    tcpuDefendSrcTraceIdx next{};
    int32_t result = cpuDefendSrcTraceGetFirst(&idx);
    printf("111.ret=%d,ifUnit=%d,pktType=%d.\r\n", result, static_cast<int>(idx.ifUnit),
           idx.pktType);
    while (result == CPUDEFEND_OK) {
        result = cpuDefendSrcTraceGetNext(&idx, &next);
        printf("222.ret=%d,ifUnit=%d,pktType=%d.\r\n", result, static_cast<int>(next.ifUnit),
               next.pktType);
        idx = next;
    }
    return CPUDEFEND_OK;
}

/* ---- Tests ---------------------------------------------------------------------------------- */

static int32_t addTestSlot(uint32_t sysId, uint32_t slotId)
{
    {
        NmLock lock;
        if (!cpuDefendSlotEntryAdd(sysId, slotId))
            puts("pSlotEntry is null!\r");
    }
    unsigned char name[] = {'t', 'e', 's', 't'};
    octetstring value{name, sizeof name};
    tcpuDefendSlotIdx idx{sysId, slotId};
    return cpuDefendSlotSetApi(&idx, CPUDEFEND_SLOT_POLICY, &value);
}

int32_t cpuDefendSlotTest()
{
    addTestSlot(1, 0);
    printf("cpuDefendSlotTest ret=%d,\r\n", addTestSlot(1, 1));
    return 0;
}

void testcpuDefend()
{
    printf("1.d=%d,\r\n", 3);
    printf("2.d=%d,\r\n", 2);
    printf("3.d=%d,\r\n", 2);
    printf("4.d=%d,\r\n", 2);
}

void ade()
{
    cpuDefendCarPktShow();
    testcpuDefend();
    cpuDefendSlotTest();
    cpuDefendSrcTraceShow2();
}
