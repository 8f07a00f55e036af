/**
 * Dispatch of management requests: decode, check, call the handler, answer in place.
 */
#include <stdio.h>
#include <string.h>

#include "cpuDefend_cmd.h"

using namespace cpudefend;

namespace
{

/** Some answers are up to this long whatever length was asked for. */
constexpr uint32_t SHORT_ANSWER = 4;

/** A request on its way from bytes to a reply. */
struct tRequest {
    adr_t adr;
    uint32_t len;
    uint32_t func;
    const tCmdTable *table;
    tCmdOp op;
    uint32_t cmd;
    tCmdIndex index;
    tCmdIndex next;
    uint32_t valuePos;
    uint8_t valueType;
    tCmdValue *value; /**< null: none, or of an unknown type */
    tCmdValue cell;
    uint8_t shortAnswer[SHORT_ANSWER];
};

/** Report a malformed request. @return false */
bool malformed(const char *format, uint32_t number, int line)
{
    CPUDEFEND_DEBUG(format, static_cast<int>(number), "cpudefendCmdProcess", line);
    return false;
}

bool undecodable(const char *format, int line)
{
    CPUDEFEND_DEBUG(format, "cpudefendCmdProcess", line);
    return false;
}

/** A field runs past the end, or states a length that no field has. */
bool badLength(const tRequest &req, int line)
{
    return malformed("\r\n  lenRx %d err in func %s in line %d!", req.len, line);
}

bool badMarker(uint8_t marker, int line)
{
    return malformed("\r\n charVal %d err in func %s in line %d!", marker, line);
}

bool decodeHead(tRequest &req)
{
    int32_t ignored;
    if (adr_decodefunc(&req.adr, &req.func) != 0)
        return undecodable("\r\n ADR_DECODE_FUNC failed in func %s in line %d!", __LINE__);
    if (adr_decoderetcode(&req.adr, &ignored) != 0)
        return undecodable("\r\n ADR_DECODE_RETCODE failed in func %s in line %d!", __LINE__);
    if (adr_decodecmd(&req.adr, &req.cmd) != 0)
        return undecodable("\r\n ADR_DECODE_CMD failed in func %s in line %d!", __LINE__);
    return true;
}

bool decodeMarker(tRequest &req, uint8_t wanted)
{
    uint8_t marker;
    if (adr_getchar(&req.adr, &marker, sizeof marker) != 0)
        return badLength(req, __LINE__);
    return marker == wanted || badMarker(marker, __LINE__);
}

bool findFunc(tRequest &req)
{
    if (req.func == 0 || req.func > CPUDEFEND_FUNC_MAX) {
        char code[sizeof "4294967295"];
        snprintf(code, sizeof code, "%u", req.func);
        CPUDEFEND_DEBUG("\r\n func %s err in func %s in line %d!", code, "cpudefendCmdProcess",
                        __LINE__);
        return false;
    }
    const tCmdFunc &func = cmdFunc(req.func);
    req.table = func.table;
    req.op = func.op;
    return true;
}

bool decodeIndex(tRequest &req)
{
    uint8_t indexNum;
    if (adr_getchar(&req.adr, &indexNum, sizeof indexNum) != 0)
        return badLength(req, __LINE__);
    if (indexNum != req.table->indexNum)
        return malformed(req.table->indexNumError, indexNum, __LINE__);
    return req.table->readIndex(&req.adr, &req.index) || badLength(req, __LINE__);
}

bool isGet(const tRequest &req)
{
    return req.op == CMD_GET;
}

/** The value's bytes stay where they are, unless a short answer could need more room. */
bool decodeOctets(tRequest &req, uint16_t len)
{
    octetstring &octets = req.cell.octets;
    octets.pBuf = req.adr.adr_now;
    octets.len = len;
    if (isGet(req) && len < SHORT_ANSWER)
        octets.pBuf = req.shortAnswer;
    return adr_getchar(&req.adr, octets.pBuf, len) == 0;
}

bool decodeCounter(tRequest &req)
{
    return adr_getuint32(&req.adr, &req.cell.counter.high) == 0 &&
           adr_getuint32(&req.adr, &req.cell.counter.low) == 0;
}

bool checkLength(uint16_t len, uint16_t wanted)
{
    return len == wanted || malformed("\r\n shortVal %d err in func %s in line %d!", len, __LINE__);
}

bool decodeValue(tRequest &req)
{
    uint16_t len;
    if (adr_getchar(&req.adr, &req.valueType, sizeof req.valueType) != 0 ||
        adr_getushort(&req.adr, &len) != 0)
        return badLength(req, __LINE__);
    if (req.valueType == ZYN_ITEM_UINT32 && !checkLength(len, sizeof(uint32_t)))
        return false;
    if (req.valueType == ZYN_ITEM_COUNTER64 && !checkLength(len, sizeof(U_INT8)))
        return false;
    if (len > adr_left(&req.adr))
        return badLength(req, __LINE__);
    req.value = &req.cell;
    switch (req.valueType) {
    case ZYN_ITEM_OCTETS: return decodeOctets(req, len);
    case ZYN_ITEM_UINT32: return adr_getuint32(&req.adr, &req.cell.number) == 0;
    case ZYN_ITEM_COUNTER64: return decodeCounter(req);
    default: req.value = nullptr; return true;
    }
}

bool decode(tRequest &req)
{
    if (req.len < ZYN_MSG_MIN)
        return badLength(req, __LINE__);
    if (!decodeHead(req) || !decodeMarker(req, ZYN_SECTION_INDEX) || !findFunc(req) ||
        !decodeIndex(req))
        return false;
    req.valuePos = adr_count(&req.adr);
    return decodeMarker(req, ZYN_SECTION_VALUE) && decodeValue(req);
}

/** Whether the value is one that the attribute's handler may touch. */
bool valueFits(const tRequest &req)
{
    if (!req.value)
        return false;
    switch (req.table->kind(req.cmd)) {
    case NM_NUMBER: return req.valueType == ZYN_ITEM_UINT32 || req.valueType == ZYN_ITEM_COUNTER64;
    case NM_OCTETS: return req.valueType == ZYN_ITEM_OCTETS;
    default: return true;
    }
}

int32_t call(tRequest &req)
{
    const tCmdTable &table = *req.table;
    switch (req.op) {
    case CMD_GETFIRST: return table.getFirst(&req.index);
    case CMD_GETNEXT: return table.getNext(&req.index, &req.next);
    default: break;
    }
    if (!valueFits(req))
        return CPUDEFEND_FAIL;
    if (isGet(req))
        return table.get(&req.index, req.cmd, req.value);
    if (req.valueType == ZYN_ITEM_OCTETS && table.kind(req.cmd) == NM_ANY)
        req.cell.number = 0; // a reset looks at no value, but the standby card gets a number
    const auto handler = req.op == CMD_SET ? table.set : table.sync;
    return handler(&req.index, req.cmd, req.value);
}

/** The bytes of an answer come in the place of the value first, one byte behind their own. */
void putInPlace(tRequest &req)
{
    const octetstring &octets = req.cell.octets;
    const uint32_t at = req.valuePos + ZYN_VALUE_HEAD;
    const uint32_t room = req.len - at;
    memmove(req.adr.adr_stream + at, octets.pBuf, octets.len < room ? octets.len : room);
}

void answerValue(tRequest &req)
{
    switch (req.valueType) {
    case ZYN_ITEM_OCTETS:
        putInPlace(req);
        adr_encodedata(&req.adr, ZYN_ITEM_OCTETS, static_cast<uint16_t>(req.cell.octets.len),
                       req.cell.octets.pBuf);
        break;
    case ZYN_ITEM_UINT32:
        adr_encodedata(&req.adr, ZYN_ITEM_UINT32, sizeof(uint32_t), &req.cell.number);
        break;
    default: adr_encodedata(&req.adr, ZYN_ITEM_COUNTER64, sizeof(U_INT8), &req.cell.counter);
    }
}

void answerWalk(tRequest &req, const tCmdIndex &found)
{
    if (req.table->walkNeedsInteger && req.valueType != ZYN_ITEM_UINT32)
        return;
    req.table->writeIndex(&req.adr, &found);
}

/** Write the answer over the request's value section. What does not fit is cut off. */
void answer(tRequest &req)
{
    adr_pos(&req.adr, req.valuePos);
    switch (req.op) {
    case CMD_GETFIRST: answerWalk(req, req.index); break;
    case CMD_GETNEXT: answerWalk(req, req.next); break;
    case CMD_GET: answerValue(req); break;
    default: break;
    }
}

} // namespace

uint32_t cpudefendCmdProcess(unsigned char *bufRx, uint32_t lenRx)
{
    tRequest req;
    memset(&req, 0, sizeof req); // an initialiser would clear the first member of a union only
    req.len = lenRx;
    adr_start(&req.adr, bufRx, lenRx);
    if (!decode(req))
        return 0;
    if (req.func == CPUDEFEND_GLOBAL_SETAPI && !req.value)
        return lenRx; // front ends send a return code of their own, and see by it that nothing ran
    const int32_t result = call(req);
    adr_pos(&req.adr, ZYN_MSG_RETCODE);
    adr_int32(&req.adr, result);
    if (result == CPUDEFEND_OK)
        answer(req);
    return lenRx;
}
