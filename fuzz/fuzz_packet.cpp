// Frames to the tracing routine, on a policy of the system and one of a slot that both trace, with
// fewer records for sources than there are senders.
//
// An input is a row of packets of 88 bytes, the last one filled up with zeros: time to let pass
// before it (in 10 ms), flags (see below), the interface unit in four bytes, an offset, a VLAN id
// and the frame. With the top bit of the offset it comes in by the platform's hook, cut to as many
// bytes as the VLAN id says.

#include <string.h>

#include <memory>

#include "cpuDefend.h"
#include "cpuDefend_nm_api.h"
#include "fuzz_state.h"

namespace
{

constexpr size_t FRAME_AT = 8, ROW = FRAME_AT + CPUDEFEND_PKTDATA_LEN;

/** Flags of a row: the ethertype, the place of the interface, and what else happens. */
enum { TYPE = 0x03, PLACE = 0x0C, DATA = 0x10, RESET = 0x20, WALK = 0x40, UNTRACED = 0x80 };

constexpr uint32_t ethertypes[] = {0x0800, 0x0806, 0x86DD, 0x10800};

tPhyIfInfo place;
bool placed; // whether the interface can be translated

void setUp()
{
    uint8_t system[] = {'d', 'e', 'f', 'a', 'u', 'l', 't'}, own[] = {'p'};
    tCpuDefendPolicyEntry *policy = cpuDefendPolicyEntryAdd(own, sizeof own);
    for (uint32_t type : {11u, 12u, 14u, 21u, 22u}) {
        int32_t ignored;
        FUZZ_REQUIRE(cpuDefendCarPktEntryAdd(own, sizeof own, type, &ignored));
    }
    for (tCpuDefendPolicyEntry *each : {policy, cpuDefendPolicyEntryGet(system, sizeof system)}) {
        tCpuDefendPolicyIdx idx{};
        memcpy(idx.name, each->policyName, each->policyNameLen);
        idx.len = each->policyNameLen;
        uint32_t on = CPUDEFEND_ENABLE;
        FUZZ_REQUIRE(cpuDefendPolicySetApi(&idx, CPUDEFEND_POLICY_SRCTRACEENABLE, &on) == 0);
        each->srcTraceThreshold = 1;
        each->srcTraceAlarmThreshold = 2;
    }
    tcpuDefendSlotIdx slot{1, 2};
    octetstring name{own, sizeof own};
    octetstring systemName{system, sizeof system};
    FUZZ_REQUIRE(cpuDefendSlotSetApi(&slot, CPUDEFEND_SLOT_POLICY, &name) == 0);
    FUZZ_REQUIRE(cpuDefendGlobalSetApi(0, CPUDEFEND_GLOBAL_POLICY, &systemName) == 0);
}

void locate(uint8_t flags)
{
    constexpr struct {
        uint32_t unit, slot;
    } places[] = {{0, 0}, {1, 2}, {0x101, 0x102}, {0, 0}};
    const size_t at = (flags & PLACE) >> 2;
    place = {};
    place.unit = places[at].unit;
    place.slot = places[at].slot;
    placed = at != 3;
}

/** Delete what was traced where the flags say so, the way that the system or the slot does. */
void reset(uint8_t flags)
{
    uint32_t number = 0;
    octetstring value{};
    memcpy(&value, &number, sizeof number);
    tcpuDefendSlotIdx slot{1, 2};
    if (flags & PLACE)
        cpuDefendSlotSetApi(&slot, CPUDEFEND_SLOT_RESETSRCTRACE, &value);
    else
        cpuDefendGlobalSetApi(0, CPUDEFEND_GLOBAL_RESETSRCTRACE, &value);
    FUZZ_REQUIRE((flags & PLACE) || gCpuDefend.useSrcTraceNum == 0);
}

/**
 * Walk from every record to the next. Units that are far apart compare in a circle, so a walk need
 * not end; but every answer is a record of the table.
 */
void walk(uint8_t filter)
{
    tcpuDefendSrcTraceIdx idx{};
    idx.searchBit = filter;
    int32_t code = cpuDefendSrcTraceGetFirst(&idx);
    for (uint32_t i = 0; code == CPUDEFEND_OK && i < gCpuDefend.maxSrcTraceNum; ++i) {
        FUZZ_REQUIRE(idx.searchBit == filter);
        unsigned char data[200];
        octetstring value{data, sizeof data};
        cpuDefendSrcTraceGetApi(&idx, CPUDEFEND_SRCTRACE_PTKDATA, &value);
        FUZZ_REQUIRE(value.len == sizeof data || value.len == CPUDEFEND_PKTDATA_LEN);
        code = cpuDefendSrcTraceGetNext(&idx, &idx);
    }
}

uint32_t unitOf(const uint8_t *row)
{
    return static_cast<uint32_t>(row[2]) << 24 | static_cast<uint32_t>(row[3]) << 16 |
           static_cast<uint32_t>(row[4]) << 8 | row[5];
}

bool throughHook(const uint8_t *row)
{
    return (row[6] & 0x80) != 0;
}

/** Of the frame of a row. The routine gets all that it may read, the hook any length. */
uint32_t lengthOf(const uint8_t *row)
{
    return throughHook(row) && row[7] < CPUDEFEND_PKTDATA_LEN ? row[7] : CPUDEFEND_PKTDATA_LEN;
}

/** Give the hook a frame of @a length bytes. @return whether it did as it must */
bool hook(const uint8_t *row, uint8_t *frame, uint32_t length)
{
    packet_rxpktinfo info{};
    info.pkt_dataoffset = row[6] & 0x7F;
    info.pkt_innervid = static_cast<uint16_t>(row[7] << 8 | row[6]);
    info.pkt_outervid = static_cast<uint16_t>(~info.pkt_innervid);
    const auto protocol = static_cast<uint16_t>(ethertypes[row[1] & TYPE]);
    const int32_t code =
        cpuDefendSrcTracePkt(unitOf(row), protocol, &info, frame, static_cast<int32_t>(length));
    const bool traced =
        placed && !(row[1] & UNTRACED) && length > 0 && info.pkt_dataoffset < CPUDEFEND_PKTDATA_LEN;
    return code == (traced ? 0 : -1);
}

/** Give the routine a frame of 80 bytes. @return whether it did as it must */
bool routine(const uint8_t *row, const uint8_t *frame)
{
    const uint32_t before = gCpuDefend.useSrcTraceNum;
    const int32_t code = cpuDefendSrcTracePktData(unitOf(row), ethertypes[row[1] & TYPE], frame,
                                                  row[6] % CPUDEFEND_PKTDATA_LEN, row[7], row[6]);
    return code == (placed && !(row[1] & UNTRACED) ? 0 : -1) &&
           (code == 0 || gCpuDefend.useSrcTraceNum == before);
}

/** Hand over a copy of the frame, of exactly its length, which must come back as it was. */
void packet(const uint8_t *row)
{
    const uint32_t length = lengthOf(row);
    const auto frame = std::make_unique<uint8_t[]>(length);
    memcpy(frame.get(), row + FRAME_AT, length);
    OsixTakeSem(gCpuDefend.cpuDefendSem, OSIX_WAIT_FOREVER);
    FUZZ_REQUIRE(throughHook(row) ? hook(row, frame.get(), length) : routine(row, frame.get()));
    OsixGiveSem(gCpuDefend.cpuDefendSem);
    FUZZ_REQUIRE(memcmp(frame.get(), row + FRAME_AT, length) == 0);
}

/** What is recorded of VLANs that the hook cut has 12 bits; the routine's has 8. */
void checkVlans()
{
    for (void *at = avl_first(&gCpuDefend.srcTraceList); at;
         at = avl_next(&gCpuDefend.srcTraceList, at)) {
        const auto *source = static_cast<const tCpuDefendSrcTraceEntry *>(at);
        FUZZ_REQUIRE(source->innerVlan <= 0x0FFF && source->outerVlan <= 0x0FFF);
    }
}

/** Tracing on or off for the two policies, the copies of packets too. */
void switchTracing(uint8_t flags)
{
    for (void *at = avl_first(&gCpuDefend.policyList); at;
         at = avl_next(&gCpuDefend.policyList, at)) {
        auto *policy = static_cast<tCpuDefendPolicyEntry *>(at);
        tCpuDefendPolicyIdx idx{};
        memcpy(idx.name, policy->policyName, policy->policyNameLen);
        idx.len = policy->policyNameLen;
        uint32_t trace = flags & UNTRACED ? CPUDEFEND_DISABLE : CPUDEFEND_ENABLE;
        uint32_t data = flags & DATA ? CPUDEFEND_ENABLE : CPUDEFEND_DISABLE;
        cpuDefendPolicySetApi(&idx, CPUDEFEND_POLICY_SRCTRACEENABLE, &trace);
        cpuDefendPolicySetApi(&idx, CPUDEFEND_POLICY_SRCTRACEPKTDATAENABLE, &data);
    }
}

void serve(const uint8_t *row)
{
    const uint8_t flags = row[1];
    fuzzPass(row[0] * 10u);
    locate(flags);
    switchTracing(flags);
    if (flags & RESET)
        reset(flags);
    packet(row);
    checkVlans();
    if (flags & WALK)
        walk(row[7]);
    fuzzCheckState();
}

} // namespace

extern "C" int32_t __wrap_sysIndexTrans(uint32_t, uint32_t mode, tPhyIfInfo *info)
{
    FUZZ_REQUIRE(mode == SYS_INDEX_TRANS_PHY);
    if (!placed)
        return 1;
    *info = place;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzzStart();
    setUp();
    while (size > 0) {
        uint8_t row[ROW] = {};
        const size_t len = size < ROW ? size : ROW;
        memcpy(row, data, len);
        serve(row);
        data += len;
        size -= len;
    }
    fuzzEnd();
    return 0;
}
