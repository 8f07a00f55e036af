#include "transcript.h"

#include "cpuDefend_nm.h"

namespace channel
{

namespace
{

Bytes framed(const Bytes &body)
{
    return be32(static_cast<uint32_t>(body.size())) + body;
}

class Conversation
{
public:
    void say(const std::string &comment, const Bytes &body)
    {
        exchanges.push_back({comment, framed(body)});
    }

    void say(const std::string &comment, uint32_t code, uint32_t attribute, const Index &index,
             const Value &value, size_t room = 0)
    {
        say(comment, request(code, attribute, index, value, room));
    }

    /** Bytes that are no frame. */
    void sayRaw(const std::string &comment, const Bytes &sent)
    {
        exchanges.push_back({comment, sent});
    }

    std::vector<Exchange> exchanges;
};

std::string attribute(uint32_t id)
{
    return "attribute " + std::to_string(id);
}

const Index global = globalIndex();
const Index standard = policyIndex("default");
const Index edge = policyIndex("edge");

bool isGlobalName(uint32_t id)
{
    return id == 0 || id == 15 || id == 17 || id == 19 || id == 20;
}

void readGlobals(Conversation &c)
{
    for (uint32_t id = 0; id <= 21; ++id)
        c.say("global get, " + attribute(id), CPUDEFEND_GLOBAL_GETAPI, id, global,
              isGlobalName(id) ? octets(std::string(32, '.')) : number(0x0F0F0F0F));
    c.say("global get as a counter", CPUDEFEND_GLOBAL_GETAPI, CPUDEFEND_GLOBAL_MAXCARPKTNUM, global,
          counter(1, 2));
}

void changeGlobals(Conversation &c)
{
    const struct {
        const char *comment;
        uint32_t code, id;
        Value value;
    } changes[] = {
        {"set a read-only attribute", 2, CPUDEFEND_GLOBAL_MAXSLOTNUM, number(3)},
        {"bind a policy that does not exist", 2, CPUDEFEND_GLOBAL_POLICY, octets("nobody")},
        {"bind the default policy", 2, CPUDEFEND_GLOBAL_POLICY, octets("default")},
        {"bind it again: no change", 2, CPUDEFEND_GLOBAL_POLICY, octets("default")},
        {"the bound policy's name", 1, CPUDEFEND_GLOBAL_POLICY, octets("...........")},
        {"its first three bytes", 1, CPUDEFEND_GLOBAL_POLICY, octets("...")},
        {"debugging to 2, which is off", 2, CPUDEFEND_GLOBAL_DEBUG, number(2)},
        {"debugging is 2", 1, CPUDEFEND_GLOBAL_DEBUG, number(0)},
        {"replayed: debugging to 0", 3, CPUDEFEND_GLOBAL_DEBUG, number(0)},
        {"set without a value: no code", 2, CPUDEFEND_GLOBAL_DEBUG, unknown()},
        {"sync without a value", 3, CPUDEFEND_GLOBAL_DEBUG, unknown()},
        {"bytes for an integer", 2, CPUDEFEND_GLOBAL_DEBUG, octets("1")},
        {"an integer for bytes", 2, CPUDEFEND_GLOBAL_POLICY, number(1)},
    };
    for (const auto &[comment, code, id, value] : changes)
        c.say(std::string("global: ") + comment, code, id, global, value);
}

void changeWhileBound(Conversation &c)
{
    const Index car = childIndex("default", CPUDEFEND_PKTTYPE_ARP);
    c.say("bound: CAR change refused", CPUDEFEND_CARPKT_SETAPI, CPUDEFEND_CARPKT_PPS, car,
          number(200));
    c.say("bound: policy change applied, with a warning", CPUDEFEND_POLICY_SETAPI,
          CPUDEFEND_POLICY_WHITELISTIP4ACL, standard, number(2000));
    c.say("bound: the number was stored", CPUDEFEND_POLICY_GETAPI, CPUDEFEND_POLICY_WHITELISTIP4ACL,
          standard, number(0));
    c.say("bound: count of bindings", CPUDEFEND_POLICY_GETAPI, CPUDEFEND_POLICY_REFCOUNT, standard,
          number(0));
    c.say("bound: destroying refused", CPUDEFEND_POLICY_SETAPI, CPUDEFEND_POLICY_ENTRYSTATUS,
          standard, number(CPUDEFEND_ROW_DESTROY));
    c.say("unbind", CPUDEFEND_GLOBAL_SETAPI, CPUDEFEND_GLOBAL_POLICY, global, octets(""));
}

bool isPolicyBytes(uint32_t id)
{
    return id == CPUDEFEND_POLICY_DESCRIPTION || id == CPUDEFEND_POLICY_PRIORITY;
}

void policies(Conversation &c)
{
    const auto row = [&c](const std::string &comment, const std::string &name, uint32_t status) {
        c.say(comment, CPUDEFEND_POLICY_SETAPI, CPUDEFEND_POLICY_ENTRYSTATUS, policyIndex(name),
              number(status));
    };
    row("create a policy", "edge", CPUDEFEND_ROW_CREATE);
    for (uint32_t id = 0; id <= 19; ++id)
        c.say("policy get, " + attribute(id), CPUDEFEND_POLICY_GETAPI, id, edge,
              isPolicyBytes(id) ? octets(std::string(8, '.')) : number(0xA5A5A5A5));
    for (uint32_t id = 1; id <= 19; ++id) {
        c.say("policy set, " + attribute(id),
              id % 2 ? CPUDEFEND_POLICY_SETAPI : CPUDEFEND_POLICY_SYNCAPI, id, edge,
              isPolicyBytes(id) ? octets("\1\2\3\4\5\6") : number(0x00010001));
        c.say("policy get again, " + attribute(id), CPUDEFEND_POLICY_GETAPI, id, edge,
              isPolicyBytes(id) ? octets(std::string(8, '.')) : number(0xA5A5A5A5));
    }
    c.say("policy set as a counter", CPUDEFEND_POLICY_SETAPI, CPUDEFEND_POLICY_SRCTRACETHRESHOLD,
          edge, counter(0x12345678, 9));
    c.say("policy get as a counter", CPUDEFEND_POLICY_GETAPI, CPUDEFEND_POLICY_SRCTRACETHRESHOLD,
          edge, counter(1, 0x89ABCDEF));
    c.say("priority with no room", CPUDEFEND_POLICY_GETAPI, CPUDEFEND_POLICY_PRIORITY, edge,
          octets(""));
    c.say("get of a policy that does not exist", CPUDEFEND_POLICY_GETAPI,
          CPUDEFEND_POLICY_DESCRIPTION, policyIndex("nobody"), octets("as it was"));
    c.say("get without a value", CPUDEFEND_POLICY_GETAPI, CPUDEFEND_POLICY_REFCOUNT, edge,
          unknown());
    row("a name of 32 bytes", std::string(32, 'n'), CPUDEFEND_ROW_CREATE);
    row("fill the pool", "b", CPUDEFEND_ROW_CREATE);
    row("the pool is exhausted", "c", CPUDEFEND_ROW_CREATE);
    row("activate", "edge", CPUDEFEND_ROW_ACTIVATE);
}

void walks(Conversation &c)
{
    c.say("first policy", CPUDEFEND_POLICY_GETFIRST, 0, policyIndex(""), number(0), 40);
    for (const std::string name : {"b", "bb", "default", "edge", "nnn"})
        c.say("policy after " + name, CPUDEFEND_POLICY_GETNEXT, 0, policyIndex(name), number(0),
              40);
    c.say("after the last policy", CPUDEFEND_POLICY_GETNEXT, 0, policyIndex(std::string(32, 'n')),
          number(0), 40);
    c.say("first CAR entry", CPUDEFEND_CARPKT_GETFIRST, 0, childIndex("", 0), number(0), 60);
    for (const std::string name : {"b", "edge", "default"})
        for (uint32_t type : {0u, 8u, 9u, 0xFFFFFFFFu})
            c.say("CAR entry after " + name + " " + std::to_string(type), CPUDEFEND_CARPKT_GETNEXT,
                  0, childIndex(name, type), octets(""), 60);
    c.say("after the last CAR entry", CPUDEFEND_CARPKT_GETNEXT, 0,
          childIndex(std::string(32, 'n'), 9), number(0), 60);
    c.say("an answer cut within a number", CPUDEFEND_POLICY_GETFIRST, 0, policyIndex(""),
          octets(""));
    c.say("an answer cut within a name", CPUDEFEND_POLICY_GETFIRST, 0, policyIndex(""), octets(""),
          7);
}

void carEntries(Conversation &c)
{
    const Index car = childIndex("edge", CPUDEFEND_PKTTYPE_DHCPSNOOPIP);
    for (uint32_t id = 0; id <= 11; ++id) {
        c.say("CAR get, " + attribute(id), CPUDEFEND_CARPKT_GETAPI, id, car, number(0));
        c.say("CAR set, " + attribute(id),
              id % 2 ? CPUDEFEND_CARPKT_SETAPI : CPUDEFEND_CARPKT_SYNCAPI, id, car, number(258));
        c.say("CAR get again, " + attribute(id), CPUDEFEND_CARPKT_GETAPI, id, car, counter(3, 4));
    }
    c.say("CAR get, no such type", CPUDEFEND_CARPKT_GETAPI, CPUDEFEND_CARPKT_CIR,
          childIndex("edge", 10), number(7));
    c.say("CAR get, type beyond a byte", CPUDEFEND_CARPKT_GETAPI, CPUDEFEND_CARPKT_CIR,
          childIndex("edge", 256), number(7));
    c.say("CAR get as bytes", CPUDEFEND_CARPKT_GETAPI, CPUDEFEND_CARPKT_CIR, car, octets("abcd"));
}

/** Each kind of value with each code of the tables of slots, rules and traced sources. */
void otherTables(Conversation &c)
{
    for (uint32_t code : {4u, 5u, 6u, 7u, 8u, 14u, 15u, 16u, 17u, 18u, 24u, 25u, 26u}) {
        const std::string name = "code " + std::to_string(code);
        c.say(name + " with a number", code, 1, anyIndex(code), number(0x01020304), 30);
        c.say(name + " with bytes", code, 1, anyIndex(code), octets("bytes"), 30);
        c.say(name + " without a value", code, 1, anyIndex(code), unknown(), 30);
    }
}

/** The daemon has no slot of its own accord. */
void slots(Conversation &c)
{
    const Index slot = slotIndex(1, 0x100);
    for (uint32_t id = 0; id <= 9; ++id) {
        const bool isName = id == 0 || id == 4 || id == 6 || id == 8;
        const Value value = isName ? octets("default") : number(1);
        c.say("slot get, " + attribute(id), CPUDEFEND_SLOT_GETAPI, id, slot, value);
        c.say("slot set, " + attribute(id), id % 2 ? CPUDEFEND_SLOT_SETAPI : CPUDEFEND_SLOT_SYNCAPI,
              id, slot, value);
    }
}

void readRule(Conversation &c, const std::string &comment, const Index &rule)
{
    for (uint32_t id = 0; id <= 6; ++id)
        c.say(comment + ", " + attribute(id), CPUDEFEND_USERDEFINED_GETAPI, id, rule,
              id % 2 ? counter(1, 0x89ABCDEF) : number(0x5A5A5A5A));
}

void ruleRows(Conversation &c)
{
    const struct {
        const char *comment, *policy;
        uint32_t index, status;
    } rows[] = {
        {"create", "edge", 3, CPUDEFEND_ROW_CREATE},
        {"create one that goes before it", "edge", 1, CPUDEFEND_ROW_CREATE},
        {"create one that exists", "edge", 3, CPUDEFEND_ROW_CREATE},
        {"create with an index beyond a byte", "edge", 258, CPUDEFEND_ROW_CREATE},
        {"create on another policy", "default", 7, CPUDEFEND_ROW_CREATE},
        {"create without its policy", "nobody", 1, CPUDEFEND_ROW_CREATE},
        {"activate", "edge", 3, CPUDEFEND_ROW_ACTIVATE},
        {"activate one that is not there", "edge", 9, CPUDEFEND_ROW_ACTIVATE},
        {"destroy one that is not there", "edge", 258, CPUDEFEND_ROW_DESTROY},
        {"destroy", "edge", 1, CPUDEFEND_ROW_DESTROY},
        {"a status that is none", "edge", 3, 3},
    };
    for (const auto &[comment, policy, index, status] : rows)
        c.say(std::string("rule: ") + comment, CPUDEFEND_USERDEFINED_SETAPI,
              CPUDEFEND_USERDEFINED_ENTRYSTATUS, childIndex(policy, index), number(status));
}

void rules(Conversation &c)
{
    const Index rule = childIndex("edge", 3);
    ruleRows(c);
    readRule(c, "rule get", rule);
    for (uint32_t id = 1; id <= 6; ++id)
        c.say("rule set, " + attribute(id),
              id % 2 ? CPUDEFEND_USERDEFINED_SETAPI : CPUDEFEND_USERDEFINED_SYNCAPI, id, rule,
              number(70000 + id));
    readRule(c, "rule get again", rule);
    c.say("rule get, no such index", CPUDEFEND_USERDEFINED_GETAPI, CPUDEFEND_USERDEFINED_CIR,
          childIndex("edge", 258), number(7));
    c.say("first rule", CPUDEFEND_USERDEFINED_GETFIRST, 0, childIndex("", 0), unknown(), 40);
    for (uint32_t index : {0u, 2u, 3u, 0xFFFFFFFFu})
        c.say("rule after edge " + std::to_string(index), CPUDEFEND_USERDEFINED_GETNEXT, 0,
              childIndex("edge", index), number(0), 40);
    c.say("after the last rule", CPUDEFEND_USERDEFINED_GETNEXT, 0, childIndex("default", 7),
          number(0), 40);
    c.say("rules in use: adds and deletes", CPUDEFEND_GLOBAL_GETAPI,
          CPUDEFEND_GLOBAL_USEUSERDEFINEDNUM, global, number(0));
}

void rulesWhileBound(Conversation &c)
{
    const Index rule = childIndex("edge", 3);
    c.say("bind a policy with rules", CPUDEFEND_GLOBAL_SETAPI, CPUDEFEND_GLOBAL_POLICY, global,
          octets("edge"));
    c.say("bound: rule change refused", CPUDEFEND_USERDEFINED_SETAPI, CPUDEFEND_USERDEFINED_CIR,
          rule, number(1));
    for (uint32_t status : {CPUDEFEND_ROW_ACTIVATE, CPUDEFEND_ROW_CREATE, CPUDEFEND_ROW_DESTROY})
        c.say("bound: rule status " + std::to_string(status) + " refused",
              CPUDEFEND_USERDEFINED_SYNCAPI, CPUDEFEND_USERDEFINED_ENTRYSTATUS, rule,
              number(status));
    c.say("bound: a rule without its index is still missing first", CPUDEFEND_USERDEFINED_SETAPI, 6,
          childIndex("edge", 9), number(1));
    c.say("unbind it", CPUDEFEND_GLOBAL_SYNCAPI, CPUDEFEND_GLOBAL_POLICY, global, octets(""));
}

void levels(Conversation &c)
{
    const auto get = [&c](const std::string &comment, uint32_t id) {
        c.say(comment + ", " + attribute(id), CPUDEFEND_GLOBAL_GETAPI, id, global,
              isGlobalName(id) ? octets("........") : number(0x0F0F0F0F));
    };
    const auto set = [&c](const std::string &comment, uint32_t id, const Value &value) {
        c.say(comment + ", " + attribute(id),
              id % 3 ? CPUDEFEND_GLOBAL_SETAPI : CPUDEFEND_GLOBAL_SYNCAPI, id, global, value);
    };
    // Thresholds that no usage exceeds: no level is ever selected.
    for (uint32_t id : {14u, 16u, 18u})
        set("a threshold cut to a byte", id, number(0x1FF));
    for (uint32_t id : {15u, 17u, 19u}) {
        set("a level without its policy", id, octets("nobody"));
        set("a level's policy", id, octets(id == 17 ? "b" : "edge"));
    }
    for (uint32_t id = 13; id <= 20; ++id)
        get("levels", id);
    set("bind before the mode changes", 0, octets("default"));
    set("CPU-rate mode", 13, number(1));
    get("the policy is unbound", 0);
    get("the mode", 13);
    set("fixed mode again", 13, number(0x100));
    get("the mode", 13);
    get("nothing is bound again", 0);
}

/** Positions that the standby learns from its peer; the system is in fixed mode. */
void syncState(Conversation &c)
{
    const auto say = [&c](const std::string &comment, uint32_t code, const Bytes &records) {
        c.say("state of the peer: " + comment, code, CPUDEFEND_GLOBAL_SYNCSTATE, global,
              octets(std::string(records.begin(), records.end())));
    };
    const auto record = [](uint32_t sysId, uint32_t slotId, uint32_t position) {
        return be32(sysId) + be32(slotId) + be32(position);
    };
    say("none", CPUDEFEND_GLOBAL_SETAPI, {});
    say("half a record", CPUDEFEND_GLOBAL_SETAPI, be32(0) + be32(0));
    say("the system and a slot that is not there", CPUDEFEND_GLOBAL_SYNCAPI,
        record(1, 2, 3) + record(0, 0, 0x102) + be32(0));
    c.say("the level in force is removed, and is not there", CPUDEFEND_GLOBAL_SETAPI,
          CPUDEFEND_GLOBAL_L2POLICYNAME, global, octets(""));
    c.say("the count of bindings has no floor", CPUDEFEND_POLICY_GETAPI, CPUDEFEND_POLICY_REFCOUNT,
          policyIndex("b"), number(0));
    c.say("no level is in force any more", CPUDEFEND_GLOBAL_SETAPI, CPUDEFEND_GLOBAL_L2POLICYNAME,
          global, octets("default"));
    c.say("a level that is not in force", CPUDEFEND_GLOBAL_SETAPI, CPUDEFEND_GLOBAL_L2POLICYNAME,
          global, octets(""));
}

void sources(Conversation &c)
{
    for (const Value &value : {number(1), counter(1, 2), octets("any")})
        c.say("reset source tracing", CPUDEFEND_GLOBAL_SETAPI, CPUDEFEND_GLOBAL_RESETSRCTRACE,
              global, value);
    const Bytes ip{10, 0, 0, 1}, mac{2, 0, 0, 0, 0, 1};
    for (uint8_t filter : {0x00, 0x20, 0xFF}) {
        const Index index = srcTraceIndex(7, ip, 1, mac, filter);
        c.say("first source", CPUDEFEND_SRCTRACE_GETFIRST, 0, index, number(0), 40);
        c.say("next source", CPUDEFEND_SRCTRACE_GETNEXT, 0, index, number(0), 40);
    }
    for (uint32_t id = 0; id <= 5; ++id) {
        const Value value = id == 2 || id == 3 ? octets("....") : number(7);
        const std::string what = "source get, " + attribute(id);
        c.say(what, CPUDEFEND_SRCTRACE_GETAPI, id, srcTraceIndex(7, ip, 1, mac, 0), value);
        c.say(what + ", interface 0", CPUDEFEND_SRCTRACE_GETAPI, id,
              srcTraceIndex(0, ip, 1, mac, 0), value);
        c.say(what + ", type 0", CPUDEFEND_SRCTRACE_GETAPI, id, srcTraceIndex(7, ip, 0, mac, 0),
              value);
    }
}

void destroyed(Conversation &c)
{
    c.say("destroy a policy", CPUDEFEND_POLICY_SETAPI, CPUDEFEND_POLICY_ENTRYSTATUS, edge,
          number(CPUDEFEND_ROW_DESTROY));
    c.say("its status is gone", CPUDEFEND_POLICY_GETAPI, CPUDEFEND_POLICY_ENTRYSTATUS, edge,
          number(0));
    c.say("its CAR entries are still counted", CPUDEFEND_GLOBAL_GETAPI,
          CPUDEFEND_GLOBAL_USECARPKTNUM, global, number(0));
    c.say("policies in use", CPUDEFEND_GLOBAL_GETAPI, CPUDEFEND_GLOBAL_USEPOLICYNUM, global,
          number(0));
}

void malformedFields(Conversation &c)
{
    const Bytes sound =
        request(CPUDEFEND_POLICY_GETAPI, CPUDEFEND_POLICY_REFCOUNT, standard, number(0));
    c.say("25 bytes", Bytes(sound.begin(), sound.begin() + 25));
    c.say("function code 0", over(sound, FUNC_AT, be32(0)));
    c.say("function code 27", over(sound, FUNC_AT, be32(27)));
    c.say("index marker 2", over(sound, MARKER_AT, {2}));
    c.say("value marker 1", over(sound, valueAt(standard), {1}));
    for (uint32_t code = 1; code <= 26; ++code)
        c.say("code " + std::to_string(code) + ": index count 4",
              over(request(code, 0, anyIndex(code), number(0)), COUNT_AT, {4}));
    for (uint32_t length : {33u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu})
        c.say("name length " + std::to_string(length), over(sound, ITEMS_AT + 3, be32(length)));
    c.say("name past the end", Bytes(sound.begin(), sound.begin() + 34));
    c.say("integer of 3 bytes", CPUDEFEND_POLICY_GETAPI, 0, standard, {2, 3, be32(0)});
    c.say("counter of 4 bytes", CPUDEFEND_POLICY_GETAPI, 0, standard, {4, 4, be32(0)});
    c.say("bytes past the end", CPUDEFEND_POLICY_GETAPI, 1, standard, {0, 5, be32(0)});
    c.say("integer past the end", CPUDEFEND_POLICY_GETAPI, 0, standard, {2, 4, be16(0)});
}

void malformedFrames(Conversation &c)
{
    c.sayRaw("nothing", {});
    c.sayRaw("half a length", {0, 0});
    c.sayRaw("a length of 0", be32(0));
    c.sayRaw("a length without its body", be32(40) + Bytes(39));
    for (uint32_t length : {1519u, 0x80000000u, 0xFFFFFFFFu})
        c.sayRaw("a declared length of " + std::to_string(length), be32(length));
    Bytes longest =
        request(CPUDEFEND_GLOBAL_GETAPI, CPUDEFEND_GLOBAL_MAXPOLICYNUM, global, number(0));
    longest.resize(CPUDEFEND_CMD_MAXLEN);
    c.say("the longest request", longest);
}

std::string hex(const Bytes &data, size_t from, size_t to)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = from; i < to; ++i) {
        text += digits[data[i] >> 4];
        text += digits[data[i] & 15];
    }
    return text;
}

