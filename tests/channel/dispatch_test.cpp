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

TEST_F(EveryCode, AValueOfUnknownTypePastTheEndIsMalformed)
{
    forEach([this] {
        expectMalformed(request(code(), 0, index(), {9, 4, bytes("abc")}));
        const Bytes whole = request(code(), 0, index(), {9, 3, bytes("abc")});
        EXPECT_EQ(whole.size(), process(whole).length);
    });
}

TEST_F(Dispatch, ARequestOfTwentyFiveBytesIsTooShort)
{
    Bytes body = request(CPUDEFEND_POLICY_GETFIRST, 0, policyIndex(""), number(0));
    body.resize(25);
    expectMalformed(body, "\r\n  lenRx 25 err in func cpudefendCmdProcess in line N!");
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

// ---- Get: the answer comes in the request's type ---------------------------------------------

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

// ---- Walks -----------------------------------------------------------------------------------

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

// ---- Slots, rules and traced sources ---------------------------------------------------------

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

TEST_F(Traced, PacketDataIsReadUpTo80Bytes)
{
    const std::string data(entry->pktData, entry->pktData + 80);
    for (size_t asked : {0u, 1u, 3u, 4u, 10u, 79u, 80u, 200u, 1400u})
        expectText(data.substr(0, asked),
                   request(CPUDEFEND_SRCTRACE_GETAPI, CPUDEFEND_SRCTRACE_PTKDATA, index,
                           octets(std::string(asked, 'x')), 4),
                   index);
}

// ---- Values that do not fit --------------------------------------------------------------------

/** A number and a run of bytes of each table that has them, by the first code of get, set, sync. */
const struct {
    uint32_t get;
    uint32_t number, octets; /**< attributes; NONE where there is none */
} kinds[] = {{CPUDEFEND_GLOBAL_GETAPI, CPUDEFEND_GLOBAL_DEBUG, CPUDEFEND_GLOBAL_POLICY},
             {CPUDEFEND_SLOT_GETAPI, CPUDEFEND_SLOT_L1CPURAT, CPUDEFEND_SLOT_POLICY},
             {CPUDEFEND_POLICY_GETAPI, CPUDEFEND_POLICY_REFCOUNT, CPUDEFEND_POLICY_DESCRIPTION},
             {CPUDEFEND_USERDEFINED_GETAPI, CPUDEFEND_USERDEFINED_CIR, UINT32_MAX},
             {CPUDEFEND_CARPKT_GETAPI, CPUDEFEND_CARPKT_PPS, UINT32_MAX},
             {CPUDEFEND_SRCTRACE_GETAPI, CPUDEFEND_SRCTRACE_TOTALNUM, CPUDEFEND_SRCTRACE_DSTIP}};
constexpr uint32_t NONE = UINT32_MAX;

class Misfit : public Dispatch
{
protected:
    /** Each code with which an attribute of a table is got or changed. */
    template <typename Visit> static void eachCode(uint32_t get, Visit visit)
    {
        const uint32_t last = get == CPUDEFEND_SRCTRACE_GETAPI ? get : get + 2;
        for (uint32_t code = get; code <= last; ++code) {
            SCOPED_TRACE("code " + std::to_string(code));
            visit(code);
        }
    }
};

TEST_F(Misfit, BytesForANumberAndNumbersForBytesAreMinusOneEvenWithoutAnEntry)
{
    const std::string before(reinterpret_cast<const char *>(&gCpuDefend), sizeof gCpuDefend);
    for (const auto &[get, numeric, text] : kinds)
        eachCode(get, [numeric = numeric, text = text](uint32_t code) {
            for (const char *value : {"", "abcd", "\1\2\3\4\5\6\7"})
                expectCode(-1, request(code, numeric, anyIndex(code), octets(value), 12));
            if (text == NONE)
                return;
            expectCode(-1, request(code, text, anyIndex(code), number(0x41414141), 12));
            expectCode(-1, request(code, text, anyIndex(code), counter(0x41414141, 4), 12));
        });
    EXPECT_EQ(before, std::string(reinterpret_cast<const char *>(&gCpuDefend), sizeof gCpuDefend));
    EXPECT_TRUE(scripted::calls.empty());
}

TEST_F(Misfit, AMissingValueIsMinusOne)
{
    for (const auto &[get, numeric, text] : kinds)
        eachCode(get, [numeric = numeric, text = text](uint32_t code) {
            for (uint32_t id : {numeric, text, 1u, 100u, NONE})
                for (uint8_t type : {1, 3, 9, 255})
                    if (code != CPUDEFEND_GLOBAL_SETAPI)
                        expectCode(-1, request(code, id, anyIndex(code), unknown(type), 12));
        });
}

TEST_F(Misfit, AGlobalSetWithoutAValueWritesNoCodeAtAll)
{
    for (uint32_t id = 0; id < 23; ++id) {
        const Bytes body = request(CPUDEFEND_GLOBAL_SETAPI, id, globalIndex(), unknown(), 12);
        expectReply(body, body);
    }
}

TEST_F(Misfit, ACounterSetsItsHighWord)
{
    const Index policy = policyIndex("default");
    ASSERT_EQ(
        0, set(CPUDEFEND_POLICY_SETAPI, CPUDEFEND_POLICY_WHITELISTIP4CIR, policy, counter(77, 88)));
    const Bytes body =
        request(CPUDEFEND_POLICY_GETAPI, CPUDEFEND_POLICY_WHITELISTIP4CIR, policy, number(0));
    expectReply(answered(body, policy, numberItem(77)), body);
}

/** The standby card is told a number, never the place of bytes in a buffer. */
TEST_F(Misfit, TheResetAttributesTakeAnyValueAndBytesAsZero)
{
    addSlot(1, 2);
    const struct {
        uint32_t get, id;
    } resets[] = {{CPUDEFEND_GLOBAL_GETAPI, CPUDEFEND_GLOBAL_RESETSRCTRACE},
                  {CPUDEFEND_SLOT_GETAPI, CPUDEFEND_SLOT_RESETSRCTRACE}};
    const std::pair<Value, uint32_t> values[] = {
        {octets("bytes"), 0}, {octets(""), 0}, {number(77), 77}, {counter(78, 5), 78}};
    for (const auto &[get, id] : resets)
        for (uint32_t code : {get + 1, get + 2})
            for (const auto &[value, told] : values) {
                expectCode(0, request(code, id, anyIndex(code), value, 12));
                EXPECT_EQ(told, scripted::calls.back().number);
            }
}

TEST_F(Misfit, AGetOfAnIdWithoutACaseReturnsTheValueAsItWas)
{
    const Index index = policyIndex("default");
    const std::pair<Value, Bytes> values[] = {{number(0xA1B2C3D4), numberItem(0xA1B2C3D4)},
                                              {counter(0xA1B2C3D4, 5), counterItem(0xA1B2C3D4, 5)},
                                              {octets("as it was"), octetsItem("as it was")},
                                              {octets(""), octetsItem("")}};
    for (const auto &[value, answer] : values) {
        const Bytes body = request(CPUDEFEND_POLICY_GETAPI, 19, index, value, 12);
        expectReply(answered(body, index, answer), body);
        expectCode(-1, request(CPUDEFEND_POLICY_SETAPI, 19, index, value, 12));
        expectCode(NO_SUCH_ENTRY,
                   request(CPUDEFEND_POLICY_GETAPI, 19, policyIndex("nobody"), value, 12));
    }
}

// ---- Answers stay inside the buffer ---------------------------------------------------------

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
