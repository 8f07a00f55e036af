// Records of the standby's peer, while the system and a slot switch by their CPU rate: whatever
// position is received, the next samples must cope with it.
//
// An input is a row of messages: one byte of time to let pass behind it (in 10 ms), one that tells
// how it arrives and how long it is, and that many bytes (as many as there are).

#include <string.h>

#include <memory>

#include "cpuDefend.h"
#include "cpuDefend_nm_api.h"
#include "fuzz_state.h"

namespace
{

constexpr size_t HEAD = 2, RECORD = 12;
constexpr uint8_t BY_ATTRIBUTE = 0x80; // in the length byte: through the management API

/** Where a position is kept, and what it must be. */
struct Kept {
    uint32_t sysId, slotId;
    uint8_t *position;
    uint8_t expected;
};

void setUp()
{
    uint8_t name[] = {'d', 'e', 'f', 'a', 'u', 'l', 't'};
    const octetstring policy{name, sizeof name};
    tcpuDefendSlotIdx slot{1, 2};
    const auto set = [&slot](uint32_t globalId, uint32_t slotId, octetstring value) {
        octetstring copy = value;
        FUZZ_REQUIRE(cpuDefendGlobalSetApi(0, globalId, &value) == 0);
        FUZZ_REQUIRE(cpuDefendSlotSetApi(&slot, slotId, &copy) == 0);
    };
    const auto number = [](uint32_t value) {
        octetstring cell{};
        memcpy(&cell, &value, sizeof value);
        return cell;
    };
    set(CPUDEFEND_GLOBAL_L1CPURAT, CPUDEFEND_SLOT_L1CPURAT, number(30));
    set(CPUDEFEND_GLOBAL_L2CPURAT, CPUDEFEND_SLOT_L2CPURAT, number(60));
    set(CPUDEFEND_GLOBAL_L1POLICYNAME, CPUDEFEND_SLOT_L1POLICYNAME, policy);
    set(CPUDEFEND_GLOBAL_L3POLICYNAME, CPUDEFEND_SLOT_L3POLICYNAME, policy);
    set(CPUDEFEND_GLOBAL_POLICYMODE, CPUDEFEND_SLOT_POLICYMODE, number(CPUDEFEND_CPURAT_CONTROL));
}

uint32_t wordAt(const uint8_t *bytes)
{
    return static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
           static_cast<uint32_t>(bytes[2]) << 8 | bytes[3];
}

/** Whole records only; one of an unknown place is skipped, the last one of a place wins. */
void expect(const uint8_t *data, size_t len, Kept (&kept)[3])
{
    for (; len >= RECORD; data += RECORD, len -= RECORD)
        for (Kept &each : kept)
            if (wordAt(data) == each.sysId && wordAt(data + 4) == each.slotId)
                each.expected = data[11];
}

int32_t hand(uint8_t *bytes, uint32_t len, bool byAttribute)
{
    octetstring value{bytes, len};
    if (byAttribute)
        return cpuDefendGlobalSetApi(0, CPUDEFEND_GLOBAL_SYNCSTATE, &value);
    OsixTakeSem(gCpuDefend.cpuDefendSem, OSIX_WAIT_FOREVER);
    const int32_t code = cpuDefendSyncRcv(bytes, static_cast<int32_t>(len));
    OsixGiveSem(gCpuDefend.cpuDefendSem);
    return code;
}

void receive(const uint8_t *data, size_t len, bool byAttribute)
{
    uint8_t *const first = &cpuDefendSlotEntryGet(1, 2)->selectedPosition;
    uint8_t *const second = &cpuDefendSlotEntryGet(7, 0)->selectedPosition;
    Kept kept[] = {{0, 0, &gCpuDefend.selectedPosition, gCpuDefend.selectedPosition},
                   {1, 2, first, *first},
                   {7, 0, second, *second}};
    expect(data, len, kept);
    const auto buffer = std::make_unique<uint8_t[]>(len);
    memcpy(buffer.get(), data, len);
    FUZZ_REQUIRE(hand(buffer.get(), static_cast<uint32_t>(len), byAttribute) == 0);
    for (const Kept &each : kept)
        FUZZ_REQUIRE(*each.position == each.expected);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzzStart();
    FUZZ_REQUIRE(cpuDefendSlotEntryAdd(7, 0));
    setUp();
    while (size >= HEAD) {
        const uint32_t ms = data[0] * 10u;
        const bool byAttribute = data[1] & BY_ATTRIBUTE;
        size_t len = data[1] & 0x7F;
        data += HEAD;
        size -= HEAD;
        if (len > size)
            len = size;
        receive(data, len, byAttribute);
        fuzzPass(ms);
        cpuDefendSyncSend(1, 0);
        fuzzCheckState();
        data += len;
        size -= len;
    }
    fuzzEnd();
    return 0;
}
