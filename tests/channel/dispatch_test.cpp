// Requests handed to the dispatcher in process: what it decodes, refuses, answers and prints.

#include <gtest/gtest.h>

#include <cstdio>
#include <numeric>

#include "cpuDefend.h"
#include "cpuDefend_nm_api.h"
#include "diagnostics.h"
#include "guarded.h"
#include "request.h"
#include "scripted_hw.h"

using namespace channel;

namespace
{

constexpr int32_t NO_SUCH_ENTRY = 0x03E80002;
constexpr int32_t NO_SUCH_NAME = 0x041E0004;

/** For failures that can be read. */
std::string hex(const Bytes &data)
{
    std::string text;
    for (size_t i = 0; i < data.size(); ++i) {
        char digits[4];
        snprintf(digits, sizeof digits, i % 4 ? "%02x" : " %02x", data[i]);
        text += digits;
    }
    return text;
}

struct Outcome {
    uint32_t length; /**< of the reply; 0 for a malformed request */
    Bytes body;      /**< the buffer afterwards */
};

class Dispatch : public testing::Test
{
protected:
    void SetUp() override
    {
        scripted::reset();
        ASSERT_EQ(0, cpuDefendInit(4, 2));
    }
    void TearDown() override { cpuDefendRelease(); }

    static Outcome process(const Bytes &body)
    {
        Guarded buffer(body);
        const uint32_t length =
            cpudefendCmdProcess(buffer.data(), static_cast<uint32_t>(body.size()));
        EXPECT_TRUE(buffer.intact());
        return {length, buffer.content()};
    }

    static int32_t codeOf(const Bytes &reply)
    {
        uint32_t code = 0;
        for (size_t i = 0; i < 4; ++i)
            code = code << 8 | reply[CODE_AT + i];
        return static_cast<int32_t>(code);
    }

    static void expectReply(const Bytes &expected, const Bytes &body)
    {
        const Outcome outcome = process(body);
        EXPECT_EQ(body.size(), outcome.length);
        EXPECT_EQ(hex(expected), hex(outcome.body));
    }

    /**
     * @a text is answered. It was first put where the request's bytes stand, one byte further
     * on, so its last byte is seen once more behind it.
     */
    static void expectText(const std::string &text, const Bytes &body, const Index &index)
    {
        Bytes expected = over(body, valueAt(index) + 4, bytes(text));
        expected = answered(expected, index, octetsItem(text));
        expectReply(expected, body);
    }

    /** The return code is written and nothing else. */
    static void expectCode(int32_t code, const Bytes &body)
    {
        expectReply(withCode(body, code), body);
    }

    static void expectMalformed(const Bytes &body) { EXPECT_EQ(0u, process(body).length); }

    /** What the daemon prints for a request while debugging is on, line numbers as "N". */
    static std::string messages(const Bytes &body)
    {
        gCpuDefend.cpuDefendDebug = 1;
        testing::internal::CaptureStderr();
        process(body);
        gCpuDefend.cpuDefendDebug = 0;
        return withoutLines(testing::internal::GetCapturedStderr());
    }

    /** Malformed; @a text says so while debugging is on, and nothing does otherwise. */
    static void expectMalformed(const Bytes &body, const std::string &text)
    {
        EXPECT_EQ(text, messages(body));
        testing::internal::CaptureStderr();
        expectMalformed(body);
        EXPECT_EQ("", testing::internal::GetCapturedStderr());
    }

    static int32_t set(uint32_t code, uint32_t attribute, const Index &index, const Value &value)
    {
        return codeOf(process(request(code, attribute, index, value)).body);
    }

    static void createRule(const std::string &policy, uint32_t index)
    {
        ASSERT_EQ(0, set(CPUDEFEND_USERDEFINED_SETAPI, CPUDEFEND_USERDEFINED_ENTRYSTATUS,
                         childIndex(policy, index), number(CPUDEFEND_ROW_CREATE)));
    }

    /** No request makes a slot or a traced source: put one where the tables have theirs. */
    static void addSlot(uint32_t sysId, uint32_t slotId)
    {
        ASSERT_NE(nullptr, cpuDefendSlotEntryAdd(sysId, slotId));
    }
    static tCpuDefendSrcTraceEntry *addSource(uint32_t ifUnit, const Bytes &srcIp, uint8_t pktType,
                                              const Bytes &srcMac)
    {
        return cpuDefendSrcTraceEntryAdd(ifUnit, srcIp.data(), pktType, srcMac.data());
    }

    static void createPolicy(const std::string &name)
    {
        ASSERT_EQ(0, set(CPUDEFEND_POLICY_SETAPI, CPUDEFEND_POLICY_ENTRYSTATUS, policyIndex(name),
                         number(CPUDEFEND_ROW_CREATE)));
    }
};

/** The same for each of a row of function codes, on a state that starts fresh. */
class EveryCode : public Dispatch
{
protected:
    explicit EveryCode(std::vector<uint32_t> codes = from(1, CPUDEFEND_FUNC_MAX))
        : codes_(std::move(codes))
    {
    }

    static std::vector<uint32_t> from(uint32_t first, uint32_t last)
    {
        std::vector<uint32_t> codes(last - first + 1);
        std::iota(codes.begin(), codes.end(), first);
        return codes;
    }

    template <typename Check> void forEach(Check check)
    {
        for (uint32_t code : codes_) {
            SCOPED_TRACE("code " + std::to_string(code));
            code_ = code;
            cpuDefendRelease();
            ASSERT_EQ(0, cpuDefendInit(4, 2));
            check();
        }
    }

