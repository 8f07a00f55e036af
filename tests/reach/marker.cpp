#include "marker.h"

#include <algorithm>

#include "plan.h"

namespace
{

constexpr uint32_t mark = 0x4d41524b;
constexpr size_t head = 18, whole = 22; // octets without the number, and with it

} // namespace

Shot marker(uint32_t number)
{
    OctetWriter writer;
    writer.bytes(ownMac).bytes(gatewayMac).u16(markerType).u32(mark).u32(number);
    return {writer.padded(60), {}};
}

bool isMarker(std::span<const uint8_t> frame, uint32_t number)
{
    const Octets wanted = marker(number).frame;
    return frame.size() >= whole &&
           std::equal(wanted.begin(), wanted.begin() + whole, frame.begin());
}

bool isMarker(std::span<const uint8_t> frame)
{
    const Octets wanted = marker(0).frame;
    return frame.size() >= whole &&
           std::equal(wanted.begin(), wanted.begin() + head, frame.begin());
}
