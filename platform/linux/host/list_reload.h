/**
 * Reading the access lists of the platform file anew, beside the loop: a file may be long, and its
 * lists take their time to be compiled.
 */
#ifndef ZYNLINUX_LIST_RELOAD_H
#define ZYNLINUX_LIST_RELOAD_H

#include <atomic>
#include <functional>
#include <optional>
#include <set>
#include <string>

#include "acl/compiled_acls.h"

namespace zynlinux
{

class ListReload
{
public:
    /** @param file the platform file
     *  @param done is called, in another thread, when take() has something */
    ListReload(std::string file, std::function<void()> done);
    ~ListReload();
    ListReload(const ListReload &) = delete;
    ListReload &operator=(const ListReload &) = delete;

    /** Read the file, and compile what is bound together. Asked for meanwhile, it begins anew. */
    void begin(std::set<AclNumbers> bound);

    /**
     * Take what came of it. What is bound now and has not been compiled is first.
     * @return nothing as long as there is something to do
     * @throw Failure when the file cannot be read
     */
    std::optional<CompiledLists> take(const std::set<AclNumbers> &bound);

private:
    void work(CompiledLists lists, std::set<AclNumbers> bound);

    const std::string file_;
    const std::function<void()> done_;
    std::atomic<bool> stop_{false};
    bool again_ = false; /**< the file may have changed since it was read */
    std::optional<Beside<CompiledLists>> work_;
};

} // namespace zynlinux

#endif
