/**
 * The folder of a BPF file system in which the data plane outlives its daemon.
 */
#ifndef ZYNLINUX_PIN_FOLDER_H
#define ZYNLINUX_PIN_FOLDER_H

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "base/descriptor.h"

namespace zynlinux
{

class PinFolder
{
public:
    /**
     * Make the folder if need be, and hold it for this process alone.
     * @param path empty: nothing is pinned
     * @throw Failure where there is no BPF file system, when another daemon holds it, or when
     * others than root (and the daemon's own user) could put something else in its place or into it
     */
    explicit PinFolder(std::string path);

    /** Make it again if it is not there any more. @throw Failure as above; it is still held then */
    void restore();

    bool pins() const { return !path_.empty(); }
    std::string path(const std::string &name) const { return path_ + "/" + name; }

    /** Names in the folder that begin so; none when it cannot be read. */
    std::vector<std::string> names(std::string_view prefix) const;

    /** All names in the folder. @throw Failure when it cannot be read now */
    std::set<std::string> allNames() const;

    /** Pin an object, in place of whatever has that name. Does nothing when nothing is pinned.
     *  @throw Failure */
    void pin(int object, const std::string &name) const;

    /** What is pinned under a name; an invalid descriptor without any. */
    Descriptor open(const std::string &name) const;

    void unpin(const std::string &name) const;

    /** Unpin everything, and give the folder up. */
    void clear();

private:
    bool isThere() const;

    std::string path_; /**< without symbolic links */
    Descriptor lock_;
};

} // namespace zynlinux

#endif
