/**
 * Management identifiers of cpuDefend, shared by the daemon and its front ends: where the
 * channel is, what it carries, and what the numbers on it mean. zynwire.h holds the form of the
 * messages and its history; docs/protocol.md describes both.
 *
 * The numbers below are the protocol. They are only ever added to.
 */
#ifndef CPUDEFEND_NM_H
#define CPUDEFEND_NM_H

#include <stdint.h>

#include "zynpkttype.h"
#include "zynwire.h"

#define CPUDEFEND_CMD_SOCKET "/tmp/cpudefendCmd.socket"

#define CPUDEFEND_CMD_MAXLEN 1518       /**< longest message body, bytes */
#define CPUDEFEND_NAME_MAXLEN 32        /**< longest policy name, bytes */
#define CPUDEFEND_DESCRIPTION_MAXLEN 64 /**< longest policy description, bytes */
#define CPUDEFEND_PRIORITY_LEN 3        /**< bytes of a policy's priority */
#define CPUDEFEND_PKTDATA_LEN 80        /**< bytes kept of a traced packet */
#define CPUDEFEND_CARPKT_PER_POLICY 10  /**< CAR entries: types 0 to 9, and never others */

/** Function codes. */
enum {
    CPUDEFEND_GLOBAL_GETAPI = 1,
    CPUDEFEND_GLOBAL_SETAPI,
    CPUDEFEND_GLOBAL_SYNCAPI,
    CPUDEFEND_SLOT_GETFIRST,
    CPUDEFEND_SLOT_GETNEXT,
    CPUDEFEND_SLOT_GETAPI,
    CPUDEFEND_SLOT_SETAPI,
    CPUDEFEND_SLOT_SYNCAPI,
    CPUDEFEND_POLICY_GETFIRST,
    CPUDEFEND_POLICY_GETNEXT,
    CPUDEFEND_POLICY_GETAPI,
    CPUDEFEND_POLICY_SETAPI,
    CPUDEFEND_POLICY_SYNCAPI,
    CPUDEFEND_USERDEFINED_GETFIRST,
    CPUDEFEND_USERDEFINED_GETNEXT,
    CPUDEFEND_USERDEFINED_GETAPI,
    CPUDEFEND_USERDEFINED_SETAPI,
    CPUDEFEND_USERDEFINED_SYNCAPI,
    CPUDEFEND_CARPKT_GETFIRST,
    CPUDEFEND_CARPKT_GETNEXT,
    CPUDEFEND_CARPKT_GETAPI,
    CPUDEFEND_CARPKT_SETAPI,
    CPUDEFEND_CARPKT_SYNCAPI,
    CPUDEFEND_SRCTRACE_GETFIRST,
    CPUDEFEND_SRCTRACE_GETNEXT,
    CPUDEFEND_SRCTRACE_GETAPI,
    CPUDEFEND_FUNC_MAX = CPUDEFEND_SRCTRACE_GETAPI
};

/* ---- Return codes --------------------------------------------------------------------- */

#define EBASE_ZYN 1000       /**< the platform's error base */
#define EBASE_CPUDEFEND 1054 /**< this module's error base */
#define CPUDEFEND_ERROR(base, number) ((int32_t)(((uint32_t)(base) << 16) + (number)))

#define CPUDEFEND_OK 0
#define CPUDEFEND_FAIL (-1)    /**< unknown or read-only attribute, unfit value, end of a walk */
#define CPUDEFEND_ENOSLOT 19   /**< unknown slot */
#define CPUDEFEND_EBADINDEX 22 /**< unusable source-trace index */
#define CPUDEFEND_ENOMEM CPUDEFEND_ERROR(EBASE_ZYN, 1)    /**< 0x03E80001 no free record */
#define CPUDEFEND_ENOENTRY CPUDEFEND_ERROR(EBASE_ZYN, 2)  /**< 0x03E80002 no such entry */
#define CPUDEFEND_ENOPOLICY CPUDEFEND_ERROR(EBASE_ZYN, 8) /**< 0x03E80008 owning policy missing */
#define CPUDEFEND_EINUSE CPUDEFEND_ERROR(EBASE_ZYN, 11)   /**< 0x03E8000B bound; applied anyway */
#define CPUDEFEND_EWHITELISTOFF CPUDEFEND_ERROR(EBASE_CPUDEFEND, 1) /**< 0x041E0001 */
#define CPUDEFEND_EBLACKLISTOFF CPUDEFEND_ERROR(EBASE_CPUDEFEND, 2) /**< 0x041E0002 */
#define CPUDEFEND_ENONAME CPUDEFEND_ERROR(EBASE_CPUDEFEND, 4) /**< 0x041E0004 unknown policy */
#define CPUDEFEND_EBOUND CPUDEFEND_ERROR(EBASE_CPUDEFEND, 5)  /**< 0x041E0005 refused, bound */

