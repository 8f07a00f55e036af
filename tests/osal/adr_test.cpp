#include "zynosal.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

namespace
{

using Bytes = std::vector<unsigned char>;

/** A message of exactly its bytes on the heap, where a sanitizer sees the first step past it. */
class Message
{
public:
    explicit Message(const Bytes &bytes)
        : size_(bytes.size()), stream_(new unsigned char[bytes.size()])
    {
        std::copy(bytes.begin(), bytes.end(), stream_.get());
        adr_start(&adr, stream_.get(), static_cast<uint32_t>(size_));
    }

    Bytes bytes() const { return {stream_.get(), stream_.get() + size_}; }
    unsigned char *at(size_t offset) const { return stream_.get() + offset; }

    adr_t adr = {};

private:
    size_t size_;
    std::unique_ptr<unsigned char[]> stream_;
};

Bytes counting(size_t size, unsigned char first = 0)
{
    Bytes bytes(size);
    std::iota(bytes.begin(), bytes.end(), first);
    return bytes;
}

Bytes concat(const Bytes &a, const Bytes &b)
{
    Bytes both = a;
    both.insert(both.end(), b.begin(), b.end());
    return both;
}

} // namespace

TEST(Adr, EmptyMessageHoldsNothing)
{
    adr_t adr;
    adr_start(&adr, nullptr, 0);
    uint16_t value = 7;
    EXPECT_EQ(adr_left(&adr), 0u);
    EXPECT_EQ(adr_pos(&adr, 0), 0);
    EXPECT_EQ(adr_offset(&adr, 0), 0);
    EXPECT_EQ(adr_getchar(&adr, nullptr, 0), 0);
    EXPECT_EQ(adr_getushort(&adr, &value), -1);
    EXPECT_EQ(value, 7);
    EXPECT_EQ(adr_int32(&adr, 1), -1);
    EXPECT_EQ(adr_encodedata(&adr, ZYN_ITEM_OCTETS, 0, nullptr), -1);
}

// The huge counts would wrap a 32-bit address.
TEST(Adr, NeverMovesPastTheEnd)
{
    Message message(counting(10));
    ASSERT_EQ(adr_pos(&message.adr, 3), 0);
    for (uint32_t beyond : {11u, 0x7fffffffu, 0x80000000u, 0xfffffff0u, 0xffffffffu}) {
        EXPECT_EQ(adr_pos(&message.adr, beyond), -1) << beyond;
        EXPECT_EQ(adr_offset(&message.adr, beyond), -1) << beyond;
        unsigned char byte = 0xee;
        EXPECT_EQ(adr_getchar(&message.adr, &byte, beyond), -1) << beyond;
        EXPECT_EQ(byte, 0xee);
    }
    EXPECT_EQ(adr_offset(&message.adr, 8), -1);
    EXPECT_EQ(adr_count(&message.adr), 3u);
}

TEST(Adr, DecodesBigEndian)
{
    Message message({0x01, 0x02, 0x83, 0x84, 0x85, 0x86, 0xff, 0xff, 0xff, 0xfe});
    uint16_t half = 0;
    uint32_t word = 0;
    int32_t number = 0;
    EXPECT_EQ(adr_getushort(&message.adr, &half), 0);
    EXPECT_EQ(half, 0x0102);
    EXPECT_EQ(adr_getuint32(&message.adr, &word), 0);
    EXPECT_EQ(word, 0x83848586u);
    EXPECT_EQ(adr_getint32(&message.adr, &number), 0);
    EXPECT_EQ(number, -2);
    EXPECT_EQ(adr_left(&message.adr), 0u);
}

TEST(Adr, HeadOfAMessageIsFunctionRetcodeCommand)
{
    Message message({0,    0,    0,    26,               // function code
                     1,    2,    3,    4,    5, 6, 7, 8, // request id, reserved
                     0xff, 0xff, 0xff, 0xff,             // return code
                     0x80, 0,    0,    13,   1, 2});     // command, then the index section
    uint32_t func = 0;
    int32_t retCode = 0;
    uint32_t cmd = 0;
    EXPECT_EQ(adr_decodefunc(&message.adr, &func), 0);
    EXPECT_EQ(func, 26u);
    EXPECT_EQ(adr_count(&message.adr), uint32_t{ZYN_MSG_RETCODE});
    EXPECT_EQ(adr_decoderetcode(&message.adr, &retCode), 0);
    EXPECT_EQ(retCode, -1);
    EXPECT_EQ(adr_decodecmd(&message.adr, &cmd), 0);
    EXPECT_EQ(cmd, 0x8000000du);
    EXPECT_EQ(adr_count(&message.adr), 20u);
}

TEST(Adr, DecoderThatLacksAByteChangesNothing)
{
    struct {
        const char *name;
        uint32_t needs;
        std::function<int(adr_t *, void *)> call;
    } const decoders[] = {
        {"decodefunc", 12, [](adr_t *a, void *to) { return adr_decodefunc(a, (uint32_t *)to); }},
        {"decoderetcode", 4,
         [](adr_t *a, void *to) { return adr_decoderetcode(a, (int32_t *)to); }},
        {"decodecmd", 4, [](adr_t *a, void *to) { return adr_decodecmd(a, (uint32_t *)to); }},
        {"getushort", 2, [](adr_t *a, void *to) { return adr_getushort(a, (uint16_t *)to); }},
        {"getuint32", 4, [](adr_t *a, void *to) { return adr_getuint32(a, (uint32_t *)to); }},
        {"getint32", 4, [](adr_t *a, void *to) { return adr_getint32(a, (int32_t *)to); }},
        {"getchar", 4, [](adr_t *a, void *to) { return adr_getchar(a, to, 4); }},
    };
    for (const auto &decoder : decoders) {
        SCOPED_TRACE(decoder.name);
        for (uint32_t left = 0; left <= decoder.needs; left++) {
            Message message(counting(left + 5, 1));
            ASSERT_EQ(adr_pos(&message.adr, 5), 0);
            uint32_t result = 0xa5a5a5a5;
            const bool enough = left == decoder.needs;
            EXPECT_EQ(decoder.call(&message.adr, &result), enough ? 0 : -1);
            EXPECT_EQ(adr_count(&message.adr), enough ? left + 5 : 5);
            EXPECT_EQ(result == 0xa5a5a5a5, !enough);
        }
    }
}