    uint32_t code() const { return code_; }
    Index index() const { return anyIndex(code()); }
    Bytes plain() const { return request(code(), 0, index(), number(1)); }

private:
    std::vector<uint32_t> codes_;
    uint32_t code_ = 0;
};

std::string charVal(int value)
{
    return "\r\n charVal " + std::to_string(value) + " err in func cpudefendCmdProcess in line N!";
}

std::string shortVal(int value)
{
    return "\r\n shortVal " + std::to_string(value) + " err in func cpudefendCmdProcess in line N!";
}

// ---- Decoding ------------------------------------------------------------------------------

TEST_F(EveryCode, AWellFormedRequestIsAnsweredAtItsOwnLength)
{
    forEach([this] {
        const Bytes body = request(code(), 0, index(), number(1), 60);
        const Outcome outcome = process(body);
        EXPECT_EQ(body.size(), outcome.length);
        EXPECT_NE(static_cast<int32_t>(CODE_AS_SENT), codeOf(outcome.body));
    });
}

TEST_F(EveryCode, OnlyTheCodeAndTheAnswersPlaceAreWritten)
{
    forEach([this] {
        const Bytes body = request(code(), 0, index(), number(1), 200);
        const Bytes reply = process(body).body;
        const size_t untouched = valueAt(index());
        EXPECT_EQ(Bytes(body.begin(), body.begin() + CODE_AT),
                  Bytes(reply.begin(), reply.begin() + CODE_AT));
        EXPECT_EQ(Bytes(body.begin() + CODE_AT + 4, body.begin() + untouched),
                  Bytes(reply.begin() + CODE_AT + 4, reply.begin() + untouched));
        EXPECT_EQ(Bytes(body.end() - 100, body.end()), Bytes(reply.end() - 100, reply.end()));
    });
}

TEST_F(EveryCode, ARequestCutAnywhereIsMalformed)
{
    forEach([this] {
        for (const Value &value : {number(1), counter(1, 2), octets("abc")}) {
            const Bytes body = request(code(), 0, index(), value);
            for (size_t length = 0; length < body.size(); ++length) {
                SCOPED_TRACE(length);
                expectMalformed(Bytes(body.begin(), body.begin() + static_cast<long>(length)));
            }
        }
    });
}

TEST_F(EveryCode, AWrongIndexMarkerIsMalformed)
{
    forEach([this] {
        for (uint8_t marker : {0, 2, 3, 255})
            expectMalformed(over(plain(), MARKER_AT, {marker}), charVal(marker));
    });
}

TEST_F(EveryCode, AWrongIndexCountIsMalformed)
{
    forEach([this] {
        const std::string blanks = code() <= 3 ? "  " : " ";
        for (uint8_t count = 0; count < 7; ++count)
            if (count != index().count)
                expectMalformed(over(plain(), COUNT_AT, {count}),
                                "\r\n" + blanks + "indexNum " + std::to_string(count) +
                                    " err in func cpudefendCmdProcess in line N!");
    });
}

TEST_F(EveryCode, AWrongValueMarkerIsMalformed)
{
    forEach([this] {
        for (uint8_t marker : {0, 1, 2, 4, 255})
            expectMalformed(over(plain(), valueAt(index()), {marker}), charVal(marker));
    });
}

TEST_F(EveryCode, AnIntegerThatIsNotFourBytesLongIsMalformed)
{
    forEach([this] {
        for (uint16_t length : {0, 3, 5, 8, 65535})
            expectMalformed(request(code(), 0, index(), {2, length, be32(1)}, 8), shortVal(length));
    });
}

TEST_F(EveryCode, ACounterThatIsNotEightBytesLongIsMalformed)
{
    forEach([this] {
        for (uint16_t length : {0, 4, 7, 9, 65535})
            expectMalformed(request(code(), 0, index(), {4, length, be32(1) + be32(2)}, 8),
                            shortVal(length));
    });
}

TEST_F(EveryCode, AnOctetStringPastTheEndIsMalformed)
{
    forEach([this] {
        for (uint16_t length : {4, 5, 1518, 65535})
            expectMalformed(request(code(), 0, index(), {0, length, bytes("abc")}));
    });
}

TEST_F(EveryCode, AValueOfUnknownTypePastTheEndIsMalformed)
{
    forEach([this] {
        expectMalformed(request(code(), 0, index(), {9, 4, bytes("abc")}));
        const Bytes whole = request(code(), 0, index(), {9, 3, bytes("abc")});
        EXPECT_EQ(whole.size(), process(whole).length);
    });
}

TEST_F(EveryCode, HeadsOfIndexItemsAreSkippedUnread)
{
    forEach([this] {
        const Bytes body = plain();
        EXPECT_EQ(body.size(), process(over(body, ITEMS_AT, {0xFF, 0xFF, 0xFF})).length);
    });
}

TEST_F(EveryCode, RequestsThatAreFineSayNothing)
{
    forEach([this] { EXPECT_EQ("", messages(plain())); });
}

TEST_F(Dispatch, ARequestOfTwentyFiveBytesIsTooShort)
{
    Bytes body = request(CPUDEFEND_POLICY_GETFIRST, 0, policyIndex(""), number(0));
    body.resize(25);
    expectMalformed(body, "\r\n  lenRx 25 err in func cpudefendCmdProcess in line N!");
}

TEST_F(Dispatch, AnEmptyRequestIsTooShort)
{
    expectMalformed({}, "\r\n  lenRx 0 err in func cpudefendCmdProcess in line N!");
}

TEST_F(Dispatch, TwentySixBytesAreReadOn)
{
    Bytes body = request(CPUDEFEND_POLICY_GETFIRST, 0, policyIndex(""), number(0));
    body.resize(26);
    expectMalformed(over(body, MARKER_AT, {9}), charVal(9));
}

TEST_F(Dispatch, FunctionCodesOutsideTheirRangeArePrintedAsNumbers)
{
    for (uint32_t code : {0u, 27u, 1000u})
        expectMalformed(request(code, 0, globalIndex(), number(0)),
                        "\r\n func " + std::to_string(code) +
                            " err in func cpudefendCmdProcess in line N!");
    for (uint32_t code : {0x80000001u, 0xFFFFFFFFu, 0x01000000u, 257u})
        expectMalformed(request(code, 0, globalIndex(), number(0)));
}

TEST_F(Dispatch, TheIndexMarkerIsCheckedBeforeTheFunctionCode)
{
    expectMalformed(over(request(27, 0, globalIndex(), number(0)), MARKER_AT, {7}), charVal(7));
}

TEST_F(Dispatch, TheFunctionCodeIsCheckedBeforeTheIndexCount)
{
    expectMalformed(over(request(27, 0, globalIndex(), number(0)), COUNT_AT, {9}),
                    "\r\n func 27 err in func cpudefendCmdProcess in line N!");
}

TEST_F(Dispatch, TheGlobalUnitIsReadThoughItsCountIsZero)
{
    const Index without{0, {}};
    expectMalformed(
        request(CPUDEFEND_GLOBAL_GETAPI, CPUDEFEND_GLOBAL_DEBUG, without, number(0), 7));
}

TEST_F(Dispatch, TheGlobalUnitIsNotUsed)
{
    const Index index = globalIndex(0xDEADBEEF);
    const Bytes body =
        request(CPUDEFEND_GLOBAL_GETAPI, CPUDEFEND_GLOBAL_MAXPOLICYNUM, index, number(0));
    expectReply(answered(body, index, numberItem(4)), body);
}

TEST_F(Dispatch, ALongestRequestIsAnsweredWhole)
{
    const Index index = globalIndex();
    Bytes body = request(CPUDEFEND_GLOBAL_GETAPI, CPUDEFEND_GLOBAL_MAXSLOTNUM, index, number(0));
    body.resize(CPUDEFEND_CMD_MAXLEN, 0xAA);
    expectReply(answered(body, index, numberItem(2)), body);
}

// ---- Names ---------------------------------------------------------------------------------

/** The codes whose index holds a policy name. */
class NamedCode : public EveryCode
{
protected:
    NamedCode() : EveryCode(from(CPUDEFEND_POLICY_GETFIRST, CPUDEFEND_CARPKT_SYNCAPI)) {}

