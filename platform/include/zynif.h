/**
 * Interface layer: from an interface unit to its place in the chassis, and what the platform's
 * packet socket tells of a received packet.
 */
#ifndef ZYNIF_H
#define ZYNIF_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Where an interface unit sits. */
typedef struct tPhyIfInfo {
    uint32_t unit; /**< system (chassis) number */
    uint32_t slot; /**< slot number; unit 0 with slot 0 is the system itself, never a slot */
    uint32_t port;
    uint32_t channel;
    uint32_t virtualnum;
    uint32_t endType;
    uint32_t card;
} tPhyIfInfo;

#define SYS_INDEX_TRANS_PHY 6 /**< translation mode: interface unit to tPhyIfInfo */

/**
 * Translate an interface unit.
 * @param ifUnit interface unit (on Linux the interface index)
 * @param mode   SYS_INDEX_TRANS_PHY; no other mode is used
 * @param info   receives the place; untouched on failure
 * @return 0, or non-zero when the unit or the mode is unknown
 */
int32_t sysIndexTrans(uint32_t ifUnit, uint32_t mode, tPhyIfInfo *info);

/** Control message of the packet socket, 56 bytes. */
struct packet_rxpktinfo {
    uint32_t pkt_inport;    /**< ingress interface unit */
    uint8_t pkt_srcaddr[8]; /**< link-layer source address */
    uint16_t pkt_outervid;  /**< outer VLAN id, 0 for an untagged frame */
    uint16_t pkt_innervid;  /**< inner VLAN id, 0 without a second tag */
    uint8_t pkt_dataoffset; /**< of the network header from the frame's start, in bytes */
    uint8_t pkt_outerpri;   /**< priority (PCP) of the outer tag */
    uint8_t pkt_innerpri;   /**< priority (PCP) of the inner tag */
    uint8_t pkt_cblen;      /**< bytes used of pkt_cb */
    uint8_t pkt_cb[32];     /**< private to the driver */
    uint32_t pkt_flags;
};

/**
 * Open the source of packets that reached the CPU, or were dropped on their way to it. Optional,
 * with zynPktRecv: a platform without such a source leaves both out.
 * @return a descriptor above 0 that turns readable when there are packets, and stays the layer's;
 *         0 when the platform has no such source
 */
int32_t zynPktOpen(void);

/**
 * Take the next packet. Does not block. A packet may stand for another one that differs from it in
 * no more than its sender: tracing counts what it gets, and names whom it sees.
 * @param info     receives what is known of it
 * @param protocol receives the ethertype behind the VLAN tags; 0 for a frame with a length there
 * @param buf      receives the frame from its destination address on, zero-filled past its end
 * @param size     bytes at @a buf
 * @return the length of the frame in bytes, which may be more than @a size; 0 when there is none
 */
int32_t zynPktRecv(struct packet_rxpktinfo *info, uint16_t *protocol, unsigned char *buf,
                   uint32_t size);

/**
 * Hear how full the table of traced sources is: once before the first packet is taken, and after
 * each packet, when that has been traced. Records stay until somebody resets the table, so a source
 * of packets may choose whose it gives. Optional.
 * @param used records in use
 * @param most records that there are
 */
void zynPktTraced(uint32_t used, uint32_t most);

#ifdef __cplusplus
}
static_assert(sizeof(packet_rxpktinfo) == 56);
#endif

#endif
