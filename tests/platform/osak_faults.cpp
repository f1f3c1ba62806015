#include "osak_faults.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>

namespace
{
std::atomic<bool> g_noThreads{false};
}

// NOLINTBEGIN(bugprone-reserved-identifier): the linker wants these names.
extern "C"
{
    int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*entry)(void*), void* argument);
    int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*entry)(void*), void* argument);

    int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*entry)(void*), void* argument)
    {
        return g_noThreads ? EAGAIN : __real_pthread_create(thread, attributes, entry, argument);
    }
}
// NOLINTEND(bugprone-reserved-identifier)

namespace osak_faults
{
void SetNoThreads(bool noThreads)
{
    g_noThreads = noThreads;
}

}  // namespace osak_faults