    Index named(uint32_t length, const std::string &name) const
    {
        Index made = code() <= 13 ? policyIndex(name) : childIndex(name, 1);
        const Bytes lie = be32(length);
        std::copy(lie.begin(), lie.end(), made.items.begin() + 3);
        return made;
    }
};

TEST_F(NamedCode, ANameOfThirtyTwoBytesIsRead)
{
    forEach([this] {
        const Index longest = named(32, std::string(32, 'n'));
        const Bytes body = request(code(), 0, longest, number(0));
        EXPECT_EQ(body.size(), process(body).length);
    });
}

TEST_F(NamedCode, ALongerNameIsMalformed)
{
    forEach([this] {
        for (uint32_t length : {33u, 64u, 255u, 256u + 7u})
            expectMalformed(request(code(), 0, named(length, std::string(length, 'n')), number(0)));
    });
}

TEST_F(NamedCode, ANameOfNegativeLengthIsMalformed)
{
    forEach([this] {
        for (uint32_t length : {0xFFFFFFFFu, 0x80000000u, 0xFFFFFFE0u})
            expectMalformed(request(code(), 0, named(length, "default"), number(0), 60));
    });
}

TEST_F(NamedCode, ANameOfHugeLengthIsMalformed)
{
    forEach([this] {
        for (uint32_t length : {0x7FFFFFFFu, 0x10000u, 0x01000007u})
            expectMalformed(request(code(), 0, named(length, "default"), number(0), 60));
    });
}

TEST_F(NamedCode, ANamePastTheEndIsMalformed)
{
    forEach([this] {
        Bytes body = request(code(), 0, named(32, "default"), number(0), 0);
        body.resize(ITEMS_AT + 10 + 31);
        expectMalformed(body);
    });
}

TEST_F(NamedCode, AnEmptyNameIsAName)
{
    forEach([this] {
        const Bytes body = request(code(), 0, named(0, ""), number(0));
        EXPECT_EQ(body.size(), process(body).length);
    });
}

TEST_F(Dispatch, ALongestNameNamesItsPolicy)
{
    const std::string name(32, 'n');
    createPolicy(name);
    const Bytes body = request(CPUDEFEND_POLICY_GETAPI, CPUDEFEND_POLICY_ENTRYSTATUS,
                               policyIndex(name), number(0));
    expectReply(answered(body, policyIndex(name), numberItem(3)), body);
}

// ---- Get: the answer comes in the request's type ---------------------------------------------

TEST_F(Dispatch, GetAnswersAnIntegerAsOne)
{
    const Index index = policyIndex("default");
    const Bytes body =
        request(CPUDEFEND_POLICY_GETAPI, CPUDEFEND_POLICY_WHITELISTIP4CBS, index, number(7));
    const Bytes reply = process(body).body;
    EXPECT_EQ(answered(body, index, numberItem(6400)), reply);
    EXPECT_EQ(7, reply.back()) << "the answer is a byte shorter than the value section it covers";
}

TEST_F(Dispatch, GetAnswersACounterWithTheIntegerAsItsHighWord)
{
    const Index index = policyIndex("default");
    const Bytes body = request(CPUDEFEND_POLICY_GETAPI, CPUDEFEND_POLICY_WHITELISTIP4CBS, index,
                               counter(1, 0xCAFEF00D));
    expectReply(answered(body, index, counterItem(6400, 0xCAFEF00D)), body);
}

TEST_F(Dispatch, GetAnswersBytesAsFarAsAskedFor)
{
    ASSERT_EQ(
        0, set(CPUDEFEND_GLOBAL_SETAPI, CPUDEFEND_GLOBAL_POLICY, globalIndex(), octets("default")));
    const Index index = globalIndex();
    const struct {
        std::string asked, answer;
    } cases[] = {
        {"", ""}, {"xyz", "def"}, {"xyzxyzx", "default"}, {std::string(60, 'x'), "default"}};
    for (const auto &[asked, answer] : cases) {
        const Bytes body =
            request(CPUDEFEND_GLOBAL_GETAPI, CPUDEFEND_GLOBAL_POLICY, index, octets(asked));
        expectText(answer, body, index);
    }
}

TEST_F(Dispatch, BytesAnsweredOverTheirOwnSourceArriveWhole)
{
    const std::string text = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ+-";
    const Index index = policyIndex("default");
    ASSERT_EQ(0, set(CPUDEFEND_POLICY_SETAPI, CPUDEFEND_POLICY_DESCRIPTION, index, octets(text)));
    const Bytes body = request(CPUDEFEND_POLICY_GETAPI, CPUDEFEND_POLICY_DESCRIPTION, index,
                               octets(std::string(64, '.')));
    expectText(text, body, index);
}

TEST_F(Dispatch, AGetThatFailsLeavesTheValueAsItWas)
{
    for (const Value &value : {number(0x01020304), counter(1, 2)}) {
        expectCode(NO_SUCH_ENTRY, request(CPUDEFEND_POLICY_GETAPI, CPUDEFEND_POLICY_PRIORITY + 1,
                                          policyIndex("nobody"), value, 20));
        expectCode(NO_SUCH_ENTRY, request(CPUDEFEND_CARPKT_GETAPI, CPUDEFEND_CARPKT_CIR,
                                          childIndex("default", 10), value, 20));
        expectCode(-1, request(CPUDEFEND_GLOBAL_GETAPI, CPUDEFEND_GLOBAL_RESETSRCTRACE,
                               globalIndex(), value, 20));
    }
    expectCode(NO_SUCH_ENTRY, request(CPUDEFEND_POLICY_GETAPI, CPUDEFEND_POLICY_DESCRIPTION,
                                      policyIndex("nobody"), octets("as it was"), 20));
}

TEST_F(Dispatch, EveryReadOnlyGlobalCountIsAnswered)
{
    const uint32_t counts[] = {4, 32, 40, 4, 2, 1, 0, 10, 0, 0};
    const Index index = globalIndex();
    for (uint32_t i = 0; i < 10; ++i) {
        const Bytes body =
            request(CPUDEFEND_GLOBAL_GETAPI, CPUDEFEND_GLOBAL_MAXPOLICYNUM + i, index, number(99));
        expectReply(answered(body, index, numberItem(counts[i])), body);
    }
}

// ---- Walks -----------------------------------------------------------------------------------

TEST_F(Dispatch, PolicyWalkAnswersLengthAndName)
{
    createPolicy("edge");
    const Index start = policyIndex("");
    const Bytes first = request(CPUDEFEND_POLICY_GETFIRST, 0, start, number(0), 40);
    expectReply(answered(first, start, numberItem(7) + octetsItem("default")), first);
    const Index from = policyIndex("default");
    const Bytes next = request(CPUDEFEND_POLICY_GETNEXT, 0, from, number(0), 40);
    expectReply(answered(next, from, numberItem(4) + octetsItem("edge")), next);
}

TEST_F(Dispatch, CarPktWalkAnswersLengthNameAndType)
{
    const Index start = childIndex("", 0);
    const Bytes first = request(CPUDEFEND_CARPKT_GETFIRST, 0, start, number(0), 40);
    const Bytes name = numberItem(7) + octetsItem("default");
    expectReply(answered(first, start, name + numberItem(0)), first);
    const Index from = childIndex("default", 8);
    const Bytes next = request(CPUDEFEND_CARPKT_GETNEXT, 0, from, number(0), 40);
    expectReply(answered(next, from, name + numberItem(9)), next);
}

TEST_F(Dispatch, TheEndOfAWalkWritesOnlyTheCode)
{
    expectCode(-1, request(CPUDEFEND_POLICY_GETNEXT, 0, policyIndex("default"), number(0), 40));
    expectCode(-1, request(CPUDEFEND_CARPKT_GETNEXT, 0, childIndex("default", 9), number(0), 40));
}

TEST_F(Dispatch, WalksAskForNoValue)
{
    const Index start = policyIndex("");
    for (const Value &value : {unknown(), octets(""), counter(0, 0), octets("whatever")}) {
        const Bytes body = request(CPUDEFEND_POLICY_GETFIRST, 0, start, value, 40);
        expectReply(answered(body, start, numberItem(7) + octetsItem("default")), body);
    }
}

TEST_F(Dispatch, AnAnswerIsCutOffAtTheRequestsEnd)
{
    const Index start = childIndex("", 0);
    const Bytes answer = numberItem(7) + octetsItem("default") + numberItem(0);
    for (size_t room = 0; room < 30; ++room) {
        SCOPED_TRACE(room);
        const Bytes body = request(CPUDEFEND_CARPKT_GETFIRST, 0, start, octets(""), room);
        expectReply(answered(body, start, answer), body);
    }
}

TEST_F(Dispatch, SlotWalkAnswersTwoNumbers)
{
    addSlot(1, 5);
    addSlot(2, 3);
    const Index start = slotIndex(0, 0);
    const Bytes first = request(CPUDEFEND_SLOT_GETFIRST, 0, start, number(0), 20);
    expectReply(answered(first, start, numberItem(1) + numberItem(5)), first);
    const Index from = slotIndex(1, 5);
    const Bytes next = request(CPUDEFEND_SLOT_GETNEXT, 0, from, number(0), 20);
    expectReply(answered(next, from, numberItem(2) + numberItem(3)), next);
    const Bytes cut = request(CPUDEFEND_SLOT_GETNEXT, 0, from, number(0));
    expectReply(answered(cut, from, numberItem(2) + numberItem(3)), cut);
}

TEST_F(Dispatch, SlotWalkAskedForAnotherTypeWritesOnlyTheCode)
{
    addSlot(1, 5);
    addSlot(2, 3);
    for (const Value &value : {octets(""), octets("bytes"), counter(1, 2), unknown(), unknown(3)}) {
        expectCode(0, request(CPUDEFEND_SLOT_GETFIRST, 0, slotIndex(7, 8), value, 20));
        expectCode(0, request(CPUDEFEND_SLOT_GETNEXT, 0, slotIndex(1, 5), value, 20));
    }
}

TEST_F(Dispatch, SlotsBehindAGreaterOneAreNotWalked)
{
    addSlot(1, 5);
    addSlot(1, 2);
    expectCode(-1, request(CPUDEFEND_SLOT_GETNEXT, 0, slotIndex(1, 5), number(0), 20));
}

TEST_F(Dispatch, UserDefinedWalkAnswersLengthNameAndIndex)
{
    createRule("default", 9);
    createRule("default", 4);
    const Bytes name = numberItem(7) + octetsItem("default");
    for (const Value &value : {number(0), octets(""), counter(0, 0), unknown()}) {
        const Index start = childIndex("", 0);
        const Bytes first = request(CPUDEFEND_USERDEFINED_GETFIRST, 0, start, value, 40);
        expectReply(answered(first, start, name + numberItem(4)), first);
        const Index from = childIndex("default", 4);
        const Bytes next = request(CPUDEFEND_USERDEFINED_GETNEXT, 0, from, value, 40);
        expectReply(answered(next, from, name + numberItem(9)), next);
    }
}

const Bytes ip{10, 0, 0, 1}, mac{2, 0, 0, 0, 0, 1}, otherMac{2, 0, 0, 0, 0, 2};

/** The items of a traced source, as a walk answers them. */
Bytes sourceItems(uint32_t ifUnit, uint8_t pktType, const Bytes &srcMac, uint8_t searchBit)
{
    return srcTraceIndex(ifUnit, ip, pktType, srcMac, searchBit).items;
}

TEST_F(Dispatch, SrcTraceWalkAnswersFiveItems)
{
    addSource(7, ip, 1, mac);
    addSource(0x01020304, ip, 11, otherMac);
    for (const Value &value : {number(0), octets(""), counter(0, 0), unknown()}) {
        const Index start = srcTraceIndex(0, {0, 0, 0, 0}, 0, {0, 0, 0, 0, 0, 0}, 0);
        const Bytes first = request(CPUDEFEND_SRCTRACE_GETFIRST, 0, start, value, 60);
        expectReply(answered(first, start, sourceItems(7, 1, mac, 0)), first);
        const Index from = srcTraceIndex(7, ip, 1, mac, 0);
        const Bytes next = request(CPUDEFEND_SRCTRACE_GETNEXT, 0, from, value, 60);
        expectReply(answered(next, from, sourceItems(0x01020304, 11, otherMac, 0)), next);
    }
}

TEST_F(Dispatch, SrcTraceWalkHonoursItsFilterAndGivesItBack)
{
    addSource(7, ip, 1, mac);
    addSource(7, ip, 11, mac);
    addSource(8, ip, 1, otherMac);
    const Index start = srcTraceIndex(99, ip, 1, mac, 0x2F);
    const Bytes first = request(CPUDEFEND_SRCTRACE_GETFIRST, 0, start, number(0), 60);
    expectReply(answered(first, start, sourceItems(7, 1, mac, 0x2F)), first);
    const Index from = srcTraceIndex(7, ip, 1, mac, 0x2F);
    const Bytes next = request(CPUDEFEND_SRCTRACE_GETNEXT, 0, from, number(0), 60);
    expectReply(answered(next, from, sourceItems(8, 1, otherMac, 0x2F)), next);
    const Index last = srcTraceIndex(8, ip, 1, otherMac, 0x20);
    expectCode(NO_SUCH_ENTRY, request(CPUDEFEND_SRCTRACE_GETNEXT, 0, last, number(0), 60));
}

TEST_F(Dispatch, SrcTraceAnswersAreCutOffAtTheRequestsEnd)
{
    addSource(7, ip, 1, mac);
    const Index start = srcTraceIndex(0, ip, 0, mac, 0);
    for (size_t room = 0; room < 40; ++room) {
        const Bytes body = request(CPUDEFEND_SRCTRACE_GETFIRST, 0, start, octets(""), room);
        expectReply(answered(body, start, sourceItems(7, 1, mac, 0)), body);
    }
}

TEST_F(Dispatch, WalksOfEmptyTablesWriteOnlyTheCode)
{
    for (uint32_t code : {CPUDEFEND_SLOT_GETFIRST, CPUDEFEND_SLOT_GETNEXT,
                          CPUDEFEND_USERDEFINED_GETFIRST, CPUDEFEND_USERDEFINED_GETNEXT})
        expectCode(-1, request(code, 0, anyIndex(code), number(1), 60));
    for (uint32_t code : {CPUDEFEND_SRCTRACE_GETFIRST, CPUDEFEND_SRCTRACE_GETNEXT})
        expectCode(NO_SUCH_ENTRY, request(code, 0, anyIndex(code), number(1), 60));
}

// ---- Slots, rules and traced sources ---------------------------------------------------------

TEST_F(Dispatch, SlotAttributesAreSetAndRead)
{
    addSlot(1, 2);
    const Index slot = slotIndex(1, 2);
    const struct {
        uint32_t id;
        Value sent;
        Bytes answer;
    } cases[] = {{CPUDEFEND_SLOT_POLICY, octets("default"), octetsItem("default")},
                 {CPUDEFEND_SLOT_POLICYMODE, number(0x101), numberItem(1)},
                 {CPUDEFEND_SLOT_L1CPURAT, number(300), numberItem(44)},
                 {CPUDEFEND_SLOT_L1POLICYNAME, octets("default"), octetsItem("default")},
                 {CPUDEFEND_SLOT_L2CPURAT, number(60), numberItem(60)},
                 {CPUDEFEND_SLOT_L2POLICYNAME, octets("default"), octetsItem("default")},
                 {CPUDEFEND_SLOT_L3CPURAT, number(90), numberItem(90)},
                 {CPUDEFEND_SLOT_L3POLICYNAME, octets("default"), octetsItem("default")}};
    for (uint32_t code : {CPUDEFEND_SLOT_SETAPI, CPUDEFEND_SLOT_SYNCAPI})
        for (const auto &[id, sent, answer] : cases) {
            SCOPED_TRACE(id);
            expectCode(0, request(code, id, slot, sent, 12));
            const bool isName = sent.type == 0;
            const Bytes get =
                request(CPUDEFEND_SLOT_GETAPI, id, slot, isName ? octets("???????") : number(0));
            if (isName)
                expectText("default", get, slot);
            else
                expectReply(answered(get, slot, answer), get);
        }
}

TEST_F(Dispatch, AnUnknownSlotIs19)
{
    addSlot(1, 2);
    for (uint32_t code : {CPUDEFEND_SLOT_GETAPI, CPUDEFEND_SLOT_SETAPI, CPUDEFEND_SLOT_SYNCAPI})
        for (const Index &index :
             {slotIndex(2, 1), slotIndex(1, 0x102), slotIndex(0x80000001, 2)}) {
            expectCode(19, request(code, CPUDEFEND_SLOT_POLICYMODE, index, number(7), 12));
            expectCode(19, request(code, CPUDEFEND_SLOT_POLICY, index, octets("default"), 12));
            expectCode(19, request(code, CPUDEFEND_SLOT_RESETSRCTRACE, index, counter(1, 2), 12));
            expectCode(19, request(code, 77, index, octets("x"), 12));
        }
}

TEST_F(Dispatch, UserDefinedAttributesAreSetAndRead)
{
    createRule("default", 7);
    const Index rule = childIndex("default", 7);
    const struct {
        uint32_t id, sent, kept;
    } cases[] = {{CPUDEFEND_USERDEFINED_DENY, 0x80000001, 1},
                 {CPUDEFEND_USERDEFINED_IP4ACL, 70000, 4464},
                 {CPUDEFEND_USERDEFINED_IP6ACL, 0xFFFF8001, 0x8001},
                 {CPUDEFEND_USERDEFINED_CIR, 0xFFFFFFFE, 0xFFFFFFFE},
                 {CPUDEFEND_USERDEFINEDT_CBS, 0x01020304, 0x01020304},
                 {CPUDEFEND_USERDEFINED_ENTRYSTATUS, CPUDEFEND_ROW_ACTIVATE, 1}};
    for (uint32_t code : {CPUDEFEND_USERDEFINED_SETAPI, CPUDEFEND_USERDEFINED_SYNCAPI})
        for (const auto &[id, sent, kept] : cases) {
            expectCode(0, request(code, id, rule, number(sent), 12));
            const Bytes get = request(CPUDEFEND_USERDEFINED_GETAPI, id, rule, number(0));
            expectReply(answered(get, rule, numberItem(kept)), get);
        }
    expectCode(0, request(CPUDEFEND_USERDEFINED_SETAPI, CPUDEFEND_USERDEFINED_ENTRYSTATUS, rule,
                          number(CPUDEFEND_ROW_DESTROY)));
    expectCode(NO_SUCH_ENTRY, request(CPUDEFEND_USERDEFINED_GETAPI, CPUDEFEND_USERDEFINED_CIR, rule,
                                      number(77), 12));
}

TEST_F(Dispatch, ARuleForAPolicyThatDoesNotExistIsRefused)
{
    expectCode(0x03E80008, request(CPUDEFEND_USERDEFINED_SETAPI, CPUDEFEND_USERDEFINED_ENTRYSTATUS,
                                   childIndex("nobody", 1), number(CPUDEFEND_ROW_CREATE)));
}

TEST_F(Dispatch, RulesOfABoundPolicyAreRefused)
{
    ASSERT_EQ(
        0, set(CPUDEFEND_GLOBAL_SETAPI, CPUDEFEND_GLOBAL_POLICY, globalIndex(), octets("default")));
    expectCode(0x041E0005, request(CPUDEFEND_USERDEFINED_SETAPI, CPUDEFEND_USERDEFINED_ENTRYSTATUS,
                                   childIndex("default", 1), number(CPUDEFEND_ROW_CREATE)));
}

class Traced : public Dispatch
{
protected:
    void SetUp() override
    {
        Dispatch::SetUp();
        entry = addSource(7, ip, 1, mac);
        entry->outerVlan = 0xFFF1;
        entry->innerVlan = 2;
        entry->totalNum = 0x89ABCDEF;
        for (uint8_t i = 0; i < 80; ++i)
            entry->pktData[i] = static_cast<uint8_t>(200 - i);
        for (uint8_t i = 0; i < 4; ++i)
            entry->dstIp[i] = static_cast<uint8_t>(0xF1 + i);
    }

