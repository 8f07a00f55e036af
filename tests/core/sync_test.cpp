// Selected levels on their way to the standby card and back.
#include "engine.h"

#include "channel/guarded.h"

using namespace engine;
using channel::Guarded;
using scripted::Call;

class Sync : public CoreTest
{
protected:
    void SetUp() override
    {
        CoreTest::SetUp();
        restart(8, 4);
        gCpuDefend.selectedPosition = 2;
    }

    static std::string record(uint32_t sysId, uint32_t slotId, uint32_t position)
    {
        std::string text;
        for (uint32_t word : {sysId, slotId, position})
            for (int shift = 24; shift >= 0; shift -= 8)
                text += static_cast<char>(word >> shift & 0xFF);
        return text;
    }

    static tCpuDefendSlotEntry *addAt(uint32_t sysId, uint32_t slotId, uint8_t position)
    {
        tCpuDefendSlotEntry *slot = cpuDefendSlotEntryAdd(sysId, slotId);
        slot->selectedPosition = position;
        return slot;
    }

    /** Start over with @a n slots. @return the records of the system and all of them */
    std::string restartWithSlots(uint32_t n)
    {
        restart(1, n);
        gCpuDefend.selectedPosition = 9;
        std::string all = record(0, 0, 9);
        for (uint32_t i = 0; i < n; i++) {
            const auto position = static_cast<uint8_t>(i % 4);
            addAt(1 + i / 100, i % 100, position);
            all += record(1 + i / 100, i % 100, position);
        }
        return all;
    }

    /** The buffers sent, and that each was sent the same way. */
    static std::vector<std::string> sent(uint32_t flag)
    {
        std::vector<std::string> buffers;
        for (const scripted::Record &call : scripted::calls) {
            EXPECT_EQ(call.call, Call::ScalarSync);
            EXPECT_EQ(call.cmd, 8020u);
            EXPECT_EQ(call.flag, flag);
            buffers.push_back(call.octets);
        }
        return buffers;
    }

    /** Receive @a text from memory that ends where it ends. */
    static int32_t receive(const std::string &text)
    {
        Guarded memory({text.begin(), text.end()});
        return cpuDefendSyncRcv(memory.data(), static_cast<int32_t>(text.size()));
    }
};

/* ---- The record ----------------------------------------------------------------------------- */

TEST_F(Sync, RecordIsThreeBigEndianWords)
{
    const tCpuDefendSlotEntry *slot = addAt(254, 3, 1);
    unsigned char buf[16];
    memset(buf, 0xEE, sizeof buf);
    EXPECT_EQ(cpuDefendSyncData(slot, buf + 1, 0x01020304), 12u);
    const unsigned char expected[16] = {0xEE, 0, 0, 0, 254, 0,    0,    0,
                                        3,    1, 2, 3, 4,   0xEE, 0xEE, 0xEE};
    EXPECT_EQ(image(buf), image(expected));
}

TEST_F(Sync, SystemRecordHasNumbersZero)
{
    unsigned char buf[12];
    memset(buf, 0xEE, sizeof buf);
    EXPECT_EQ(cpuDefendSyncData(nullptr, buf, 3), 12u);
    EXPECT_EQ(image(buf), record(0, 0, 3));
}

/* ---- Sending everything -----------------------------------------------------------------------
 */

TEST_F(Sync, BulkWithoutSlotsSendsTheSystem)
{
    EXPECT_EQ(cpuDefendSyncSend(3, 0), 0);
    EXPECT_EQ(sent(0x80000003), std::vector<std::string>{record(0, 0, 2)});
}

TEST_F(Sync, BulkSendsTheSystemThenTheSlotsInTheOrderOfCreation)
{
    addAt(1, 5, 3);
    addAt(1, 2, 0);
    addAt(0, 9, 255);
    EXPECT_EQ(cpuDefendSyncSend(1, 0), 0);
    EXPECT_EQ(sent(0x80000001), std::vector<std::string>{record(0, 0, 2) + record(1, 5, 3) +
                                                         record(1, 2, 0) + record(0, 9, 255)});
}

