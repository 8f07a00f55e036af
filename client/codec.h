/**
 * Messages of the management channel as bytes. docs/protocol.md describes them.
 *
 * Every integer on the wire passes through Encoder and Decoder, most significant byte first.
 */
#ifndef CPUDEFEND_CLIENT_CODEC_H
#define CPUDEFEND_CLIENT_CODEC_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "cpuDefend_nm.h"

namespace cpudefend
{

using Bytes = std::vector<uint8_t>;

/** What an item carries: a 32-bit integer or bytes. */
using Item = std::variant<uint32_t, std::string>;

/** Type of an item on the wire. */
enum class ItemType : uint8_t { Octets = ZYN_ITEM_OCTETS, Number = ZYN_ITEM_UINT32 };

ItemType typeOf(const Item &item);

/** Appends to a message. */
class Encoder
{
public:
    void u8(uint8_t value) { bytes_.push_back(value); }
    void u16(uint16_t value);
    void u32(uint32_t value);
    void octets(std::string_view octets);
    void item(const Item &item); /**< type, length, data */
    void padTo(std::size_t length);

    std::size_t size() const { return bytes_.size(); }
    Bytes take() { return std::move(bytes_); }

private:
    Bytes bytes_;
};

/** Reads a message. Throws Failure::ReplyMalformed rather than read past its end. */
class Decoder
{
public:
    explicit Decoder(std::span<const uint8_t> bytes) : rest_(bytes) {}

    uint8_t u8();
    uint16_t u16();
    uint32_t u32();
    std::string octets(std::size_t length);
    Item item(ItemType expected);
    void skip(std::size_t length) { take(length); }

private:
    std::span<const uint8_t> take(std::size_t length);

    std::span<const uint8_t> rest_;
};

/** A request. The defaults are those of one that carries nothing and expects nothing. */
struct Request {
    uint32_t function = 0;
    uint32_t id = 0; /**< comes back in the reply */
    uint32_t command = 0;
    uint8_t indexCount = 0;
    std::vector<Item> index;
    Item value;                   /**< of a get: what the answer overwrites */
    std::vector<ItemType> answer; /**< what a reply with code 0 carries */
};

/**
 * The body of a request. It is made as long as the answer may become, for a reply is never
 * longer than its request.
 */
Bytes encode(const Request &request);

/** A body with its length in front: what goes over the stream. */
Bytes frame(const Bytes &body);

constexpr std::size_t kFrameHeader = ZYN_FRAME_HEAD;

struct Reply {
    int32_t code = 0;
    std::vector<Item> answer; /**< as the request expected it; empty when the code is not 0 */
};

/** Read a reply's body. Throws Failure::RequestMalformed or Failure::ReplyMalformed. */
Reply decode(const Request &request, std::span<const uint8_t> body);

} // namespace cpudefend

#endif
