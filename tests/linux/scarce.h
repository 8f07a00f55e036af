/**
 * What a process may be short of, for tests.
 */
#ifndef SCARCE_H
#define SCARCE_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "base/descriptor.h"
#include "base/failure.h"

template <class Base> void showFailureAs()
{
    try {
        throw zynlinux::Failure("try", "no reason");
    } catch (const Base &failure) {
        EXPECT_NE(*failure.what(), 0);
    }
}

/** A sanitizer needs descriptors when it looks at a type for the first time. */
inline void showFailures()
{
    showFailureAs<std::exception>();
    showFailureAs<std::runtime_error>();
}

/** As long as it lives, no descriptor can be had. */
struct NoDescriptors {
    NoDescriptors()
    {
        showFailures();
        getrlimit(RLIMIT_NOFILE, &before);
        rlimit none = before;
        none.rlim_cur = 0;
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &before); }
    rlimit before;
};

/** As long as it lives, one descriptor can be had at a time. */
struct OneDescriptor {
    OneDescriptor()
    {
        showFailures();
        getrlimit(RLIMIT_NOFILE, &before);
        zynlinux::Descriptor lowest(open("/dev/null", O_RDONLY | O_CLOEXEC));
        rlimit one{static_cast<rlim_t>(lowest.get() + 1), before.rlim_max};
        lowest = zynlinux::Descriptor();
        setrlimit(RLIMIT_NOFILE, &one);
    }
    ~OneDescriptor() { setrlimit(RLIMIT_NOFILE, &before); }
    rlimit before;
};

#endif