    const Index index = srcTraceIndex(7, ip, 1, mac, 0);
    tCpuDefendSrcTraceEntry *entry;
};

TEST_F(Traced, NumbersAreRead)
{
    const std::pair<uint32_t, uint32_t> numbers[] = {{CPUDEFEND_SRCTRACE_OUTERVLAN, 0xFFF1},
                                                     {CPUDEFEND_SRCTRACE_INNERVLAN, 2},
                                                     {CPUDEFEND_SRCTRACE_TOTALNUM, 0x89ABCDEF}};
    for (const auto &[id, value] : numbers) {
        const Bytes body = request(CPUDEFEND_SRCTRACE_GETAPI, id, index, number(0));
        expectReply(answered(body, index, numberItem(value)), body);
        const Bytes wide = request(CPUDEFEND_SRCTRACE_GETAPI, id, index, counter(1, 0x0BADCAFE));
        expectReply(answered(wide, index, counterItem(value, 0x0BADCAFE)), wide);
    }
}

TEST_F(Traced, TheDestinationIsFourBytesWhateverWasAskedFor)
{
    for (size_t asked = 0; asked < 12; ++asked) {
        SCOPED_TRACE(asked);
        expectText("\xF1\xF2\xF3\xF4",
                   request(CPUDEFEND_SRCTRACE_GETAPI, CPUDEFEND_SRCTRACE_DSTIP, index,
                           octets(std::string(asked, 'x')), 8),
                   index);
    }
}

TEST_F(Traced, ADestinationAskedForAtTheVeryEndIsCutOffThere)
{
    for (size_t asked = 0; asked < 4; ++asked) {
        expectText("\xF1\xF2\xF3\xF4",
                   request(CPUDEFEND_SRCTRACE_GETAPI, CPUDEFEND_SRCTRACE_DSTIP, index,
                           octets(std::string(asked, 'x'))),
                   index);
    }
}

TEST_F(Traced, PacketDataIsReadUpTo80Bytes)
{
    const std::string data(entry->pktData, entry->pktData + 80);
    for (size_t asked : {0u, 1u, 3u, 4u, 10u, 79u, 80u, 200u, 1400u})
        expectText(data.substr(0, asked),
                   request(CPUDEFEND_SRCTRACE_GETAPI, CPUDEFEND_SRCTRACE_PTKDATA, index,
                           octets(std::string(asked, 'x')), 4),
                   index);
}

TEST_F(Traced, Interface0AndType0Are22)
{
    addSource(0, ip, 1, mac);
    addSource(7, ip, 0, mac);
    for (const Index &bad : {srcTraceIndex(0, ip, 1, mac, 0), srcTraceIndex(7, ip, 0, mac, 0)})
        for (uint32_t id : {0u, 4u, 5u, 99u})
            expectCode(22, request(CPUDEFEND_SRCTRACE_GETAPI, id, bad, number(7), 12));
}

TEST_F(Traced, TheResetOfTheSystemDeletesThem)
{
    for (const Value &value : {number(1), counter(1, 2), octets(""), octets("now")}) {
        ASSERT_NE(nullptr, addSource(8, ip, 1, mac));
        expectCode(0, request(CPUDEFEND_GLOBAL_SETAPI, CPUDEFEND_GLOBAL_RESETSRCTRACE,
                              globalIndex(), value, 12));
        EXPECT_EQ(0u, gCpuDefend.useSrcTraceNum);
    }
}

TEST_F(Traced, TheResetOfASlotDeletesItsOwn)
{
    addSlot(1, 2);
    entry->sysId = 1;
    entry->slotId = 2;
    ASSERT_EQ(0, set(CPUDEFEND_POLICY_SETAPI, CPUDEFEND_POLICY_SRCTRACEENABLE,
                     policyIndex("default"), number(1)));
    ASSERT_EQ(
        0, set(CPUDEFEND_SLOT_SETAPI, CPUDEFEND_SLOT_POLICY, slotIndex(1, 2), octets("default")));
    addSource(8, ip, 1, mac);
    EXPECT_EQ(0, set(CPUDEFEND_SLOT_SETAPI, CPUDEFEND_SLOT_RESETSRCTRACE, slotIndex(1, 2),
                     octets("any")));
    EXPECT_EQ(1u, gCpuDefend.useSrcTraceNum);
}

// ---- The standby's state ---------------------------------------------------------------------

std::string syncRecord(uint32_t sysId, uint32_t slotId, uint32_t position)
{
    const Bytes data = be32(sysId) + be32(slotId) + be32(position);
    return std::string(data.begin(), data.end());
}

TEST_F(Dispatch, SyncStateIsAppliedBySetAndSync)
{
    addSlot(1, 2);
    const std::string records =
        syncRecord(0, 0, 0x102) + syncRecord(1, 2, 3) + syncRecord(9, 9, 1) + "half";
    for (uint32_t code : {CPUDEFEND_GLOBAL_SETAPI, CPUDEFEND_GLOBAL_SYNCAPI}) {
        gCpuDefend.selectedPosition = 0;
        cpuDefendSlotEntryGet(1, 2)->selectedPosition = 0;
        expectCode(0, request(code, CPUDEFEND_GLOBAL_SYNCSTATE, globalIndex(), octets(records)));
        EXPECT_EQ(2, gCpuDefend.selectedPosition);
        EXPECT_EQ(3, cpuDefendSlotEntryGet(1, 2)->selectedPosition);
    }
    expectCode(-1, request(CPUDEFEND_GLOBAL_GETAPI, CPUDEFEND_GLOBAL_SYNCSTATE, globalIndex(),
                           octets(records)));
}

TEST_F(Dispatch, SyncStateOfAnyLengthIsASuccess)
{
    std::string records;
    for (uint32_t i = 0; i < 120; ++i)
        records += syncRecord(0, 0, i);
    for (size_t length : {0u, 1u, 11u, 12u, 13u, 23u, 1440u}) {
        gCpuDefend.selectedPosition = 200;
        expectCode(0, request(CPUDEFEND_GLOBAL_SETAPI, CPUDEFEND_GLOBAL_SYNCSTATE, globalIndex(),
                              octets(records.substr(0, length))));
        EXPECT_EQ(length < 12 ? 200 : length / 12 - 1, gCpuDefend.selectedPosition) << length;
    }
}

// ---- Set and sync ----------------------------------------------------------------------------

TEST_F(Dispatch, SetWritesOnlyTheCode)
{
    const Index policy = policyIndex("default");
    for (uint32_t code : {CPUDEFEND_POLICY_SETAPI, CPUDEFEND_POLICY_SYNCAPI}) {
        expectCode(0, request(code, CPUDEFEND_POLICY_WHITELISTIP4CIR, policy, number(100 + code)));
        expectCode(0, request(code, CPUDEFEND_POLICY_DESCRIPTION, policy, octets("text"), 40));
        expectCode(-1, request(code, CPUDEFEND_POLICY_REFCOUNT, policy, number(1)));
    }
    for (uint32_t code : {CPUDEFEND_CARPKT_SETAPI, CPUDEFEND_CARPKT_SYNCAPI})
        expectCode(
            0, request(code, CPUDEFEND_CARPKT_PPS, childIndex("default", 1), number(100 + code)));
    for (uint32_t code : {CPUDEFEND_GLOBAL_SETAPI, CPUDEFEND_GLOBAL_SYNCAPI})
        expectCode(NO_SUCH_NAME,
                   request(code, CPUDEFEND_GLOBAL_POLICY, globalIndex(), octets("nobody")));
}

TEST_F(Dispatch, SetStoresWhatTheNextGetAnswers)
{
    const Index index = childIndex("default", 1);
    ASSERT_EQ(0, set(CPUDEFEND_CARPKT_SETAPI, CPUDEFEND_CARPKT_PPS, index, number(0x81828384)));
    const Bytes body = request(CPUDEFEND_CARPKT_GETAPI, CPUDEFEND_CARPKT_PPS, index, number(0));
    expectReply(answered(body, index, numberItem(0x81828384)), body);
}

TEST_F(Dispatch, SetIsALocalChangeAndSyncAReplayedOne)
{
    const struct {
        uint32_t code, flag;
    } cases[] = {{CPUDEFEND_GLOBAL_SETAPI, 3u | ZYN_SYNC_OCTETS},
                 {CPUDEFEND_GLOBAL_SYNCAPI, 1u | ZYN_SYNC_OCTETS}};
    for (const auto &[code, flag] : cases) {
        scripted::reset();
        ASSERT_EQ(0, set(code, CPUDEFEND_GLOBAL_POLICY, globalIndex(),
                         octets(code == CPUDEFEND_GLOBAL_SETAPI ? "default" : "")));
        ASSERT_EQ(1u, scripted::count(scripted::Call::ScalarSync));
        for (const scripted::Record &record : scripted::calls)
            if (record.call == scripted::Call::ScalarSync) {
                EXPECT_EQ(8000u, record.cmd);
                EXPECT_EQ(flag, record.flag);
            }
    }
}

TEST_F(Dispatch, TheChannelTurnsDiagnosticsOnAndOff)
{
    ASSERT_EQ(0, set(CPUDEFEND_GLOBAL_SETAPI, CPUDEFEND_GLOBAL_DEBUG, globalIndex(), number(1)));
    testing::internal::CaptureStderr();
    process(request(27, 0, globalIndex(), number(0)));
    EXPECT_NE("", testing::internal::GetCapturedStderr());
    ASSERT_EQ(0, set(CPUDEFEND_GLOBAL_SETAPI, CPUDEFEND_GLOBAL_DEBUG, globalIndex(), number(2)));
    testing::internal::CaptureStderr();
    process(request(27, 0, globalIndex(), number(0)));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

// ---- Values that do not fit --------------------------------------------------------------------

/** One request for each way to get or change an attribute that exists. */
struct Access {
    uint32_t code;
    Index index;
};

std::vector<Access> accesses(uint32_t first, uint32_t last, const Index &index)
{
    std::vector<Access> made;
    for (uint32_t code = first; code <= last; ++code)
        made.push_back({code, index});
    return made;
}

struct Attribute {
    std::vector<Access> by;
    uint32_t id;
};

std::vector<Attribute> attributes(const std::vector<Access> &by, const std::vector<uint32_t> &ids)
{
    std::vector<Attribute> made;
    for (uint32_t id : ids)
        made.push_back({by, id});
    return made;
}

const std::vector<Access> toGlobal = accesses(1, 3, globalIndex());
const std::vector<Access> toSlot = accesses(6, 8, slotIndex(1, 2));
const std::vector<Access> toPolicy = accesses(11, 13, policyIndex("default"));
const std::vector<Access> toNoPolicy = accesses(11, 13, policyIndex("nobody"));
const std::vector<Access> toRule = accesses(16, 18, childIndex("default", 1));
const std::vector<Access> toCarPkt = accesses(21, 23, childIndex("default", 1));
const std::vector<Access> toNoCarPkt = accesses(21, 23, childIndex("nobody", 1));
const std::vector<Access> toSource = accesses(26, 26, anyIndex(26));

const std::vector<uint32_t> policyNumbers = {0,  3,  4,  5,  6,  7,  8,  9, 10,
                                             11, 12, 13, 14, 15, 16, 17, 18};
const std::vector<uint32_t> ruleNumbers = {0, 1, 2, 3, 4, 5};
const std::vector<uint32_t> slotNumbers = {2, 3, 5, 7};
const std::vector<uint32_t> carPktNumbers = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};

std::vector<Attribute> joined(std::initializer_list<std::vector<Attribute>> parts)
{
    std::vector<Attribute> whole;
    for (const std::vector<Attribute> &part : parts)
        whole.insert(whole.end(), part.begin(), part.end());
    return whole;
}

const std::vector<Attribute> numberAttributes =
    joined({attributes(toGlobal, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 12, 13, 14, 16, 18}),
            attributes(toSlot, slotNumbers), attributes(toPolicy, policyNumbers),
            attributes(toNoPolicy, policyNumbers), attributes(toRule, ruleNumbers),
            attributes(toCarPkt, carPktNumbers), attributes(toNoCarPkt, carPktNumbers),
            attributes(toSource, {0, 1, 4})});

