/**
 * The daemon that protects the port, and what it is told to deny or to hold to a rate.
 */
#ifndef REACH_POLICIES_H
#define REACH_POLICIES_H

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "consumers.h"
#include "daemon_process.h"

/** The policy of a denial, whose index is the one of the consumers' verdicts. */
extern const char *const denialNames[DENIALS];

/** What a rate is counted in. */
enum class Unit { Packet, Octet };

/** What a limit promises of everybody who sees what it limits. */
struct Cap {
    std::string name;
    std::vector<std::string> consumers; /**< names as Consumers::of() takes them */
    Unit unit;
    double rate;  /**< of units, in a second */
    double burst; /**< units at once */
};

std::vector<std::string> consumersOf(const std::vector<Cap> &caps);

struct RatePolicy {
    const char *name;
    std::vector<std::string> consumers; /**< whom it is there for; names as in a Cap */
    std::vector<Cap> caps;
};

/** Limits of packet types, a white list, and rules: each at rates. */
const std::vector<RatePolicy> &ratePolicies();

/** Two policies that limit the same types to like rates, one by packets and the other by octets. */
constexpr const char *turns[] = {"by-packets", "by-octets"};
const std::vector<Cap> &turningCaps(Unit unit);

class Protection
{
public:
    /** Start the daemon on the port of the plan. No policy is bound. */
    explicit Protection(const PortKind &kind);
    ~Protection();

    /** Bind a policy in place of the one that is bound; the first time it is told the daemon. */
    void bind(const std::string &policy);

    /** Have none bound. */
    void unbind();

private:
    std::string file_;
    std::unique_ptr<DaemonProcess> daemon_;
    std::set<std::string> told_;
};

#endif
