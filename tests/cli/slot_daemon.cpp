/**
 * The daemon with slots and traced sources from its start on, for tests: on the memory layer,
 * nothing creates them.
 */
#include <string.h>

#include "cpuDefend.h"

static void addSource(uint32_t ifUnit, uint8_t lastOfIp, uint32_t pktType, uint8_t slotId,
                      bool withData)
{
    const uint8_t ip[] = {192, 0, 2, lastOfIp};
    const uint8_t dstIp[] = {198, 51, 100, 1};
    const uint8_t mac[] = {0x02, 0x00, 0x5e, 0x00, 0x53, lastOfIp};
    tCpuDefendSrcTraceEntry *source = cpuDefendSrcTraceEntryAdd(ifUnit, ip, pktType, mac);
    memcpy(source->dstIp, dstIp, sizeof dstIp);
    source->sysId = 1;
    source->slotId = slotId;
    source->outerVlan = 100;
    source->innerVlan = 7;
    source->totalNum = 4242;
    for (uint32_t i = 0; withData && i < CPUDEFEND_PKTDATA_LEN; i++)
        source->pktData[i] = static_cast<uint8_t>(0xA0 + i);
}

/** With an argument there is also slot 0/0: the system itself, which the platform refuses. */
int main(int argc, char *argv[])
{
    if (zynPlatformInit(argv) != 0 || cpuDefendInit(0, 0) != 0 || zynPlatformStart() != 0)
        return 1;
    cpuDefendSlotEntryAdd(1, 5);
    cpuDefendSlotEntryAdd(1, 2); // behind a greater one: no walk visits it
    cpuDefendSlotEntryAdd(1, 9);
    if (argc > 1)
        cpuDefendSlotEntryAdd(0, 0);
    addSource(1, 10, CPUDEFEND_PKTTYPE_ARP, 5, true);
    addSource(1, 11, CPUDEFEND_PKTTYPE_ICMP, 9, false);
    addSource(4000000, 10, CPUDEFEND_PKTTYPE_ARP, 5, false);
    addSource(1, 12, CPUDEFEND_PKTTYPE_DOT1X, 5, true); // type 0 is not read out
    cpuDefenTask();
}