const std::vector<Attribute> octetsAttributes = joined(
    {attributes(toGlobal, {0, 15, 17, 19, 20}), attributes(toSlot, {0, 4, 6, 8}),
     attributes(toPolicy, {1, 2}), attributes(toNoPolicy, {1, 2}), attributes(toSource, {2, 3})});

bool isGlobalSet(uint32_t code)
{
    return code == CPUDEFEND_GLOBAL_SETAPI;
}

class Misfit : public Dispatch
{
protected:
    /** -1, nothing else written, and nothing changed. */
    static void expectRefused(const Attribute &attribute, const Value &value)
    {
        for (const auto &[code, index] : attribute.by) {
            SCOPED_TRACE("code " + std::to_string(code) + " attribute " +
                         std::to_string(attribute.id));
            expectCode(-1, request(code, attribute.id, index, value, 12));
        }
    }
};

TEST_F(Misfit, BytesForAnIntegerAttributeAreMinusOneEvenWithoutAnEntry)
{
    for (const Attribute &attribute : numberAttributes)
        for (const char *text : {"", "abcd", "\1\2\3\4\5\6\7"})
            expectRefused(attribute, octets(text));
}

TEST_F(Misfit, NumbersForAStringAttributeAreMinusOneEvenWithoutAnEntry)
{
    for (const Attribute &attribute : octetsAttributes) {
        expectRefused(attribute, number(0x41414141));
        expectRefused(attribute, counter(0x41414141, 4));
    }
}

