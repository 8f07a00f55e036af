// Slots from links: which messages make and release a slot's record, and what becomes of it.
#include "cards.h"

class Cards : public CoreTest
{
};

TEST_F(Cards, FirstPortMakesTheRecordAndTheLastOneReleasesIt)
{
    comes(PORT, 1, 5);
    EXPECT_EQ(slots(), "1/5");
    comes(PORT + 1, 1, 5);
    EXPECT_EQ(slots(), "1/5");
    goes(PORT);
    EXPECT_EQ(slots(), "1/5");
    goes(PORT + 1);
    EXPECT_EQ(slots(), "");
    EXPECT_EQ(gCpuDefend.useSlotNum, 0u);
}

TEST_F(Cards, SlotZeroOfAnotherSystemIsASlot)
{
    comes(PORT, 1, 0);
    comes(PORT + 1, 0, 1);
    EXPECT_EQ(slots(), "1/0 0/1");
}

TEST_F(Cards, WithoutSlotsNothingChanges)
{
    const std::string before = image(gCpuDefend);
    comes(PORT, 0, 0);
    notify(linkIsThere(PORT + 1)); // of no place
    comes(PORT, 0, 0);
    goes(PORT);
    goes(PORT + 1);
    goes(PORT + 2); // never seen
    cpuDefendCardStart();
    cpuDefendFollow();
    EXPECT_EQ(image(gCpuDefend), before);
    EXPECT_TRUE(scripted::calls.empty());
    EXPECT_TRUE(scripted::counted.empty());
    EXPECT_EQ(scripted::changes, 0u);
}

TEST_F(Cards, RenamedPortMovesToItsNewSlot)
{
    comes(PORT, 1, 5);
    comes(PORT, 1, 6);
    EXPECT_EQ(slots(), "1/6");
    comes(PORT, 0, 0); // out of all slots
    EXPECT_EQ(slots(), "");
    scripted::script.ports.clear();
    comes(PORT, 1, 6);
    scripted::script.ports.clear(); // unknown to the platform now
    notify(linkIsThere(PORT));
    EXPECT_EQ(slots(), "");
}

TEST_F(Cards, PortThatLeavesABridgeIsStillThere)
{
    comes(PORT, 1, 5);
    notify(linkMessage(RTM_DELLINK, PORT, AF_BRIDGE));
    EXPECT_EQ(slots(), "1/5");
    notify(linkMessage(RTM_NEWLINK, PORT, AF_BRIDGE));
    EXPECT_EQ(slots(), "1/5");
}

TEST_F(Cards, NumbersBeyondARecordAreNoSlot)
{
    comes(PORT, 1, 255);
    comes(PORT + 1, 1, 256 + 255); // would be stored, and found, as slot 255
    comes(PORT + 2, 257, 1);
    EXPECT_EQ(slots(), "1/255");
    goes(PORT + 1);
    EXPECT_EQ(slots(), "1/255");
    comes(PORT, 1, 256); // moves out of all slots
    EXPECT_EQ(slots(), "");
}

/* ---- Messages ------------------------------------------------------------------------- */

TEST_F(Cards, MessagesInOneBufferCountOneByOne)
{
    scripted::script.ports[PORT] = {1, 5};
    scripted::script.ports[PORT + 1] = {1, 6};
    notify(linkMessage(RTM_NEWLINK, PORT, AF_UNSPEC, 7) + linkIsThere(PORT + 1) + linkIsGone(PORT));
    EXPECT_EQ(slots(), "1/6");
}

TEST_F(Cards, MessageCutByTheBufferCounts)
{
    scripted::script.ports[PORT] = {1, 5};
    const std::string whole = linkMessage(RTM_NEWLINK, PORT, AF_UNSPEC, 1600);
    notify(whole.substr(0, 1400));
    EXPECT_EQ(slots(), "1/5");
    goes(PORT);
    notify(whole.substr(0, 24)); // the header and the index
    EXPECT_EQ(slots(), "1/5");
    goes(PORT);
    notify(linkIsThere(PORT + 1) + whole.substr(0, 24)); // behind another one
    EXPECT_EQ(slots(), "1/5");
}