/* ---- Values --------------------------------------------------------------------------- */

enum { CPUDEFEND_ENABLE = 1, CPUDEFEND_DISABLE = 2 };

/** Row status: what a set of an entry status asks for. */
enum { CPUDEFEND_ROW_ACTIVATE = 1, CPUDEFEND_ROW_CREATE = 2, CPUDEFEND_ROW_DESTROY = 4 };

/** Entry status: what a get of it returns. */
enum { CPUDEFEND_STATUS_ACTIVE = 1, CPUDEFEND_STATUS_CREATED = 3 };

/** Policy mode of the system or a slot. */
enum { CPUDEFEND_FIXED = 0, CPUDEFEND_CPURAT_CONTROL = 1 };

/** CAR mode. */
enum {
    CPUDEFEND_CARPKTMODE_DEFAULT = 0, /**< none chosen */
    CPUDEFEND_CARPKTMODE_PPS = 1,     /**< packets per second */
    CPUDEFEND_CARPKTMODE_CIR = 2      /**< committed information rate and burst */
};

/** Settings of what is new, until somebody asks for others. */
enum {
    CPUDEFEND_DEFAULT_CIR = 16,   /**< kbit/s, as the next of white lists, rules, CAR entries */
    CPUDEFEND_DEFAULT_CBS = 6400, /**< bytes */
    CPUDEFEND_DEFAULT_PPS = 512,  /**< packets per second, as the next of CAR entries */
    CPUDEFEND_DEFAULT_QUEUE = 2,
    CPUDEFEND_DEFAULT_PRIORITY = 2,
    CPUDEFEND_DEFAULT_THRESHOLD = 128 /**< packets per window of source tracing */
};

/** Protocol packet types, CPUDEFEND_PKTTYPE_DOT1X and so on: those of zynpkttype.h. */
enum {
    CPUDEFEND_PKTTYPE_MAX = ZYN_PKT_MAX, /**< how many there are, not a type */
#define CPUDEFEND_PKTTYPE(number, name, word, frames) CPUDEFEND_PKTTYPE_##name = number,
    ZYN_PKT_TYPES(CPUDEFEND_PKTTYPE)
#undef CPUDEFEND_PKTTYPE
};

/* ---- Attribute ids -------------------------------------------------------------------- */

enum {
    CPUDEFEND_GLOBAL_POLICY,
    CPUDEFEND_GLOBAL_MAXPOLICYNUM,
    CPUDEFEND_GLOBAL_MAXUSERDEFINEDNUM,
    CPUDEFEND_GLOBAL_MAXCARPKTNUM,
    CPUDEFEND_GLOBAL_MAXSRCTRACENUM,
    CPUDEFEND_GLOBAL_MAXSLOTNUM,
    CPUDEFEND_GLOBAL_USEPOLICYNUM,
    CPUDEFEND_GLOBAL_USEUSERDEFINEDNUM,
    CPUDEFEND_GLOBAL_USECARPKTNUM,
    CPUDEFEND_GLOBAL_USESRCTRACENUM,
    CPUDEFEND_GLOBAL_USESLOTNUM,
    CPUDEFEND_GLOBAL_RESETSRCTRACE,
    CPUDEFEND_GLOBAL_DEBUG,
    CPUDEFEND_GLOBAL_POLICYMODE,
    CPUDEFEND_GLOBAL_L1CPURAT,
    CPUDEFEND_GLOBAL_L1POLICYNAME,
    CPUDEFEND_GLOBAL_L2CPURAT,
    CPUDEFEND_GLOBAL_L2POLICYNAME,
    CPUDEFEND_GLOBAL_L3CPURAT,
    CPUDEFEND_GLOBAL_L3POLICYNAME,
    CPUDEFEND_GLOBAL_SYNCSTATE
};

enum {
    CPUDEFEND_SLOT_POLICY,
    CPUDEFEND_SLOT_RESETSRCTRACE,
    CPUDEFEND_SLOT_POLICYMODE,
    CPUDEFEND_SLOT_L1CPURAT,
    CPUDEFEND_SLOT_L1POLICYNAME,
    CPUDEFEND_SLOT_L2CPURAT,
    CPUDEFEND_SLOT_L2POLICYNAME,
    CPUDEFEND_SLOT_L3CPURAT,
    CPUDEFEND_SLOT_L3POLICYNAME
};