TEST_F(Sync, BulkIsSplitWhereARecordDoesNotFitInto2048Bytes)
{
    const struct {
        uint32_t slots;
        std::vector<size_t> lengths;
    } rows[] = {
        {10, {132}},
        {169, {2040}}, // 170 records, and 8 bytes are left
        {170, {2040, 12}},
        {171, {2040, 24}},
        {339, {2040, 2040}},
        {340, {2040, 2040, 12}},
        {600, {2040, 2040, 2040, 1092}},
    };
    for (const auto &row : rows) {
        const std::string all = restartWithSlots(row.slots);
        EXPECT_EQ(cpuDefendSyncSend(3, 0), 0);
        std::vector<size_t> lengths;
        std::string joined;
        for (const std::string &buffer : sent(0x80000003)) {
            lengths.push_back(buffer.size());
            joined += buffer;
        }
        EXPECT_EQ(lengths, row.lengths) << row.slots;
        EXPECT_EQ(joined, all) << row.slots;
    }
}

TEST_F(Sync, BulkReturnsTheLastResultAndSendsOnAfterAFailure)
{
    restartWithSlots(200);
    scripted::script.failAt = {{0, 9}};
    EXPECT_EQ(cpuDefendSyncSend(3, 0), 0);
    EXPECT_EQ(scripted::calls.size(), 2u);

    scripted::calls.clear();
    scripted::script.failAt = {{1, 9}};
    EXPECT_EQ(cpuDefendSyncSend(3, 0), 9);
    EXPECT_EQ(scripted::calls.size(), 2u);
}

/* ---- Sending one ------------------------------------------------------------------------------
 */

TEST_F(Sync, MasterSendsOneSlot)
{
    const tCpuDefendSlotEntry *slot = addAt(1, 5, 3);
    addAt(1, 6, 1);
    EXPECT_EQ(cpuDefendSlotSyncSend(slot), 0);
    ASSERT_EQ(scripted::calls.size(), 2u);
    EXPECT_EQ(scripted::calls[0].call, Call::ScalarGet);
    EXPECT_EQ(scripted::calls[0].cmd, 53u); // asked whether it is the master, not the slave
    scripted::calls.erase(scripted::calls.begin());
    EXPECT_EQ(sent(0x80000003), std::vector<std::string>{record(1, 5, 3)});
}

TEST_F(Sync, OnlyTheMasterSendsOne)
{
    const tCpuDefendSlotEntry *slot = addAt(1, 5, 3);
    scripted::script.failAll[Call::ScalarSync] = 9;
    EXPECT_EQ(cpuDefendSlotSyncSend(slot), 9);
    scripted::script.slave = true;
    EXPECT_EQ(cpuDefendSlotSyncSend(slot), 0);
    scripted::script.slave = false;
    scripted::script.noRole = true;
    EXPECT_EQ(cpuDefendSlotSyncSend(slot), 0);
    EXPECT_EQ(cpuDefendSlotSyncSend(nullptr), 0);
    EXPECT_EQ(scripted::count(Call::ScalarSync), 1u);
}

/* ---- Receiving --------------------------------------------------------------------------------
 */

TEST_F(Sync, RecordsAreAppliedToTheSystemAndTheSlots)
{
    const tCpuDefendSlotEntry *a = addAt(1, 5, 0), *b = addAt(2, 5, 0);
    EXPECT_EQ(receive(record(2, 5, 3) + record(0, 0, 1) + record(1, 5, 2)), 0);
    EXPECT_EQ(gCpuDefend.selectedPosition, 1);
    EXPECT_EQ(a->selectedPosition, 2);
    EXPECT_EQ(b->selectedPosition, 3);
    EXPECT_TRUE(scripted::calls.empty()); // nothing is programmed by it
    EXPECT_EQ(seam::semTakes, 0);
}

TEST_F(Sync, NullBufferIsRefused)
{
    for (int32_t len : {-1, 0, 12})
        EXPECT_EQ(cpuDefendSyncRcv(nullptr, len), -1);
}

TEST_F(Sync, LengthBelowOneIsNothing)
{
    const std::string text = record(0, 0, 3);
    for (int32_t len : {0, -1, -12, INT32_MIN})
        EXPECT_EQ(cpuDefendSyncRcv(bytes(text), len), 0) << len;
    EXPECT_EQ(gCpuDefend.selectedPosition, 2);
}