TEST_F(Cards, MessageCutBeforeTheIndexDoesNotCount)
{
    scripted::script.ports[PORT] = {1, 5};
    const std::string whole = linkIsThere(PORT);
    for (size_t len = 0; len < 24; len++) {
        notify(whole.substr(0, len));
        EXPECT_EQ(slots(), "") << len;
    }
    cpuDefendCardNotify(bytes(whole), -1);
    EXPECT_EQ(slots(), "");
}

TEST_F(Cards, MessageThatSaysItIsTooShortEndsTheWalk)
{
    scripted::script.ports[PORT] = {1, 5};
    for (const uint32_t len : {0u, 15u}) {
        std::string lying = linkIsThere(PORT);
        memcpy(lying.data(), &len, sizeof len);
        notify(lying + linkIsThere(PORT));
        EXPECT_EQ(slots(), "") << len;
    }
    std::string noIndex = linkIsThere(PORT);
    const uint32_t len = 23;
    memcpy(noIndex.data(), &len, sizeof len);
    notify(noIndex); // 23 bytes, padded to 24
    EXPECT_EQ(slots(), "");
    notify(noIndex.substr(0, 24) + linkIsThere(PORT));
    EXPECT_EQ(slots(), "1/5");
}

TEST_F(Cards, OtherMessagesTellNothing)
{
    scripted::script.ports[PORT] = {1, 5};
    for (const uint16_t type : {0, 2, 3, 15, 18, 20, 87, 90, 0xffff})
        notify(linkMessage(type, PORT));
    EXPECT_EQ(slots(), "");
}

/* ---- Asking the kernel ---------------------------------------------------------------- */

constexpr uint32_t LOOPBACK = 1; // in every network name space

TEST_F(Cards, LinksThatAreThereAtTheStartMakeRecords)
{
    scripted::script.ports[LOOPBACK] = {1, 5};
    cpuDefendCardStart();
    EXPECT_EQ(slots(), "1/5");
    cpuDefendCardStart();
    EXPECT_EQ(slots(), "1/5");
    goes(LOOPBACK);
    EXPECT_EQ(slots(), "");
}

TEST_F(Cards, AskingAgainMendsWhatLostMessagesLeft)
{
    comes(PORT, 1, 6); // the message that it is gone again was lost
    scripted::script.ports[LOOPBACK] = {1, 5};
    cpuDefendCardStart();
    EXPECT_EQ(slots(), "1/5");
    scripted::script.ports[LOOPBACK] = {1, 6}; // and that it has another name
    cpuDefendCardStart();
    EXPECT_EQ(slots(), "1/6");
}

TEST_F(Cards, WhatCannotBeAskedIsTakenForThere)
{
    comes(PORT, 1, 5);
    seam::armed = true;
    seam::fail[{"socket", 0}] = -1;
    cpuDefendCardStart();
    seam::armed = false;
    seam::fail.clear();
    EXPECT_EQ(slots(), "1/5");
    cpuDefendCardStart();
    EXPECT_EQ(slots(), "");
}

/* ---- The kernel's answer -------------------------------------------------------------- */

constexpr size_t BUFFER = 32 * 1024; // for one datagram of it

/** A message as part of the answer. @param flags besides the one all parts have */
static std::string part(std::string message, uint16_t flags = 0, uint32_t sequence = 1)
{
    nlmsghdr header;
    memcpy(&header, message.data(), sizeof header);
    header.nlmsg_flags = static_cast<uint16_t>(NLM_F_MULTI | flags);
    header.nlmsg_seq = sequence;
    memcpy(message.data(), &header, sizeof header);
    return message;
}

static std::string listed(uint32_t port, uint16_t flags = 0)
{
    return part(linkIsThere(port), flags);
}