TEST(Adr, GetcharOntoItselfLeavesTheBytesInPlace)
{
    Message message(counting(8));
    ASSERT_EQ(adr_offset(&message.adr, 2), 0);
    EXPECT_EQ(adr_getchar(&message.adr, message.adr.adr_now, 6), 0);
    EXPECT_EQ(message.bytes(), counting(8));
    EXPECT_EQ(adr_left(&message.adr), 0u);
}

namespace
{

const uint32_t WORD = 0x81020304;
const U_INT8 COUNTER = {0x91929394, 0x05060708};
const Bytes OCTETS = {'a', 0, 0xff};

struct Encoder {
    const char *name;
    Bytes encoding;
    std::function<int(adr_t *)> call;
};

const Encoder ENCODERS[] = {
    {"int32", {0xff, 0xff, 0xfc, 0x18}, [](adr_t *a) { return adr_int32(a, -1000); }},
    {"int32Min", {0x80, 0, 0, 0}, [](adr_t *a) { return adr_int32(a, INT32_MIN); }},
    {"octets",
     {0, 0, 3, 'a', 0, 0xff},
     [](adr_t *a) { return adr_encodedata(a, ZYN_ITEM_OCTETS, 3, OCTETS.data()); }},
    {"noOctets",
     {0, 0, 0},
     [](adr_t *a) { return adr_encodedata(a, ZYN_ITEM_OCTETS, 0, nullptr); }},
    {"uint32",
     {2, 0, 4, 0x81, 2, 3, 4},
     [](adr_t *a) { return adr_encodedata(a, ZYN_ITEM_UINT32, 4, &WORD); }},
    {"counter64",
     {4, 0, 8, 0x91, 0x92, 0x93, 0x94, 5, 6, 7, 8},
     [](adr_t *a) { return adr_encodedata(a, ZYN_ITEM_COUNTER64, 8, &COUNTER); }},
    {"otherType", {9, 0x12, 0x34}, [](adr_t *a) { return adr_encodedata(a, 9, 0x1234, &WORD); }},
    {"otherTypeWithoutData", {1, 0, 4}, [](adr_t *a) { return adr_encodedata(a, 1, 4, nullptr); }},
};

} // namespace

TEST(Adr, EncodesAndAdvances)
{
    for (const Encoder &encoder : ENCODERS) {
        SCOPED_TRACE(encoder.name);
        const Bytes before(2, 0x55);
        const Bytes after(3, 0xaa);
        Message message(concat(concat(before, Bytes(encoder.encoding.size(), 0xcc)), after));
        ASSERT_EQ(adr_pos(&message.adr, 2), 0);
        EXPECT_EQ(encoder.call(&message.adr), 0);
        EXPECT_EQ(adr_left(&message.adr), after.size());
        EXPECT_EQ(message.bytes(), concat(concat(before, encoder.encoding), after));
    }
}

TEST(Adr, EncoderIsCutOffAtTheEnd)
{
    for (const Encoder &encoder : ENCODERS) {
        SCOPED_TRACE(encoder.name);
        for (size_t room = 0; room < encoder.encoding.size(); room++) {
            Message message(Bytes(room, 0xcc));
            EXPECT_EQ(encoder.call(&message.adr), -1) << room;
            EXPECT_EQ(adr_left(&message.adr), 0u);
            EXPECT_EQ(message.bytes(),
                      Bytes(encoder.encoding.begin(), encoder.encoding.begin() + room));
        }
    }
}

// The reply is written over its request, so octets may stand anywhere around their new place.
TEST(Adr, EncodesOctetsFromWithinTheMessage)
{
    constexpr size_t SIZE = 24;
    for (size_t len = 0; len <= 12; len++)
        for (size_t source = 0; source + len <= SIZE; source++)
            for (size_t pos = 0; pos <= SIZE; pos++) {
                Message message(counting(SIZE));
                Bytes expected = message.bytes();
                Bytes item = concat({0, 0, static_cast<unsigned char>(len)},
                                    Bytes(message.at(source), message.at(source) + len));
                const size_t fits = std::min(item.size(), SIZE - pos);
                std::copy_n(item.begin(), fits, expected.begin() + static_cast<long>(pos));

                ASSERT_EQ(adr_pos(&message.adr, static_cast<uint32_t>(pos)), 0);
                EXPECT_EQ(adr_encodedata(&message.adr, ZYN_ITEM_OCTETS, static_cast<uint16_t>(len),
                                         message.at(source)),
                          fits == item.size() ? 0 : -1);
                EXPECT_EQ(adr_count(&message.adr), pos + fits);
                ASSERT_EQ(message.bytes(), expected)
                    << len << " bytes from " << source << " to " << pos;
            }
}
