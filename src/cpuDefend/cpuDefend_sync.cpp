/**
 * Standby synchronisation: the selected CPU-rate level of the system and of each slot, in records
 * of 12 bytes (system number, slot number, position; big-endian).
 */
#include "cpuDefend.h"

namespace
{

constexpr uint32_t RECORD_LEN = 12;
constexpr uint32_t SLOT_ID_POS = 4;
constexpr uint32_t POSITION_BYTE = 11; // the position's low byte
constexpr uint32_t BUFFER_LEN = 2048;

int32_t sendRecords(unsigned char *buf, uint32_t len, uint32_t flag)
{
    const octetstring octets{buf, len};
    return zynHwScalarSync(0, ZYN_SYNC_SELECTED, &octets, flag | ZYN_SYNC_OCTETS);
}

uint32_t wordAt(const unsigned char *buf)
{
    return uint32_t{buf[0]} << 24 | uint32_t{buf[1]} << 16 | uint32_t{buf[2]} << 8 | buf[3];
}

void apply(const unsigned char *record)
{
    const uint32_t sysId = wordAt(record);
    const uint32_t slotId = wordAt(record + SLOT_ID_POS);
    if (sysId == 0 && slotId == 0) {
        gCpuDefend.selectedPosition = record[POSITION_BYTE];
        return;
    }
    tCpuDefendSlotEntry *entry = cpuDefendSlotEntryGet(sysId, slotId);
    if (entry)
        entry->selectedPosition = record[POSITION_BYTE];
}

} // namespace

uint32_t cpuDefendSyncData(const tCpuDefendSlotEntry *pSlotEntry, unsigned char *pBuf,
                           uint32_t selectedPosition)
{
    adr_t adr;
    adr_start(&adr, pBuf, RECORD_LEN);
    adr_int32(&adr, pSlotEntry ? pSlotEntry->sysId : 0);
    adr_int32(&adr, pSlotEntry ? pSlotEntry->slotId : 0);
    adr_int32(&adr, static_cast<int32_t>(selectedPosition));
    return RECORD_LEN;
}

int32_t cpuDefendSyncSend(uint32_t flag, uint32_t)
{
    unsigned char buf[BUFFER_LEN];
    uint32_t len = cpuDefendSyncData(nullptr, buf, gCpuDefend.selectedPosition);
    list_for_each_entry(tCpuDefendSlotEntry, slot, &gCpuDefend.slotList, node)
    {
        if (len + RECORD_LEN > sizeof buf) {
            sendRecords(buf, len, flag);
            len = 0;
        }
        len += cpuDefendSyncData(slot, buf + len, slot->selectedPosition);
    }
    return sendRecords(buf, len, flag);
}

int32_t cpuDefendSlotSyncSend(const tCpuDefendSlotEntry *pSlotEntry)
{
    if (zynHwScalarGet(0, HW_SYS_SWRUNNINGROLEISMASTER, nullptr) != 0)
        return 0;
    unsigned char buf[RECORD_LEN];
    const uint32_t position =
        pSlotEntry ? pSlotEntry->selectedPosition : gCpuDefend.selectedPosition;
    return sendRecords(buf, cpuDefendSyncData(pSlotEntry, buf, position), ZYN_FLAG_LOCAL);
}

int32_t cpuDefendSyncRcv(const unsigned char *pBuf, int32_t len)
{
    if (!pBuf)
        return -1;
    for (; len >= static_cast<int32_t>(RECORD_LEN); len -= static_cast<int32_t>(RECORD_LEN)) {
        apply(pBuf);
        pBuf += RECORD_LEN;
    }
    return 0;
}
