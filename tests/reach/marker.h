/**
 * Frames of no type and for nobody. When one has arrived, so has all that was sent before it.
 */
#ifndef REACH_MARKER_H
#define REACH_MARKER_H

#include <cstdint>
#include <span>

#include "item.h"

/** Their ethertype. */
constexpr uint16_t markerType = 0x88b5; // for experiments (IEEE 802)

Shot marker(uint32_t number);

/** Whether a frame is that very one. */
bool isMarker(std::span<const uint8_t> frame, uint32_t number);

/** Whether it is any of them. */
bool isMarker(std::span<const uint8_t> frame);

#endif
