#include "zynosal.h"

#include <string.h>

namespace
{

uint16_t load16(const unsigned char *from)
{
    return static_cast<uint16_t>(from[0] << 8 | from[1]);
}

uint32_t load32(const unsigned char *from)
{
    return uint32_t{load16(from)} << 16 | load16(from + 2);
}

void store16(unsigned char *to, uint16_t value)
{
    to[0] = static_cast<unsigned char>(value >> 8);
    to[1] = static_cast<unsigned char>(value);
}

void store32(unsigned char *to, uint32_t value)
{
    store16(to, static_cast<uint16_t>(value >> 16));
    store16(to + 2, static_cast<uint16_t>(value));
}

/** As memmove, but null with no bytes is allowed. */
void moveBytes(void *to, const void *from, uint32_t len)
{
    if (len != 0)
        memmove(to, from, len);
}

/** Pass over @a len bytes. @return the first of them, or null when fewer are left */
const unsigned char *take(adr_t *adr, uint32_t len)
{
    const unsigned char *from = adr->adr_now;
    return adr_offset(adr, len) == 0 ? from : nullptr;
}

/** Write what fits of @a len bytes. @return 0, or -1 when some were cut off */
int put(adr_t *adr, const void *data, uint32_t len)
{
    const uint32_t left = adr_left(adr);
    const uint32_t fits = len < left ? len : left;
    moveBytes(adr->adr_now, data, fits);
    adr->adr_now += fits;
    return fits == len ? 0 : -1;
}

int putItem(adr_t *adr, unsigned char type, uint16_t len, const void *data, uint32_t dataLen)
{
    // The data go first: the head may be written over the place where they stand.
    adr_t body = *adr;
    const bool room = adr_offset(&body, ZYN_ITEM_HEAD) == 0;
    const int result = room ? put(&body, data, dataLen) : -1;

    unsigned char head[ZYN_ITEM_HEAD] = {type};
    store16(head + 1, len);
    put(adr, head, sizeof head);
    if (room)
        adr->adr_now = body.adr_now;
    return result;
}

} // namespace

void adr_start(adr_t *adr, unsigned char *stream, uint32_t len)
{
    adr->adr_stream = stream;
    adr->adr_now = stream;
    adr->adr_end = stream + len;
}

uint32_t adr_count(const adr_t *adr)
{
    return static_cast<uint32_t>(adr->adr_now - adr->adr_stream);
}

uint32_t adr_left(const adr_t *adr)
{
    return static_cast<uint32_t>(adr->adr_end - adr->adr_now);
}

int adr_pos(adr_t *adr, uint32_t pos)
{
    if (pos > adr_count(adr) + adr_left(adr))
        return -1;
    adr->adr_now = adr->adr_stream + pos;
    return 0;
}

int adr_offset(adr_t *adr, uint32_t count)
{
    if (count > adr_left(adr))
        return -1;
    adr->adr_now += count;
    return 0;
}

int adr_decodefunc(adr_t *adr, uint32_t *func)
{
    const unsigned char *from = take(adr, ZYN_MSG_RETCODE);
    if (!from)
        return -1;
    *func = load32(from);
    return 0;
}

int adr_decoderetcode(adr_t *adr, int32_t *retCode)
{
    return adr_getint32(adr, retCode);
}

int adr_decodecmd(adr_t *adr, uint32_t *cmd)
{
    return adr_getuint32(adr, cmd);
}

int adr_getchar(adr_t *adr, void *dst, uint32_t len)
{
    if (len > adr_left(adr))
        return -1;
    moveBytes(dst, adr->adr_now, len);
    adr->adr_now += len;
    return 0;
}

int adr_getushort(adr_t *adr, uint16_t *value)
{
    const unsigned char *from = take(adr, sizeof *value);
    if (!from)
        return -1;
    *value = load16(from);
    return 0;
}

int adr_getuint32(adr_t *adr, uint32_t *value)
{
    const unsigned char *from = take(adr, sizeof *value);
    if (!from)
        return -1;
    *value = load32(from);
    return 0;
}

int adr_getint32(adr_t *adr, int32_t *value)
{
    uint32_t bits;
    if (adr_getuint32(adr, &bits) != 0)
        return -1;
    *value = static_cast<int32_t>(bits);
    return 0;
}

int adr_int32(adr_t *adr, int32_t value)
{
    unsigned char bytes[sizeof value];
    store32(bytes, static_cast<uint32_t>(value));
    return put(adr, bytes, sizeof bytes);
}

int adr_encodedata(adr_t *adr, unsigned char type, uint16_t len, const void *data)
{
    unsigned char bytes[sizeof(U_INT8)];
    switch (type) {
    case ZYN_ITEM_OCTETS: return putItem(adr, type, len, data, len);
    case ZYN_ITEM_UINT32:
        store32(bytes, *static_cast<const uint32_t *>(data));
        return putItem(adr, type, len, bytes, sizeof(uint32_t));
    case ZYN_ITEM_COUNTER64: {
        const U_INT8 *counter = static_cast<const U_INT8 *>(data);
        store32(bytes, counter->high);
        store32(bytes + 4, counter->low);
        return putItem(adr, type, len, bytes, sizeof bytes);
    }
    default: return putItem(adr, type, len, nullptr, 0);
    }
}
