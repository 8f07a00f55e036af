#include "client/codec.h"

#include <gtest/gtest.h>

#include "client/errors.h"
#include "client/requests.h"
#include "cpuDefend_nm.h"

using namespace cpudefend;

namespace
{

Request getPps()
{
    Request request = requestFor(CPUDEFEND_CARPKT_GETAPI, CarPktIndex{"ab", 1});
    request.id = 0x01020304;
    request.command = CPUDEFEND_CARPKT_PPS;
    request.answer = {ItemType::Number};
    return request;
}

const Bytes kGetPps{0, 0, 0,    21,   1,    2,    3, 4, 0, 0,
                    0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 2, // header
                    1, 3,                                     // index section
                    2, 0, 4,    0,    0,    0,    2,          // name length
                    0, 0, 2,    'a',  'b',                    // name
                    2, 0, 4,    0,    0,    0,    1,          // packet type
                    3, 2, 0,    4,    0,    0,    0, 0};      // value section

constexpr std::size_t kValueAt = 41;

/** The reply to getPps with this code; the value is 200 when the code is 0. */
Bytes replyTo(const Bytes &request, int32_t code)
{
    Bytes body = request;
    for (int i = 0; i < 4; ++i)
        body[12 + i] = static_cast<uint8_t>(static_cast<uint32_t>(code) >> (24 - 8 * i));
    if (code == 0) {
        const uint8_t answer[] = {2, 0, 4, 0, 0, 0, 200};
        std::copy(std::begin(answer), std::end(answer), body.begin() + kValueAt);
    }
    return body;
}

Failure failureOf(const Request &request, const Bytes &body)
{
    try {
        decode(request, body);
    } catch (const Error &error) {
        return error.failure();
    }
    return Failure::Refused; // never thrown by decode
}

} // namespace

TEST(Decoder, ReadsBackWhatTheEncoderWrote)
{
    Encoder out;
    out.u8(0xFE);
    out.u16(0xFEDC);
    out.u32(0xFEDCBA98);
    out.item(std::string("x\0y", 3));
    out.item(0x80000001u);
    const Bytes bytes = out.take();
    Decoder in(bytes);
    EXPECT_EQ(in.u8(), 0xFE);
    EXPECT_EQ(in.u16(), 0xFEDC);
    EXPECT_EQ(in.u32(), 0xFEDCBA98u);
    EXPECT_EQ(in.item(ItemType::Octets), Item(std::string("x\0y", 3)));
    EXPECT_EQ(in.item(ItemType::Number), Item(0x80000001u));
    EXPECT_THROW(in.u8(), Error);
}

TEST(Decoder, NeverReadsPastTheEnd)
{
    const Bytes bytes{0, 0, 9, 'a'};
    EXPECT_THROW(Decoder(bytes).item(ItemType::Octets), Error);
    EXPECT_THROW(Decoder(std::span(bytes).first(3)).u32(), Error);
    EXPECT_THROW(Decoder(std::span(bytes).first(1)).u16(), Error);
}

TEST(Encode, GetOfACarAttributeGolden)
{
    EXPECT_EQ(encode(getPps()), kGetPps);
}

TEST(Encode, GlobalRequestHasOneItemAndACountOfZero)
{
    const Bytes body = encode(requestFor(CPUDEFEND_GLOBAL_GETAPI, GlobalIndex{}));
    const Bytes index(body.begin() + 20, body.begin() + 29);
    EXPECT_EQ(index, (Bytes{1, 0, 2, 0, 4, 0, 0, 0, 0}));
}

TEST(Encode, WalkLeavesRoomForTheLongestIndex)
{
    Request policy = requestFor(CPUDEFEND_POLICY_GETFIRST, PolicyIndex{""});
    policy.answer = {ItemType::Number, ItemType::Octets};
    EXPECT_EQ(encode(policy).size(), 32u + 7 + 3 + 32);

    Request car = requestFor(CPUDEFEND_CARPKT_GETFIRST, CarPktIndex{"", 0});
    car.answer = {ItemType::Number, ItemType::Octets, ItemType::Number};
    EXPECT_EQ(encode(car).size(), 39u + 7 + 3 + 32 + 7);
}

TEST(Encode, RefusesWhatTheChannelCannotCarry)
{
    Request request = requestFor(CPUDEFEND_POLICY_SETAPI, PolicyIndex{"a"});
    request.value = std::string(CPUDEFEND_CMD_MAXLEN, 'x');
    EXPECT_THROW(encode(request), std::length_error);
}

TEST(Decode, AnswersStandWhereTheValueSectionWas)
{
    const Reply reply = decode(getPps(), replyTo(kGetPps, 0));
    EXPECT_EQ(reply.code, 0);
    ASSERT_EQ(reply.answer.size(), 1u);
    EXPECT_EQ(reply.answer[0], Item(200u));
}

TEST(Decode, ACodeComesWithoutAnAnswer)
{
    const Reply reply = decode(getPps(), replyTo(kGetPps, CPUDEFEND_ENOENTRY));
    EXPECT_EQ(reply.code, CPUDEFEND_ENOENTRY);
    EXPECT_TRUE(reply.answer.empty());
}

TEST(Decode, ReplyWithoutACodeIsNoSuccess)
{
    EXPECT_EQ(decode(getPps(), kGetPps).code, -1);
}

TEST(Decode, ZeroLengthReplyMeansAMalformedRequest)
{
    EXPECT_EQ(failureOf(getPps(), {}), Failure::RequestMalformed);
}

TEST(Decode, ReplyCutAnywhereIsMalformed)
{
    const Bytes whole = replyTo(kGetPps, 0);
    for (std::size_t length = 1; length < kValueAt + 7; ++length)
        EXPECT_EQ(failureOf(getPps(), Bytes(whole.begin(), whole.begin() + length)),
                  Failure::ReplyMalformed)
            << length;
}

TEST(Decode, ReplyToAnotherRequestIsMalformed)
{
    for (const std::size_t at : {3, 7, 19}) { // function code, request id, command
        Bytes body = replyTo(kGetPps, 0);
        body[at] ^= 1;
        EXPECT_EQ(failureOf(getPps(), body), Failure::ReplyMalformed) << at;
    }
}

TEST(Decode, AnswerOfAnotherTypeOrLengthIsMalformed)
{
    Bytes otherType = replyTo(kGetPps, 0);
    otherType[kValueAt] = 0;
    EXPECT_EQ(failureOf(getPps(), otherType), Failure::ReplyMalformed);
    Bytes otherLength = replyTo(kGetPps, 0);
    otherLength[kValueAt + 2] = 3;
    EXPECT_EQ(failureOf(getPps(), otherLength), Failure::ReplyMalformed);
}
