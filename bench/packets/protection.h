/**
 * Those who compete to protect the box. Each is in force from its constructor to its destructor.
 */
#ifndef BENCH_PACKETS_PROTECTION_H
#define BENCH_PACKETS_PROTECTION_H

#include <cstdint>
#include <string>
#include <sys/types.h>

#include "rules.h"

/** What each lets pass of the flood, packets per second. */
constexpr unsigned LIMIT = 1000;

class Protection
{
public:
    virtual ~Protection() = default;

    /** CPU time of its own, in seconds, beside that of whoever receives. */
    virtual double ownTime() const { return 0; }
};

/** Nothing protects the box. */
class Unprotected : public Protection
{
};

/** All is dropped at the hook, unseen. What is faster than this does not look at packets. */
class BareDrop : public Protection
{
public:
    BareDrop();
    ~BareDrop() override;

    int program() const { return program_; }

private:
    unsigned port_;
    int program_;
};

/** A limit in the ingress chain of the port, behind so many access rules. */
class Nftables : public Protection
{
public:
    explicit Nftables(unsigned rules);
    ~Nftables() override;
};

/** A limit in the chain INPUT, behind so many access rules. */
class Iptables : public Protection
{
public:
    explicit Iptables(unsigned rules);
    ~Iptables() override;
};

/** This project's daemon, told by cpudefendctl. */
class Daemon : public Protection
{
public:
    /** Start it, with access rules in its platform file, dealt out to at most 16 lists. */
    explicit Daemon(unsigned rules);
    ~Daemon() override;

    double ownTime() const override;

    /** Make and fill a policy named "bench": limits for so many protocols, and all lists. */
    void configure(unsigned entries);

    /** Change a setting of the policy's limit for a protocol. */
    void set(const std::string &protocol, const std::string &settings);

    /** Put the policy in force: one request and its reply, from this process. */
    void bind();
    void unbind();

    /** The same by cpudefendctl. */
    void bindByCommand();

    /** Change a rule of the platform file. */
    void changeRule();

    /** Have the daemon read its platform file again. */
    void reload();

    /** The packet program of the port; the caller closes it. */
    int program() const;

    /** Says which policy the port's packets are judged by: another number, another policy. */
    uint32_t policy() const;

private:
    void writePlatformFile(const std::vector<AccessRule> &rules);
    void waitUntilItServes() const;

    std::vector<AccessRule> rules_;
    unsigned lists_ = 0;
    pid_t pid_ = -1;
};

#endif
