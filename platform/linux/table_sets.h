/**
 * The compiled ACLs in the kernel. Places with the same ACLs in the same order share a set.
 */
#ifndef ZYNLINUX_TABLE_SETS_H
#define ZYNLINUX_TABLE_SETS_H

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "acl.h"
#include "dataplane.h"

namespace zynlinux
{

using AclLists = std::map<uint16_t, AclList>; /**< by number */

class TableSets
{
public:
    /** Both must outlast this object. */
    TableSets(DataPlane &plane, const AclLists &lists);

    /** Have an idle set ready if there are lists, so that binding need not wait for one. */
    void prepare();

    /** Whether all these ACLs are there. */
    bool known(const std::vector<uint16_t> &numbers) const;

    /** Whether they can be compiled together; none can. */
    bool fits(const std::vector<uint16_t> &numbers);

    /**
     * The set for these ACLs, compiled now if it has not been.
     * @throw Failure when they do not fit, or no set is free
     */
    uint32_t use(const std::vector<uint16_t> &numbers);

    /** A set that a former daemon left in force. */
    void inherit(uint32_t set);

    /** Drop the sets that a former daemon left and no policy in force refers to. */
    void dropUnknown();

    /** Give back the sets that no policy in force refers to. @param inForce all those that do */
    void keep(const std::vector<uint32_t> &inForce);

    /** The lists have changed: what is compiled from now on is compiled anew. */
    void forget();

private:
    /** What the kernel has of a set. */
    struct Set {
        bool taken = false;  /**< a policy in force refers to it, or will in a moment */
        SharedTables tables; /**< null: there is none, or a former daemon made it */
        size_t used = 0;     /**< cells from the first on; the others are 0 */
    };

    /** The compiled ACLs, or null when they do not fit. */
    const cpd_tables *compile(const std::vector<uint16_t> &numbers);
    void fill(Set &set, const cpd_tables &tables) const;
    void dropCompiled();
    uint32_t idleSet();

    DataPlane &plane_;
    const AclLists &lists_;
    std::map<std::vector<uint16_t>, bool> fits_;
    std::vector<uint16_t> compiledNumbers_; /**< what compiled_ was made from */
    size_t compiledCells_ = 0;              /**< in use of it */
    std::unique_ptr<cpd_tables> compiled_;  /**< kept from asking whether it fits to its use */
    std::map<std::vector<uint16_t>, uint32_t> numbers_; /**< of the sets in use, by their ACLs */
    std::vector<Set> sets_;
};

} // namespace zynlinux

#endif