enum {
    CPUDEFEND_POLICY_ENTRYSTATUS,
    CPUDEFEND_POLICY_DESCRIPTION,
    CPUDEFEND_POLICY_PRIORITY,
    CPUDEFEND_POLICY_WHITELISTENABLE,
    CPUDEFEND_POLICY_WHITELISTIP4ACL,
    CPUDEFEND_POLICY_WHITELISTIP6ACL,
    CPUDEFEND_POLICY_WHITELISTIP4CIR,
    CPUDEFEND_POLICY_WHITELISTIP4CBS,
    CPUDEFEND_POLICY_WHITELISTIP6CIR,
    CPUDEFEND_POLICY_WHITELISTIP6CBS,
    CPUDEFEND_POLICY_BLACKLISTENABLE,
    CPUDEFEND_POLICY_BLACKLISTIP4ACL,
    CPUDEFEND_POLICY_BLACKLISTIP6ACL,
    CPUDEFEND_POLICY_SRCTRACEENABLE,
    CPUDEFEND_POLICY_SRCTRACEPKTDATAENABLE,
    CPUDEFEND_POLICY_SRCTRACEALARMENABLE,
    CPUDEFEND_POLICY_SRCTRACETHRESHOLD,
    CPUDEFEND_POLICY_SRCTRACEALARMTHRESHOLD,
    CPUDEFEND_POLICY_REFCOUNT
};

enum {
    CPUDEFEND_USERDEFINED_ENTRYSTATUS,
    CPUDEFEND_USERDEFINED_DENY,
    CPUDEFEND_USERDEFINED_IP4ACL,
    CPUDEFEND_USERDEFINED_IP6ACL,
    CPUDEFEND_USERDEFINED_CIR,
    CPUDEFEND_USERDEFINEDT_CBS /**< the T stays: front ends are compiled with it */
};

enum {
    CPUDEFEND_CARPKT_CIR,
    CPUDEFEND_CARPKT_CBS,
    CPUDEFEND_CARPKT_PPS,
    CPUDEFEND_CARPKT_MODE,
    CPUDEFEND_CARPKT_QUEUE,
    CPUDEFEND_CARPKT_PRIORITY,
    CPUDEFEND_CARPKT_DENY,
    CPUDEFEND_CARPKT_PASSNUM,
    CPUDEFEND_CARPKT_DROPNUM,
    CPUDEFEND_CARPKT_TOTALPKTBPS,
    CPUDEFEND_CARPKT_TOTALPKTPPS
};

enum {
    CPUDEFEND_SRCTRACE_OUTERVLAN,
    CPUDEFEND_SRCTRACE_INNERVLAN,
    CPUDEFEND_SRCTRACE_DSTIP,
    CPUDEFEND_SRCTRACE_PTKDATA,
    CPUDEFEND_SRCTRACE_TOTALNUM
};

/** Filters of a source-trace walk: bit n of `searchBit`, counted from the most significant. */
enum {
    CPUDEFEND_SRCTRACEIDX_SEARCHIFUNIT,
    CPUDEFEND_SRCTRACEIDX_SEARCHSRCIP,
    CPUDEFEND_SRCTRACEIDX_SEARCHPKTTYPE,
    CPUDEFEND_SRCTRACEIDX_SEARCHSRCMAC
};

/* ---- Index records -------------------------------------------------------------------- */

typedef struct tCpuDefendPolicyIdx {
    uint8_t name[CPUDEFEND_NAME_MAXLEN];
    uint32_t len; /**< bytes of name, 0 to 32 */
} tCpuDefendPolicyIdx;

typedef struct tcpuDefendSlotIdx {
    uint32_t sysId;
    uint32_t slotId;
} tcpuDefendSlotIdx;

typedef struct tcpuDefendUserDefinedIdx {
    uint8_t policyName[CPUDEFEND_NAME_MAXLEN];
    uint32_t policyNameLen;
    uint32_t index; /**< number of the rule within its policy */
} tcpuDefendUserDefinedIdx;

typedef struct tcpuDefendCarPktIdx {
    uint8_t policyName[CPUDEFEND_NAME_MAXLEN];
    uint32_t policyNameLen;
    uint32_t pktType; /**< CPUDEFEND_PKTTYPE_* */
} tcpuDefendCarPktIdx;

typedef struct tcpuDefendSrcTraceIdx {
    uint32_t ifUnit;
    uint8_t srcIp[4]; /**< network byte order */
    uint8_t pktType;  /**< CPUDEFEND_PKTTYPE_* */
    uint8_t srcMac[6];
    uint8_t searchBit; /**< fields that a walk must match, 0x80 >> CPUDEFEND_SRCTRACEIDX_* */
} tcpuDefendSrcTraceIdx;

#endif