/** Where a reply differs from what was sent, as "at:bytes". */
std::string differences(const Bytes &sent, const Bytes &reply)
{
    std::string text;
    for (size_t at = 0, end; at < sent.size(); at = end) {
        const bool differs = sent[at] != reply[at];
        for (end = at; end < sent.size() && (sent[end] != reply[end]) == differs;)
            ++end;
        if (differs)
            text += (text.empty() ? "" : " ") + std::to_string(at) + ':' + hex(reply, at, end);
    }
    return text.empty() ? "as sent" : text;
}

} // namespace

std::vector<Exchange> conversation()
{
    Conversation c;
    readGlobals(c);
    changeGlobals(c);
    changeWhileBound(c);
    policies(c);
    walks(c);
    carEntries(c);
    otherTables(c);
    slots(c);
    rules(c);
    rulesWhileBound(c);
    levels(c);
    syncState(c);
    sources(c);
    destroyed(c);
    malformedFields(c);
    malformedFrames(c);
    return c.exchanges;
}

std::string written(const Exchange &exchange, const Bytes &reply)
{
    const std::string comment = exchange.comment + " | ";
    if (reply.empty())
        return comment + "closed";
    if (reply.size() != exchange.sent.size())
        return comment + "= " + hex(reply, 0, reply.size());
    return comment + differences(exchange.sent, reply);
}

} // namespace channel
