// Requests handed to the dispatcher in process: what it decodes, refuses, answers and prints.

#include <gtest/gtest.h>

#include <cstdio>
#include <numeric>

#include "cpuDefend_nm_api.h"
#include "diagnostics.h"
#include "guarded.h"
#include "request.h"
#include "scripted_hw.h"
#include "state.h"

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
    void TearDown() override { takeDown(); }

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
     * on, so its last byte may be seen once more behind it.
     */
    static void expectText(const std::string &text, const Bytes &body, const Index &index)
    {
        Bytes expected = answered(body, index, octetsItem(text));
        const size_t behind = valueAt(index) + 3 + text.size();
        const Outcome outcome = process(body);
        ASSERT_EQ(body.size(), outcome.length);
        if (!text.empty() && outcome.body[behind] == static_cast<uint8_t>(text.back()))
            expected[behind] = outcome.body[behind];
        EXPECT_EQ(hex(expected), hex(outcome.body));
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
            takeDown();
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

/** Codes whose handlers do not stand yet: each leaves this list when its handler comes. */
class CodeWithoutHandler : public EveryCode
{
protected:
    CodeWithoutHandler() : EveryCode({4, 5, 6, 7, 8, 14, 15, 16, 17, 18, 24, 25, 26}) {}
};

TEST_F(CodeWithoutHandler, IsAnsweredWithMinusOneOnceChecked)
{
    forEach([this] {
        for (const Value &value : {number(1), counter(1, 2), octets("default"), unknown()})
            expectCode(-1, request(code(), 0, index(), value, 60));
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

TEST_F(Dispatch, ASlotWalkAskedWithBytesWritesOnlyTheCode)
{
    const Bytes body = request(CPUDEFEND_SLOT_GETFIRST, 0, slotIndex(1, 2), octets(""), 20);
    const Outcome outcome = process(body);
    EXPECT_EQ(body.size(), outcome.length);
    EXPECT_EQ(withCode(body, codeOf(outcome.body)), outcome.body);
    EXPECT_NE(static_cast<int32_t>(CODE_AS_SENT), codeOf(outcome.body));
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
            attributes(toSlot, {2, 3, 5, 7}), attributes(toPolicy, policyNumbers),
            attributes(toNoPolicy, policyNumbers), attributes(toRule, {0, 1, 2, 3, 4, 5}),
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
                 attributes(toCarPkt, withoutCase), attributes(toGlobal, {11, 21, 0xFFFFFFFF})}))
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
    for (const Attribute &attribute :
         joined({attributes({{1, globalIndex()}}, {1, 5, 6, 12, 13, 14}),
                 attributes({{11, policyIndex("default")}}, policyNumbers),
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
    EXPECT_EQ(NM_ANY, cpuDefendGlobalAttrKind(CPUDEFEND_GLOBAL_RESETSRCTRACE));
    const Index index = globalIndex();
    for (const Value &value : {number(1), counter(1, 2), octets(""), octets("now")})
        expectCode(
            -1, request(CPUDEFEND_GLOBAL_GETAPI, CPUDEFEND_GLOBAL_RESETSRCTRACE, index, value, 12));
}

TEST_F(Misfit, AGetOfAnIdWithoutACaseReturnsTheValueAsItWas)
{
    const std::pair<Value, Bytes> values[] = {{number(0xA1B2C3D4), numberItem(0xA1B2C3D4)},
                                              {counter(0xA1B2C3D4, 5), counterItem(0xA1B2C3D4, 5)},
                                              {octets("as it was"), octetsItem("as it was")},
                                              {octets(""), octetsItem("")}};
    for (const auto &[value, answer] : values)
        for (uint32_t id : {19u, 20u, 255u, 0x80000000u, 0xFFFFFFFFu}) {
            const Index policy = policyIndex("default");
            const Bytes body = request(CPUDEFEND_POLICY_GETAPI, id, policy, value, 12);
            expectReply(answered(body, policy, answer), body);
            const Index car = childIndex("default", 1);
            const Bytes carBody = request(CPUDEFEND_CARPKT_GETAPI, id, car, value, 12);
            expectReply(answered(carBody, car, answer), carBody);
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
    for (const Value &value : {number(1), counter(1, 2), octets("text")}) {
        expectCode(-1, request(CPUDEFEND_POLICY_SETAPI, 19, policyIndex("default"), value, 12));
        expectCode(-1, request(CPUDEFEND_CARPKT_SETAPI, 11, childIndex("default", 1), value, 12));
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
        const Bytes body =
            request(CPUDEFEND_POLICY_GETAPI, CPUDEFEND_POLICY_PRIORITY, policy, octets(asked), 8);
        const Bytes reply = process(body).body;
        EXPECT_EQ(Bytes({0, 0, 3, 1, 2, 3}),
                  Bytes(reply.begin() + static_cast<long>(valueAt(policy)),
                        reply.begin() + static_cast<long>(valueAt(policy)) + 6));
        EXPECT_EQ(Bytes(body.end() - 3, body.end()), Bytes(reply.end() - 3, reply.end()));
    }
}

TEST_F(Dispatch, APriorityAskedForAtTheVeryEndIsCutOffThere)
{
    const Index policy = policyIndex("default");
    ASSERT_EQ(0, set(CPUDEFEND_POLICY_SETAPI, CPUDEFEND_POLICY_PRIORITY, policy, octets("\1\2\3")));
    for (const char *asked : {"", "x", "xy", "xyz"}) {
        const Bytes body =
            request(CPUDEFEND_POLICY_GETAPI, CPUDEFEND_POLICY_PRIORITY, policy, octets(asked));
        expectReply(answered(body, policy, {0, 0, 3, 1, 2, 3}), body);
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
