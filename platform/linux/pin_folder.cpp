#include "pin_folder.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <bpf/bpf.h>
#include <linux/magic.h>

#include "failure.h"

namespace zynlinux
{

namespace
{

/** Where every system has its BPF file system. */
constexpr char usualPlace[] = "/sys/fs/bpf";

bool isBpf(const std::string &path)
{
    struct statfs info;
    return statfs(path.c_str(), &info) == 0 && info.f_type == BPF_FS_MAGIC;
}

std::string parentOf(const std::string &path)
{
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

Failure cannotKeep(const std::string &path, const std::string &reason)
{
    return Failure("keep the data plane in " + path, reason);
}

void makeFolder(const std::string &path)
{
    std::string parent = parentOf(path);
    if (parent == usualPlace && !isBpf(parent)) // a system without a service manager
        mount("bpf", usualPlace, "bpf", MS_NOSUID | MS_NODEV | MS_NOEXEC, "mode=0700");
    if (!isBpf(parent))
        throw cannotKeep(path, parent + " is no BPF file system (mount -t bpf bpf " + parent +
                                   ", or pin = \"none\")");
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
        throw cannotKeep(path, std::strerror(errno));
}

} // namespace

PinFolder::PinFolder(std::string path) : path_(std::move(path))
{
    if (!pins())
        return;
    makeFolder(path_);
    lock_ = Descriptor(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (lock_.get() < 0)
        throw cannotKeep(path_, std::strerror(errno));
    if (flock(lock_.get(), LOCK_EX | LOCK_NB) != 0)
        throw cannotKeep(path_,
                         errno == EWOULDBLOCK ? "another daemon holds it" : std::strerror(errno));
}

std::vector<std::string> PinFolder::names(std::string_view prefix) const
{
    std::vector<std::string> found;
    std::unique_ptr<DIR, int (*)(DIR *)> folder(pins() ? opendir(path_.c_str()) : nullptr,
                                                closedir);
    while (const dirent *entry = folder ? readdir(folder.get()) : nullptr)
        if (std::string_view(entry->d_name).starts_with(prefix) && entry->d_name[0] != '.')
            found.emplace_back(entry->d_name);
    return found;
}

void PinFolder::pin(int object, const std::string &name) const
{
    if (!pins())
        return;
    unpin(name);
    if (bpf_obj_pin(object, path(name).c_str()) != 0)
        throw Failure("pin " + path(name), errno);
}

Descriptor PinFolder::open(const std::string &name) const
{
    return Descriptor(pins() ? bpf_obj_get(path(name).c_str()) : -1);
}

void PinFolder::unpin(const std::string &name) const
{
    if (pins())
        unlink(path(name).c_str());
}

void PinFolder::clear()
{
    for (const std::string &name : names(""))
        unpin(name);
    if (pins())
        rmdir(path_.c_str());
    lock_ = Descriptor();
    path_.clear();
}

} // namespace zynlinux
