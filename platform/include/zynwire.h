/**
 * A message of the management channel, byte by byte: what the daemon, its front ends and the
 * cursor of zynosal.h agree on. What the numbers in it stand for is in h/cpuDefend_nm.h, and
 * docs/protocol.md shows messages. Plain C, without another header.
 *
 * On the stream a message is its length and then its body. Integers are big-endian on every host.
 *
 * History
 *   1  what is below. No message says which version it is of; the reserved word, which is sent as
 *      0 and comes back as it was sent, is free for that.
 *
 * No new version for more of what there is: function codes, attribute ids, packet types, return
 * codes. A daemon that does not know them refuses them, as docs/protocol.md says. A new version for
 * another place or size of anything below, and for another meaning of a number that has one.
 */
#ifndef ZYNWIRE_H
#define ZYNWIRE_H

/** Bytes of the length in front of a body. */
enum { ZYN_FRAME_HEAD = 4 };

/** Where the fields of a body begin; each has 4 bytes, if nothing else is said. */
enum {
    ZYN_MSG_FUNC = 0,     /**< function code */
    ZYN_MSG_ID = 4,       /**< of the request: any value, comes back as it was sent */
    ZYN_MSG_RESERVED = 8, /**< 0; comes back as it was sent */
    ZYN_MSG_RETCODE = 12, /**< return code; anything in a request */
    ZYN_MSG_CMD = 16,     /**< attribute id */
    ZYN_MSG_INDEX = 20,   /**< ZYN_SECTION_INDEX, 1 byte; the number of items, 1 byte */
    ZYN_MSG_ITEMS = 22,   /**< the index; behind it ZYN_SECTION_VALUE, 1 byte, and the value */
    ZYN_MSG_MIN = 26      /**< bytes of the shortest body that is a request */
};

/** Markers that open a section. */
enum { ZYN_SECTION_INDEX = 1, ZYN_SECTION_VALUE = 3 };

/** An item: its type in 1 byte, the length of its data in 2, and the data. */
enum {
    ZYN_ITEM_HEAD = 3,
    ZYN_VALUE_HEAD = 1 + ZYN_ITEM_HEAD /**< what stands before a value's data, its marker too */
};

/** Types of items. */
enum {
    ZYN_ITEM_OCTETS = 0,   /**< bytes */
    ZYN_ITEM_UINT32 = 2,   /**< 32-bit integer */
    ZYN_ITEM_COUNTER64 = 4 /**< 64-bit counter, two 32-bit halves, high first */
};

#endif
