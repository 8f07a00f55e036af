/**
 * What the tests of the management API share beyond core_test.h: values as the handlers take
 * them, and policies whose programming is easily told apart.
 */
#ifndef NM_TEST_H
#define NM_TEST_H

#include <cstring>

#include "core_test.h"

/** A value as a request brings it: a number in the first word, or a run of bytes. */
class Cell
{
public:
    explicit Cell(uint32_t number) { memcpy(&octets_, &number, sizeof number); }

    /** The bytes of @a text. */
    explicit Cell(const std::string &text) : buffer_(text)
    {
        octets_ = {reinterpret_cast<unsigned char *>(buffer_.data()),
                   static_cast<uint32_t>(text.size())};
    }

    /** Room for an answer of @a room bytes, with more behind it that must stay as it is. */
    static Cell room(uint32_t room)
    {
        Cell cell(std::string(room + 128u, '~'));
        cell.octets_.len = room;
        return cell;
    }

    Cell(Cell &&other) noexcept : octets_(other.octets_), buffer_(std::move(other.buffer_))
    {
        if (!buffer_.empty())
            octets_.pBuf = reinterpret_cast<unsigned char *>(buffer_.data());
    }

    octetstring *operator&() { return &octets_; }

    uint32_t number() const
    {
        uint32_t number;
        memcpy(&number, &octets_, sizeof number);
        return number;
    }

    /** The answered bytes. */
    std::string text() const
    {
        EXPECT_EQ(buffer_.substr(octets_.len).find_first_not_of('~'), std::string::npos);
        return buffer_.substr(0, octets_.len);
    }

private:
    octetstring octets_{};
    std::string buffer_;
};

/** A policy that takes one hardware call wherever it is bound: ACL @a acl denied. */
inline tCpuDefendPolicyEntry *addOneCallPolicy(const std::string &name, uint16_t acl)
{
    tCpuDefendPolicyEntry *policy = addBarePolicy(name);
    policy->blackListEnable = CPUDEFEND_ENABLE;
    policy->blackListIp4Acl = acl;
    return policy;
}

/** What was programmed and removed, in order: "+101 1/5" on a slot, "-101" on the system. */
inline std::vector<std::string> programmed()
{
    std::vector<std::string> found;
    for (const scripted::Record &record : scripted::programming()) {
        std::string text = record.call == scripted::Call::AclAdd   ? "+"
                           : record.call == scripted::Call::AclDel ? "-"
                                                                   : "CAR ";
        text += std::to_string(record.acl);
        if (record.slot)
            text += " " + std::to_string(record.slot->first) + "/" +
                    std::to_string(record.slot->second);
        found.push_back(text);
    }
    return found;
}

/** The synchronisation calls, in order. */
inline std::vector<scripted::Record> synced()
{
    std::vector<scripted::Record> found;
    for (const scripted::Record &record : scripted::calls)
        if (record.call == scripted::Call::ScalarSync || record.call == scripted::Call::SlotSync)
            found.push_back(record);
    return found;
}

/** Calls of all kinds, role queries left out. */
inline std::vector<scripted::Call> callKinds()
{
    std::vector<scripted::Call> found;
    for (const scripted::Record &record : scripted::calls)
        if (record.call != scripted::Call::ScalarGet)
            found.push_back(record.call);
    return found;
}

inline std::string levelName(const tCpuDefendCpuRatControl &level)
{
    return std::string(reinterpret_cast<const char *>(level.policyName), level.policyNameLen);
}

inline void storeLevel(tCpuDefendCpuRatControl &level, const std::string &name)
{
    memset(level.policyName, 0, sizeof level.policyName);
    memcpy(level.policyName, name.data(), name.size());
    level.policyNameLen = static_cast<uint8_t>(name.size());
}

/** What @a print writes to standard output. */
template <typename Print> std::string output(Print print)
{
    testing::internal::CaptureStdout();
    print();
    return testing::internal::GetCapturedStdout();
}

#endif