TEST_F(Sync, LastPartOfARecordIsIgnored)
{
    const tCpuDefendSlotEntry *slot = addAt(1, 5, 0);
    const std::string text = record(0, 0, 3) + record(1, 5, 1);
    for (size_t len = 1; len < 12; len++) {
        EXPECT_EQ(receive(text.substr(0, len)), 0) << len;
        EXPECT_EQ(gCpuDefend.selectedPosition, 2) << len;
    }
    for (size_t len = 12; len < 24; len++) {
        gCpuDefend.selectedPosition = 2;
        EXPECT_EQ(receive(text.substr(0, len)), 0) << len;
        EXPECT_EQ(gCpuDefend.selectedPosition, 3) << len;
        EXPECT_EQ(slot->selectedPosition, 0) << len;
    }
    EXPECT_EQ(receive(text), 0);
    EXPECT_EQ(slot->selectedPosition, 1);
}

TEST_F(Sync, UnknownSlotsAreSkipped)
{
    const tCpuDefendSlotEntry *slot = addAt(1, 5, 0);
    EXPECT_EQ(receive(record(1, 6, 3) + record(5, 1, 3) + record(257, 5, 3) + record(1, 261, 3) +
                      record(0x01000000, 0x05000000, 3) + record(0, 5, 3) + record(1, 0, 3)),
              0);
    EXPECT_EQ(slot->selectedPosition, 0);
    EXPECT_EQ(gCpuDefend.selectedPosition, 2);
    EXPECT_EQ(receive(record(9, 9, 1) + record(1, 5, 2)), 0); // those behind them are not
    EXPECT_EQ(slot->selectedPosition, 2);
}

TEST_F(Sync, OnlyTheLowByteOfThePositionCounts)
{
    const tCpuDefendSlotEntry *slot = addAt(1, 5, 0);
    receive(record(0, 0, 0x01020301) + record(1, 5, 0xFFFFFFC8));
    EXPECT_EQ(gCpuDefend.selectedPosition, 1);
    EXPECT_EQ(slot->selectedPosition, 200);
    receive(record(0, 0, 0x00000100) + record(1, 5, 0xFFFFFF00));
    EXPECT_EQ(gCpuDefend.selectedPosition, 0);
    EXPECT_EQ(slot->selectedPosition, 0);
}

TEST_F(Sync, NumbersZeroAreTheSystemNeverASlot)
{
    const tCpuDefendSlotEntry *zero = addAt(0, 0, 1), *five = addAt(0, 5, 1), *one = addAt(1, 0, 1);
    receive(record(0, 0, 3));
    EXPECT_EQ(gCpuDefend.selectedPosition, 3);
    EXPECT_EQ(zero->selectedPosition, 1);
    receive(record(0, 5, 2) + record(1, 0, 0));
    EXPECT_EQ(five->selectedPosition, 2);
    EXPECT_EQ(one->selectedPosition, 0);
    EXPECT_EQ(gCpuDefend.selectedPosition, 3);
}

// Positions from outside are believed: none may reach past the three levels.
TEST_F(Sync, ReceivedPositionsNeverIndexPastTheLevels)
{
    for (char letter : {'a', 'b', 'c'})
        addLetter(letter);
    setLevels(gCpuDefend.cpuRatControl, {30, 60, 90});
    gCpuDefend.policyMode = CPUDEFEND_CPURAT_CONTROL;
    cpuDefendCpuRatControlSysTimerStart();
    cpuDefendSlotEntryAdd(1, 1); // in fixed mode: switched by the system
    scripted::script.cpu = {{0, {50}}, {1, {5000}}};
    for (uint32_t position = 4; position <= 255; position++) {
        tCpuDefendSlotEntry *slot = cpuDefendSlotEntryAdd(1, 5);
        setLevels(slot->cpuRatControl, {30, 60, 90});
        slot->policyMode = CPUDEFEND_CPURAT_CONTROL;
        receive(record(0, 0, position) + record(1, 5, position));
        scripted::calls.clear();
        advance(500);
        ASSERT_EQ(trail(), "+a@1/1 +c@1/5 sync(1/5=3)") << position;
        receive(record(1, 5, position));
        scripted::calls.clear();
        ASSERT_EQ(cpuDefendSlotEntryDel(slot), 0);
        ASSERT_EQ(trail(), "") << position;
    }
}
