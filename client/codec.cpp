#include "client/codec.h"

#include <algorithm>
#include <stdexcept>

#include "client/errors.h"
#include "cpuDefend_nm.h"

namespace cpudefend
{

namespace
{

constexpr std::size_t kNumberLength = 4; // bytes of an integer

// Sent as the return code, so that a reply without one never looks like success.
constexpr uint32_t kNoCode = 0xFFFFFFFF;

std::size_t dataLength(const Item &item)
{
    const auto *octets = std::get_if<std::string>(&item);
    return octets ? octets->size() : kNumberLength;
}

std::size_t valueOffset(const Request &request)
{
    std::size_t at = ZYN_MSG_ITEMS;
    for (const Item &item : request.index)
        at += ZYN_ITEM_HEAD + dataLength(item);
    return at;
}

/** The most bytes that the answer can take. Only a get answers with bytes of another length. */
std::size_t answerRoom(const Request &request)
{
    const std::size_t longest =
        std::max<std::size_t>(CPUDEFEND_NAME_MAXLEN, dataLength(request.value));
    std::size_t room = 0;
    for (const ItemType type : request.answer)
        room += ZYN_ITEM_HEAD + (type == ItemType::Number ? kNumberLength : longest);
    return room;
}

[[noreturn]] void malformed(const char *why)
{
    throw Error(Failure::ReplyMalformed, std::string("the daemon's reply makes no sense: ") + why);
}

} // namespace

ItemType typeOf(const Item &item)
{
    return std::holds_alternative<uint32_t>(item) ? ItemType::Number : ItemType::Octets;
}

void Encoder::u16(uint16_t value)
{
    u8(static_cast<uint8_t>(value >> 8));
    u8(static_cast<uint8_t>(value));
}

void Encoder::u32(uint32_t value)
{
    u16(static_cast<uint16_t>(value >> 16));
    u16(static_cast<uint16_t>(value));
}

void Encoder::octets(std::string_view octets)
{
    bytes_.insert(bytes_.end(), octets.begin(), octets.end());
}

void Encoder::item(const Item &item)
{
    u8(static_cast<uint8_t>(typeOf(item)));
    u16(static_cast<uint16_t>(dataLength(item)));
    if (const auto *number = std::get_if<uint32_t>(&item))
        u32(*number);
    else
        octets(std::get<std::string>(item));
}

void Encoder::padTo(std::size_t length)
{
    if (bytes_.size() < length)
        bytes_.resize(length);
}

std::span<const uint8_t> Decoder::take(std::size_t length)
{
    if (length > rest_.size())
        malformed("it is cut short");
    const auto taken = rest_.first(length);
    rest_ = rest_.subspan(length);
    return taken;
}

uint8_t Decoder::u8()
{
    return take(1)[0];
}

uint16_t Decoder::u16()
{
    const auto b = take(2);
    return static_cast<uint16_t>(b[0] << 8 | b[1]);
}

uint32_t Decoder::u32()
{
    const uint32_t high = u16();
    return high << 16 | u16();
}

std::string Decoder::octets(std::size_t length)
{
    const auto taken = take(length);
    return {taken.begin(), taken.end()};
}

Item Decoder::item(ItemType expected)
{
    if (u8() != static_cast<uint8_t>(expected))
        malformed("it answers with a value of another type");
    const std::size_t length = u16();
    if (expected == ItemType::Octets)
        return octets(length);
    if (length != kNumberLength)
        malformed("it answers with an integer of another length");
    return u32();
}

Bytes encode(const Request &request)
{
    Encoder out;
    out.u32(request.function);
    out.u32(request.id);
    out.u32(0);
    out.u32(kNoCode);
    out.u32(request.command);
    out.u8(ZYN_SECTION_INDEX);
    out.u8(request.indexCount);
    for (const Item &item : request.index)
        out.item(item);
    out.u8(ZYN_SECTION_VALUE);
    out.item(request.value);
    out.padTo(valueOffset(request) + answerRoom(request));
    if (out.size() > CPUDEFEND_CMD_MAXLEN)
        throw std::length_error("a request longer than the channel carries");
    return out.take();
}

Bytes frame(const Bytes &body)
{
    Encoder out;
    out.u32(static_cast<uint32_t>(body.size()));
    Bytes framed = out.take();
    framed.insert(framed.end(), body.begin(), body.end());
    return framed;
}

Reply decode(const Request &request, std::span<const uint8_t> body)
{
    if (body.empty())
        throw Error(Failure::RequestMalformed, "the daemon could not read the request");
    Decoder in(body);
    if (in.u32() != request.function || in.u32() != request.id)
        malformed("it answers another request");
    in.skip(4);
    Reply reply;
    reply.code = static_cast<int32_t>(in.u32());
    if (in.u32() != request.command)
        malformed("it answers another request");
    if (reply.code != CPUDEFEND_OK)
        return reply;
    in.skip(valueOffset(request) - ZYN_MSG_INDEX);
    for (const ItemType type : request.answer)
        reply.answer.push_back(in.item(type));
    return reply;
}

} // namespace cpudefend
