/**
 * The compiled ACLs in the kernel. Places with the same ACLs in the same order share a set.
 */
#ifndef ZYNLINUX_TABLE_SETS_H
#define ZYNLINUX_TABLE_SETS_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <vector>

#include "acl/compiled_acls.h"
#include "kernel/dataplane.h"

namespace zynlinux
{

/** Whether ACLs can be compiled together. */
enum class Fit { Yes, No, NotYet /**< that takes longer than was waited for; it goes on */ };

class TableSets
{
public:
    /** @param plane must outlast this object
     *  @param done  is called, in another thread, when what was not compiled yet is; may be empty
     */
    TableSets(DataPlane &plane, AclLists lists, std::function<void()> done);

    /** Have an idle set ready if there are lists, so that binding need not wait for one. */
    void keepOneReady();

    /** Whether all these ACLs are there. */
    bool known(const AclNumbers &numbers) const { return compiler_.known(numbers); }

    /** From now on wait so long in all for what is asked. */
    void waitFor(std::chrono::milliseconds time) { end_ = AclCompiler::Clock::now() + time; }

    /** Whether ACLs that are known can be compiled together; none can. */
    Fit fits(const AclNumbers &numbers);

    /**
     * How many of them can be compiled together, from the first on.
     * @param sure becomes false when there may be more: finding out takes longer
     */
    size_t countFitting(const AclNumbers &numbers, bool *sure);

    /**
     * The set for these ACLs, which are known to fit.
     * @throw Failure when no set is free
     */
    uint32_t use(const AclNumbers &numbers);

    /** A set that a former daemon left in force. */
    void inherit(uint32_t set);

    /** Drop the sets that a former daemon left and no policy in force refers to. */
    void dropUnknown();

    /** Give back the sets that no policy in force refers to. @param inForce all those that do */
    void keep(const std::vector<uint32_t> &inForce);

    /** Take other lists, with what is compiled of them; the former ones are given back. What is in
     *  force stays, but is not used again. */
    void exchange(CompiledLists &lists);

private:
    /** What the kernel has of a set. */
    struct Set {
        bool taken = false;  /**< a policy in force refers to it, or will in a moment */
        SharedTables tables; /**< null: there is none, or a former daemon made it */
        size_t used = 0;     /**< cells from the first on; the others are 0 */
    };

    static void fill(Set &set, const AclTables &tables);
    uint32_t idleSet();

    DataPlane &plane_;
    AclCompiler compiler_;
    AclCompiler::Clock::time_point end_;     /**< until when to wait */
    std::map<AclNumbers, uint32_t> numbers_; /**< of the sets in use, by their ACLs */
    std::vector<Set> sets_;
};

} // namespace zynlinux

#endif