TEST_F(Misfit, NothingIsStoredNorHandedOn)
{
    const tCpuDefendPolicyEntry before =
        *cpuDefendPolicyEntryGet(reinterpret_cast<const uint8_t *>("default"), 7);
    for (const Attribute &attribute : numberAttributes)
        expectRefused(attribute, octets("abcd"));
    for (const Attribute &attribute : octetsAttributes)
        expectRefused(attribute, number(1));
    const tCpuDefendPolicyEntry *after =
        cpuDefendPolicyEntryGet(reinterpret_cast<const uint8_t *>("default"), 7);
    EXPECT_EQ(0, memcmp(&before, after, sizeof before));
    EXPECT_EQ(0u, scripted::count(scripted::Call::ScalarSync));
    EXPECT_EQ(1u, gCpuDefend.usePolicyNum);
    EXPECT_EQ(0, gCpuDefend.policyNameLen);
    EXPECT_EQ(0, gCpuDefend.cpuDefendDebug);
}

TEST_F(Misfit, AMissingValueIsMinusOne)
{
    const std::vector<uint32_t> withoutCase = {21, 100, 0xFFFFFFFF};
    for (const Attribute &attribute :
         joined({numberAttributes, octetsAttributes, attributes(toPolicy, withoutCase),
                 attributes(toCarPkt, withoutCase), attributes(toRule, withoutCase),
                 attributes(toSource, withoutCase), attributes(toSlot, {1, 9, 0xFFFFFFFF}),
                 attributes(toGlobal, {11, 21, 0xFFFFFFFF})}))
        for (const auto &[code, index] : attribute.by)
            for (uint8_t type : {1, 3, 5, 9, 255})
                if (!isGlobalSet(code))
                    expectCode(-1, request(code, attribute.id, index, unknown(type), 12));
}

