#include "kernel/pin_folder.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
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

#include "base/failure.h"

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

/** A folder's path from the root on, without symbolic links. */
std::string resolve(const std::string &path)
{
    const size_t end = path.find_last_not_of('/');
    const std::string plain = path.substr(0, end == std::string::npos ? 0 : end + 1);
    const std::string name = plain.substr(plain.rfind('/') + 1), parent = parentOf(plain);
    if (name.empty() || name == "." || name == "..")
        throw cannotKeep(path, "it is no folder of its own");
    std::unique_ptr<char, void (*)(void *)> real(realpath(parent.c_str(), nullptr), std::free);
    if (!real)
        throw cannotKeep(path, parent + ": " + std::strerror(errno));
    return std::string(real.get()) + (parentOf(real.get()) == real.get() ? "" : "/") + name;
}

/** That nobody but root, and the user that the daemon runs as, decides on what is there. */
void checkOwner(const std::string &path, const std::string &what, const struct stat &info)
{
    if (info.st_uid != 0 && info.st_uid != geteuid())
        throw cannotKeep(path, what + " belongs to user " + std::to_string(info.st_uid) +
                                   ", and not to root");
}

Failure openToOthers(const std::string &path, const std::string &what, const struct stat &info)
{
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", info.st_mode & 07777u);
    return cannotKeep(path, "others may write to " + what + " (mode " + mode + ")");
}

constexpr mode_t othersWrite = S_IWGRP | S_IWOTH;

/** That others cannot put another folder in the place of this one, all the way up. */
void checkParents(const std::string &path)
{
    for (std::string parent = parentOf(path);; parent = parentOf(parent)) {
        struct stat info {
        };
        if (lstat(parent.c_str(), &info) != 0)
            throw cannotKeep(path, parent + ": " + std::strerror(errno));
        checkOwner(path, parent, info);
        // In a sticky folder they may make things, but not remove or rename those of others.
        if (info.st_mode & othersWrite && !(info.st_mode & S_ISVTX))
            throw openToOthers(path, parent, info);
        if (parent == "/")
            return;
    }
}

void checkBpf(const std::string &path)
{
    const std::string parent = parentOf(path);
    if (parent == usualPlace && !isBpf(parent)) // a system without a service manager
        mount("bpf", usualPlace, "bpf", MS_NOSUID | MS_NODEV | MS_NOEXEC, "mode=0700");
    if (!isBpf(parent))
        throw cannotKeep(path, parent + " is no BPF file system (mount -t bpf -o mode=0700 bpf " +
                                   parent + ", or pin = \"none\")");
}

/** The folder, made if need be: ours alone. */
Descriptor openFolder(const std::string &path)
{
    checkBpf(path);
    checkParents(path);
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
        throw cannotKeep(path, std::strerror(errno));
    Descriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat info {
    };
    if (folder.get() < 0 || fstat(folder.get(), &info) != 0)
        throw cannotKeep(path, std::strerror(errno));
    checkOwner(path, "it", info);
    if (info.st_mode & othersWrite)
        throw openToOthers(path, "it", info);
    if (flock(folder.get(), LOCK_EX | LOCK_NB) != 0)
        throw cannotKeep(path,
                         errno == EWOULDBLOCK ? "another daemon holds it" : std::strerror(errno));
    return folder;
}

} // namespace

PinFolder::PinFolder(std::string path) : path_(std::move(path))
{
    if (!pins())
        return;
    path_ = resolve(path_);
    lock_ = openFolder(path_);
}

bool PinFolder::isThere() const
{
    struct stat there {
    }, held{};
    return stat(path_.c_str(), &there) == 0 && fstat(lock_.get(), &held) == 0 &&
           there.st_dev == held.st_dev && there.st_ino == held.st_ino;
}

void PinFolder::restore()
{
    if (pins() && !isThere())
        lock_ = openFolder(path_);
}

std::set<std::string> PinFolder::allNames() const
{
    std::set<std::string> found;
    std::unique_ptr<DIR, int (*)(DIR *)> folder(opendir(path_.c_str()), closedir);
    if (!folder)
        throw Failure("look into " + path_, errno);
    while (const dirent *entry = readdir(folder.get()))
        if (entry->d_name[0] != '.')
            found.insert(entry->d_name);
    return found;
}

std::vector<std::string> PinFolder::names(std::string_view prefix) const
try {
    std::vector<std::string> found;
    if (pins())
        for (const std::string &name : allNames())
            if (name.starts_with(prefix))
                found.push_back(name);
    return found;
} catch (const Failure &) {
    return {};
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