static std::string end(uint16_t flags = 0)
{
    return part(linkMessage(NLMSG_DONE, 0), flags);
}

/** Asking with answers as the test says: PORT is known from before, in slot 1/1. */
class CardAnswers : public Cards
{
protected:
    void SetUp() override
    {
        Cards::SetUp();
        comes(PORT, 1, 1);
        for (uint32_t i = 1; i < 8; i++)
            scripted::script.ports[PORT + i] = {1, 1 + i};
    }

    void TearDown() override
    {
        seam::datagrams.reset();
        Cards::TearDown();
    }

    /** Ask. @return how often the kernel was asked */
    static int ask(const std::vector<seam::Datagram> &answer)
    {
        seam::datagrams.emplace(answer.begin(), answer.end());
        seam::requests = 0;
        cpuDefendCardStart();
        return seam::requests;
    }
};

TEST_F(CardAnswers, ListThatDoesNotEndRemovesNothing)
{
    EXPECT_EQ(ask({{listed(PORT + 1)}}), 1);
    EXPECT_EQ(slots(), "1/1 1/2");
}

TEST_F(CardAnswers, OnlyTheKernelIsBelieved)
{
    EXPECT_EQ(ask({{listed(PORT + 1), 7}, {end(), 7}, {listed(PORT + 2) + end()}}), 1);
    EXPECT_EQ(slots(), "1/3");
}

TEST_F(CardAnswers, AnswerToAnotherRequestIsNotBelieved)
{
    EXPECT_EQ(ask({{part(linkIsThere(PORT + 1), 0, 2) + part(linkMessage(NLMSG_DONE, 0), 0, 2)},
                   {listed(PORT + 2) + end()}}),
              1);
    EXPECT_EQ(slots(), "1/3");
}

TEST_F(CardAnswers, PartThatFillsTheBufferCounts)
{
    const std::string whole =
        linkMessage(RTM_NEWLINK, PORT + 1, AF_UNSPEC, BUFFER - linkIsThere(PORT + 1).size());
    ASSERT_EQ(whole.size(), BUFFER);
    EXPECT_EQ(ask({{part(whole)}, {end()}}), 1);
    EXPECT_EQ(slots(), "1/2");
}

/** Links behind the cut would be taken for gone. */
TEST_F(CardAnswers, CutPartMakesTheListFail)
{
    const std::string whole =
        listed(PORT + 1) + part(linkMessage(RTM_NEWLINK, PORT + 2, AF_UNSPEC, BUFFER));
    EXPECT_EQ(ask({{whole}, {end()}}), 1);
    EXPECT_EQ(slots(), "1/1");
}

TEST_F(CardAnswers, InterruptedListIsAskedForAgain)
{
    EXPECT_EQ(ask({{listed(PORT + 1, NLM_F_DUMP_INTR) + listed(PORT + 2) + end()},
                   {listed(PORT + 2) + end()}}),
              2);
    EXPECT_EQ(slots(), "1/3"); // PORT + 1 went meanwhile
    EXPECT_EQ(ask({{listed(PORT + 2)}, {end(NLM_F_DUMP_INTR)}, {listed(PORT + 3) + end()}}), 2);
    EXPECT_EQ(slots(), "1/4");
}

TEST_F(CardAnswers, FifthListIsTheLastThatIsAskedFor)
{
    std::vector<seam::Datagram> answer;
    for (uint32_t i = 0; i < 4; i++)
        answer.push_back({end(NLM_F_DUMP_INTR)});
    answer.push_back({listed(PORT + 1) + end()});
    EXPECT_EQ(ask(answer), 5);
    EXPECT_EQ(slots(), "1/2");
    answer.back() = {listed(PORT + 2) + end(NLM_F_DUMP_INTR)};
    answer.push_back({end()});
    EXPECT_EQ(ask(answer), 5);
    EXPECT_EQ(slots(), "1/2 1/3"); // what may have gone stays
}

/* ---- Records -------------------------------------------------------------------------- */