TEST_F(Misfit, AGlobalSetWithoutAValueWritesNoCodeAtAll)
{
    for (uint32_t id = 0; id < 23; ++id) {
        const Bytes body = request(CPUDEFEND_GLOBAL_SETAPI, id, globalIndex(), unknown(), 12);
        expectReply(body, body);
    }
}

TEST_F(Misfit, AGlobalSyncWithoutAValueIsMinusOne)
{
    expectCode(-1, request(CPUDEFEND_GLOBAL_SYNCAPI, CPUDEFEND_GLOBAL_DEBUG, globalIndex(),
                           unknown(), 12));
}

TEST_F(Misfit, ACounterOnAnIntegerAttributeSetsItsHighWord)
{
    const Index policy = policyIndex("default");
    ASSERT_EQ(
        0, set(CPUDEFEND_POLICY_SETAPI, CPUDEFEND_POLICY_WHITELISTIP4CIR, policy, counter(77, 88)));
    const Bytes body =
        request(CPUDEFEND_POLICY_GETAPI, CPUDEFEND_POLICY_WHITELISTIP4CIR, policy, number(0));
    expectReply(answered(body, policy, numberItem(77)), body);
    ASSERT_EQ(0,
              set(CPUDEFEND_GLOBAL_SETAPI, CPUDEFEND_GLOBAL_DEBUG, globalIndex(), counter(3, 1)));
    EXPECT_EQ(3, gCpuDefend.cpuDefendDebug);
}

TEST_F(Misfit, EveryIntegerAttributeIsReadAsACounterToo)
{
    addSlot(1, 2);
    createRule("default", 1);
    for (const Attribute &attribute :
         joined({attributes({{1, globalIndex()}}, {1, 5, 6, 12, 13, 14}),
                 attributes({{6, slotIndex(1, 2)}}, slotNumbers),
                 attributes({{11, policyIndex("default")}}, policyNumbers),
                 attributes({{16, childIndex("default", 1)}}, ruleNumbers),
                 attributes({{21, childIndex("default", 1)}}, carPktNumbers)})) {
        const auto &[code, index] = attribute.by.front();
        const Bytes plain = request(code, attribute.id, index, number(0));
        const Bytes reply = process(plain).body;
        const Bytes word(reply.end() - 5, reply.end() - 1);
        const Bytes body = request(code, attribute.id, index, counter(1, 0x0BADCAFE));
        expectReply(answered(body, index, Bytes{4, 0, 8} + word + be32(0x0BADCAFE)), body);
    }
}

TEST_F(Misfit, TheResetAttributesTakeAnyValue)
{
    addSlot(1, 2);
    for (const Value &value : {number(1), counter(1, 2), octets(""), octets("now")}) {
        const Index system = globalIndex();
        expectCode(-1, request(CPUDEFEND_GLOBAL_GETAPI, CPUDEFEND_GLOBAL_RESETSRCTRACE, system,
                               value, 12));
        for (uint32_t code : {CPUDEFEND_GLOBAL_SETAPI, CPUDEFEND_GLOBAL_SYNCAPI})
            expectCode(0, request(code, CPUDEFEND_GLOBAL_RESETSRCTRACE, system, value, 12));
        for (uint32_t code : {CPUDEFEND_SLOT_SETAPI, CPUDEFEND_SLOT_SYNCAPI})
            expectCode(0, request(code, CPUDEFEND_SLOT_RESETSRCTRACE, slotIndex(1, 2), value, 12));
    }
}

/** The standby card is told a number, never the place of bytes in a buffer. */
TEST_F(Misfit, AResetAskedForWithBytesIsSynchronisedAsZero)
{
    addSlot(1, 2);
    const struct {
        uint32_t code, id;
        Index index;
    } resets[] = {{CPUDEFEND_GLOBAL_SETAPI, CPUDEFEND_GLOBAL_RESETSRCTRACE, globalIndex()},
                  {CPUDEFEND_GLOBAL_SYNCAPI, CPUDEFEND_GLOBAL_RESETSRCTRACE, globalIndex()},
                  {CPUDEFEND_SLOT_SETAPI, CPUDEFEND_SLOT_RESETSRCTRACE, slotIndex(1, 2)},
                  {CPUDEFEND_SLOT_SYNCAPI, CPUDEFEND_SLOT_RESETSRCTRACE, slotIndex(1, 2)}};
    for (const auto &[code, id, index] : resets) {
        expectCode(0, request(code, id, index, octets("bytes"), 12));
        EXPECT_EQ(0u, scripted::calls.back().number);
        expectCode(0, request(code, id, index, number(77), 12));
        EXPECT_EQ(77u, scripted::calls.back().number);
        expectCode(0, request(code, id, index, counter(78, 5), 12));
        EXPECT_EQ(78u, scripted::calls.back().number);
    }
}

TEST_F(Misfit, AGetOfAnIdWithoutACaseReturnsTheValueAsItWas)
{
    addSlot(1, 2);
    createRule("default", 1);
    addSource(7, {10, 0, 0, 1}, 1, {2, 0, 0, 0, 0, 1});
    const std::pair<Value, Bytes> values[] = {{number(0xA1B2C3D4), numberItem(0xA1B2C3D4)},
                                              {counter(0xA1B2C3D4, 5), counterItem(0xA1B2C3D4, 5)},
                                              {octets("as it was"), octetsItem("as it was")},
                                              {octets(""), octetsItem("")}};
    std::vector<Attribute> without;
    for (uint32_t code : {6u, 11u, 16u, 21u, 26u})
        for (uint32_t id : {19u, 20u, 255u, 0x80000000u, 0xFFFFFFFFu})
            without.push_back({{{code, anyIndex(code)}}, id});
    without.push_back({{{6, slotIndex(1, 2)}}, CPUDEFEND_SLOT_RESETSRCTRACE});
    for (const auto &[value, answer] : values)
        for (const Attribute &attribute : without) {
            const auto &[code, index] = attribute.by.front();
            const Bytes body = request(code, attribute.id, index, value, 12);
            expectReply(answered(body, index, answer), body);
        }
}

TEST_F(Misfit, AGetOfAnIdWithoutACaseStillLooksForItsEntry)
{
    for (const Value &value : {number(1), octets("as it was")})
        expectCode(NO_SUCH_ENTRY,
                   request(CPUDEFEND_POLICY_GETAPI, 19, policyIndex("nobody"), value, 12));
}

TEST_F(Misfit, ASetOfAnIdWithoutACaseIsMinusOne)
{
    addSlot(1, 2);
    createRule("default", 1);
    for (const Value &value : {number(1), counter(1, 2), octets("text")}) {
        expectCode(-1, request(CPUDEFEND_POLICY_SETAPI, 19, policyIndex("default"), value, 12));
        expectCode(-1, request(CPUDEFEND_CARPKT_SETAPI, 11, childIndex("default", 1), value, 12));
        expectCode(-1,
                   request(CPUDEFEND_USERDEFINED_SETAPI, 6, childIndex("default", 1), value, 12));
        expectCode(-1, request(CPUDEFEND_SLOT_SETAPI, 9, slotIndex(1, 2), value, 12));
        expectCode(-1, request(CPUDEFEND_GLOBAL_SETAPI, 21, globalIndex(), value, 12));
        expectCode(-1, request(CPUDEFEND_GLOBAL_GETAPI, 21, globalIndex(), value, 12));
    }
}

TEST_F(Misfit, NumbersAreCutToTheWidthOfTheirField)
{
    const Index policy = policyIndex("default");
    const struct {
        uint32_t id, sent, kept;
    } cases[] = {{CPUDEFEND_POLICY_WHITELISTENABLE, 0xFFFFFF01, 0x01},
                 {CPUDEFEND_POLICY_SRCTRACETHRESHOLD, 0xFFFF8765, 0x8765},
                 {CPUDEFEND_POLICY_WHITELISTIP4ACL, 0x10002, 0x0002},
                 {CPUDEFEND_POLICY_WHITELISTIP4CIR, 0xFFFFFFFF, 0xFFFFFFFF}};
    for (const auto &[id, sent, kept] : cases) {
        ASSERT_EQ(0, set(CPUDEFEND_POLICY_SETAPI, id, policy, number(sent)));
        const Bytes body = request(CPUDEFEND_POLICY_GETAPI, id, policy, number(0));
        expectReply(answered(body, policy, numberItem(kept)), body);
    }
}

