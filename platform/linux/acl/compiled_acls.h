/**
 * Compiling access lists, beside the loop: in a thread that lasts as long as the work.
 */
#ifndef ZYNLINUX_COMPILED_ACLS_H
#define ZYNLINUX_COMPILED_ACLS_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "acl/acl.h"
#include "base/beside.h"

namespace zynlinux
{

using AclLists = std::map<uint16_t, AclList>; /**< by number */
using AclNumbers = std::vector<uint16_t>;     /**< of lists that are bound together, in order */

/** Cells of the compiled lists, from the first on; none when they do not fit. */
using AclTables = std::vector<uint32_t>;

/** Lists, and what is compiled of them. */
struct CompiledLists {
    std::shared_ptr<const AclLists> lists;
    std::map<AclNumbers, AclTables> tables;

    /** Whether all these lists are there. */
    bool known(const AclNumbers &numbers) const;
};

/**
 * Compile lists that are known.
 * @param stop when it turns true the work is given up, as if they did not fit
 */
AclTables compileTogether(const AclLists &lists, const AclNumbers &numbers,
                          const std::atomic<bool> &stop);

/** Compiles lists as they are asked for. */
class AclCompiler
{
public:
    using Clock = Beside<AclTables>::Clock;

    /** @param done is called, in another thread, when something has been compiled; may be empty */
    AclCompiler(std::shared_ptr<const AclLists> lists, std::function<void()> done)
        : compiled_{std::move(lists), {}}, done_(std::move(done))
    {
    }
    ~AclCompiler() { giveUp(); }
    AclCompiler(const AclCompiler &) = delete;
    AclCompiler &operator=(const AclCompiler &) = delete;

    bool anyLists() const { return !compiled_.lists->empty(); }
    bool known(const AclNumbers &numbers) const { return compiled_.known(numbers); }

    /**
     * What compiling known lists comes to; it lasts until the next call of anything here.
     * @param end how long to wait for that. Until then, what is asked for now comes before what was
     *            asked for earlier; after that, whatever is in work goes on
     * @return null when it is not done
     */
    const AclTables *compile(const AclNumbers &numbers, Clock::time_point end);

    /** Forget the tables of some lists, and of the others too if there are many: they take room.
     *  That lists do not fit is not forgotten. */
    void forgetTables(const std::function<bool(const AclNumbers &)> &which);

    /** Other lists, and what is compiled of them already. The former ones are given back. */
    void exchange(CompiledLists &lists);

private:
    struct Work {
        AclNumbers numbers;
        std::atomic<bool> stop{false};
        std::optional<Beside<AclTables>> result; /**< there from the beginning to the end */
    };

    void begin(const AclNumbers &numbers);
    void collect();
    void giveUp();

    CompiledLists compiled_;
    const std::function<void()> done_;
    std::unique_ptr<Work> work_; /**< null: none is going on */
};

} // namespace zynlinux

#endif