TEST_F(Cards, ReusedRecordKeepsItsModeAndLevelsAndIsBoundToNothing)
{
    restart(8, 1);
    engine::addLetter('a');
    comes(PORT, 1, 5);
    tCpuDefendSlotEntry *slot = cpuDefendSlotEntryGet(1, 5);
    engine::setLevels(slot->cpuRatControl, {30, 60, 90});
    slot->policyMode = CPUDEFEND_CPURAT_CONTROL;
    slot->selectedPosition = 1;
    cpuDefendFollow();
    goes(PORT);
    EXPECT_EQ(length(gCpuDefend.slotFreeList), 1u);
    scripted::calls.clear();
    comes(PORT, 1, 6);
    ASSERT_EQ(cpuDefendSlotEntryGet(1, 6), slot);
    EXPECT_EQ(slot->policyMode, CPUDEFEND_CPURAT_CONTROL);
    EXPECT_EQ(slot->cpuRatControl[1].cpuRat, 60);
    EXPECT_EQ(slot->selectedPosition, 0); // nothing is programmed there
    EXPECT_EQ(slot->policyNameLen, 0);
    EXPECT_EQ(slot->policyEntry, nullptr);
    EXPECT_EQ(engine::trail(), "");
}

TEST_F(Cards, SlotThatIsGoneIsNotSwitchedAnyMore)
{
    engine::addLetter('a');
    comes(PORT, 1, 5);
    tCpuDefendSlotEntry *slot = cpuDefendSlotEntryGet(1, 5);
    engine::setLevels(slot->cpuRatControl, {30, 0, 0});
    slot->policyMode = CPUDEFEND_CPURAT_CONTROL;
    goes(PORT);
    scripted::script.cpu[0] = {10}; // below the threshold: level 1
    scripted::calls.clear();
    advance(2000);
    EXPECT_EQ(engine::trail(), "");
    EXPECT_EQ(scripted::count(scripted::Call::CpuGet), 0u);
    comes(PORT, 1, 5); // sampled again
    advance(500);
    EXPECT_EQ(engine::trail(), "+a@1/5 sync(1/5=1)");
}

TEST_F(Cards, BindingIsForgottenAlsoWhenTheHardwareDoesNotLetGo)
{
    engine::addLetter('a');
    comes(PORT, 1, 5);
    tCpuDefendSlotEntry *slot = cpuDefendSlotEntryGet(1, 5);
    engine::bind(slot, "a");
    cpuDefendFollow();
    scripted::script.failAll[scripted::Call::AclDel] = 5;
    goes(PORT);
    EXPECT_EQ(slots(), "");
    EXPECT_EQ(slot->policyEntry, nullptr);
    EXPECT_EQ(slot->policyNameLen, 0);
    EXPECT_EQ(findPolicy("a")->refCount, 0u);
}

TEST_F(Cards, FullPoolLeavesASlotWaitingForAnotherOneToGo)
{
    comes(PORT, 1, 1);
    comes(PORT + 1, 1, 2);
    testing::internal::CaptureStderr();
    comes(PORT + 2, 1, 3);
    comes(PORT + 3, 1, 4);
    comes(PORT + 2, 1, 3); // some change of it
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[cpuDefend] slot 1/3 is not protected: all 2 slot records are taken\r\n"
              "[cpuDefend] slot 1/4 is not protected: all 2 slot records are taken\r\n");
    EXPECT_EQ(slots(), "1/1 1/2");
    goes(PORT);
    EXPECT_EQ(slots(), "1/2 1/3");
    goes(PORT + 3); // while it waits
    goes(PORT + 1);
    EXPECT_EQ(slots(), "1/3");
}

TEST_F(Cards, StartUpForgetsThePortsOfAnEarlierLife)
{
    comes(PORT, 1, 5);
    restart(8, 2);
    comes(PORT + 1, 1, 6);
    EXPECT_EQ(slots(), "1/6");
    goes(PORT);
    EXPECT_EQ(slots(), "1/6");
}