/** Every numeric attribute of an entry as the channel answers it. */
std::vector<Bytes> readAll(uint32_t code, const Index &index, const std::vector<uint32_t> &ids)
{
    std::vector<Bytes> words;
    for (uint32_t id : ids) {
        Bytes body = request(code, id, index, number(0));
        cpudefendCmdProcess(body.data(), static_cast<uint32_t>(body.size()));
        words.emplace_back(body.end() - 5, body.end() - 1);
    }
    return words;
}

/** Set each attribute to a number wider than its field: none but itself may change. */
void expectNeighboursKept(uint32_t getCode, const Index &index, const std::vector<uint32_t> &ids,
                          const std::vector<std::pair<uint32_t, uint32_t>> &changes)
{
    for (const auto &[changed, sent] : changes) {
        const std::vector<Bytes> before = readAll(getCode, index, ids);
        Bytes body = request(getCode + 1, changed, index, number(sent));
        cpudefendCmdProcess(body.data(), static_cast<uint32_t>(body.size()));
        const std::vector<Bytes> after = readAll(getCode, index, ids);
        for (size_t i = 0; i < ids.size(); ++i)
            EXPECT_EQ(ids[i] != changed, before[i] == after[i])
                << "attribute " << ids[i] << " when " << changed << " was set";
    }
}

TEST_F(Misfit, NumbersThatAreCutLeaveTheFieldsBesideAlone)
{
    expectNeighboursKept(CPUDEFEND_POLICY_GETAPI, policyIndex("default"), policyNumbers,
                         {{CPUDEFEND_POLICY_WHITELISTIP4ACL, 0xFFFF1234},
                          {CPUDEFEND_POLICY_WHITELISTIP6ACL, 0xFFFF1234},
                          {CPUDEFEND_POLICY_BLACKLISTIP4ACL, 0xFFFF1234},
                          {CPUDEFEND_POLICY_BLACKLISTIP6ACL, 0xFFFF1234},
                          {CPUDEFEND_POLICY_WHITELISTENABLE, 0xFFFFFF07},
                          {CPUDEFEND_POLICY_BLACKLISTENABLE, 0xFFFFFF07},
                          {CPUDEFEND_POLICY_SRCTRACEENABLE, 0xFFFFFF07},
                          {CPUDEFEND_POLICY_SRCTRACEPKTDATAENABLE, 0xFFFFFF07},
                          {CPUDEFEND_POLICY_SRCTRACEALARMENABLE, 0xFFFFFF07},
                          {CPUDEFEND_POLICY_SRCTRACETHRESHOLD, 0xFFFF1234},
                          {CPUDEFEND_POLICY_SRCTRACEALARMTHRESHOLD, 0xFFFF1234}});
    expectNeighboursKept(CPUDEFEND_CARPKT_GETAPI, childIndex("default", 1), carPktNumbers,
                         {{CPUDEFEND_CARPKT_QUEUE, 0xFFFFFF07},
                          {CPUDEFEND_CARPKT_PRIORITY, 0xFFFFFF07},
                          {CPUDEFEND_CARPKT_DENY, 0xFFFFFF01}});
    addSlot(1, 2);
    expectNeighboursKept(CPUDEFEND_SLOT_GETAPI, slotIndex(1, 2), slotNumbers,
                         {{CPUDEFEND_SLOT_POLICYMODE, 0xFFFFFF07},
                          {CPUDEFEND_SLOT_L1CPURAT, 0xFFFFFF07},
                          {CPUDEFEND_SLOT_L2CPURAT, 0xFFFFFF07},
                          {CPUDEFEND_SLOT_L3CPURAT, 0xFFFFFF07}});
    createRule("default", 1);
    expectNeighboursKept(CPUDEFEND_USERDEFINED_GETAPI, childIndex("default", 1), ruleNumbers,
                         {{CPUDEFEND_USERDEFINED_DENY, 0xFFFFFF07},
                          {CPUDEFEND_USERDEFINED_IP4ACL, 0xFFFF1234},
                          {CPUDEFEND_USERDEFINED_IP6ACL, 0xFFFF1234}});
    const tCpuDefendPolicyEntry *entry =
        cpuDefendPolicyEntryGet(reinterpret_cast<const uint8_t *>("default"), 7);
    EXPECT_EQ(0, memcmp(entry->priority, "\0\0\0\0", 4));
}

// ---- Answers stay inside the buffer ---------------------------------------------------------

TEST_F(Dispatch, PriorityIsThreeBytesWhateverWasAskedFor)
{
    const Index policy = policyIndex("default");
    ASSERT_EQ(0, set(CPUDEFEND_POLICY_SETAPI, CPUDEFEND_POLICY_PRIORITY, policy, octets("\1\2\3")));
    for (const char *asked : {"", "x", "xy", "xyz", "xyzxyz"}) {
        expectText(
            "\1\2\3",
            request(CPUDEFEND_POLICY_GETAPI, CPUDEFEND_POLICY_PRIORITY, policy, octets(asked), 8),
            policy);
    }
}

TEST_F(Dispatch, APriorityAskedForAtTheVeryEndIsCutOffThere)
{
    const Index policy = policyIndex("default");
    ASSERT_EQ(0, set(CPUDEFEND_POLICY_SETAPI, CPUDEFEND_POLICY_PRIORITY, policy, octets("\1\2\3")));
    for (const char *asked : {"", "x", "xy", "xyz"}) {
        expectText(
            "\1\2\3",
            request(CPUDEFEND_POLICY_GETAPI, CPUDEFEND_POLICY_PRIORITY, policy, octets(asked)),
            policy);
    }
}

TEST_F(Dispatch, APriorityLongerThanItsFieldIsCutToFourBytes)
{
    const Index policy = policyIndex("default");
    const std::string wide(1400, '\7');
    ASSERT_EQ(0, set(CPUDEFEND_POLICY_SETAPI, CPUDEFEND_POLICY_PRIORITY, policy, octets(wide)));
    const tCpuDefendPolicyEntry *entry =
        cpuDefendPolicyEntryGet(reinterpret_cast<const uint8_t *>("default"), 7);
    EXPECT_EQ(0, memcmp(entry->priority, "\7\7\7\7", 4));
    EXPECT_EQ(0, entry->whiteListIp4Acl);
}

TEST_F(Dispatch, ADescriptionLongerThanItsFieldIsCutToSixtyFourBytes)
{
    const Index policy = policyIndex("default");
    const std::string wide(1400, 'd');
    ASSERT_EQ(0, set(CPUDEFEND_POLICY_SETAPI, CPUDEFEND_POLICY_DESCRIPTION, policy, octets(wide)));
    const Bytes body =
        request(CPUDEFEND_POLICY_GETAPI, CPUDEFEND_POLICY_DESCRIPTION, policy, octets(wide));
    expectText(std::string(64, 'd'), body, policy);
}

TEST_F(Dispatch, ASystemPolicyNameOfAnyLengthIsRefusedUnlessItExists)
{
    for (size_t length : {1u, 8u, 32u, 33u, 255u, 263u, 1400u})
        expectCode(NO_SUCH_NAME,
                   request(CPUDEFEND_GLOBAL_SETAPI, CPUDEFEND_GLOBAL_POLICY, globalIndex(),
                           octets(std::string("default").append(length, 'x'))));
}

TEST_F(Dispatch, RequestsAtAnyAddressAreServed)
{
    const Index index = childIndex("default", 3);
    const Bytes body = request(CPUDEFEND_CARPKT_GETAPI, CPUDEFEND_CARPKT_PPS, index, counter(1, 2));
    for (size_t shift = 0; shift < 8; ++shift) {
        Bytes buffer(shift);
        buffer = buffer + body;
        ASSERT_EQ(body.size(),
                  cpudefendCmdProcess(buffer.data() + shift, static_cast<uint32_t>(body.size())));
        EXPECT_EQ(answered(body, index, counterItem(512, 2)),
                  Bytes(buffer.begin() + static_cast<long>(shift), buffer.end()));
    }
}

} // namespace
