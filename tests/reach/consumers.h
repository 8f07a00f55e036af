/**
 * Everybody behind the port who would act on a frame: the kernel's protocols, and programs of every
 * kind. They are asked what they saw; what they should see they do not know.
 */
#ifndef REACH_CONSUMERS_H
#define REACH_CONSUMERS_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/descriptor.h"
#include "wire.h"

/** What may come to a consumer while something is denied. */
enum class Rule {
    Nothing, /**< nothing at all */
    Counted, /**< what was counted: docs/packet-types.md has a type for it */
    Anything /**< also what is of no type */
};

/** What is denied: see policies.h. */
enum Denial { Everything, Protocols, Ports, DENIALS };

struct Verdicts {
    Rule of[DENIALS];
};

/** What a consumer saw. */
struct Sightings {
    uint64_t count = 0;
    std::vector<uint32_t> ids; /**< of those that had one */
};

/** How a consumer is asked. */
class Eye
{
public:
    virtual ~Eye() = default;

    /** Add what it saw since it was asked last. It never waits. */
    virtual void look(Sightings *seen) = 0;
};

struct Consumer {
    std::string name;
    Verdicts verdicts;
    std::unique_ptr<Eye> eye; /**< none for those who are known by the host's replies */
};

class KernelCounters;

class Consumers
{
public:
    /** What the host sent to itself. It is nobody that anything is kept from. */
    static constexpr char loopback[] = "the host itself";

    /** Put everybody in place, in the caller's network name space. @throw std::runtime_error */
    Consumers(const PortKind &kind, Wire *wire);
    ~Consumers();

    const std::vector<Consumer> &all() const { return all_; }

    /** Indexes of those of a name, or whose names begin so when a "*" ends it. */
    std::vector<size_t> of(const std::string &name) const;

    /** Ask everybody but who is known by the host's replies. @param seen has an element for each */
    void look(std::vector<Sightings> *seen);

    /** Take in what the host has replied so far. @return whether it ends with the marker */
    bool lookAtReplies(std::vector<Sightings> *seen, uint32_t marker);

private:
    void add(std::string name, const Verdicts &verdicts, std::unique_ptr<Eye> eye);
    void addReaders(const PortKind &kind);
    void addSockets(const PortKind &kind);
    void addCounters(const PortKind &kind);
    void addReplies();

    Wire *wire_;
    std::unique_ptr<KernelCounters> counters_;
    std::vector<Consumer> all_;
    size_t firstReply_ = 0; /**< index of the first that is known by what the host sends */
    std::vector<zynlinux::Descriptor> listeners_; /**< of TCP: nobody accepts */
};

#endif
