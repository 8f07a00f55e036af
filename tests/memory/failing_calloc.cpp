#include <cstddef>

#include "memory_fixture.h"

int callocFailures = 0;

extern "C" void *__real_calloc(size_t count, size_t size);

extern "C" void *__wrap_calloc(size_t count, size_t size)
{
    if (callocFailures > 0) {
        callocFailures--;
        return nullptr;
    }
    return __real_calloc(count, size);
}
