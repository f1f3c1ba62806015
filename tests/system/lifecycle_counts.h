// How often the life-cycle tests repeat their operations.
#ifndef CORPDIR_TESTS_LIFECYCLE_COUNTS_H
#define CORPDIR_TESTS_LIFECYCLE_COUNTS_H

#include <cstddef>
#include <cstdlib>

namespace integration
{

// The number in an environment variable; without one `usual`, or under sanitizers and emulation,
// which slow everything down, `slowed`.
inline std::size_t Count(const char* variable, std::size_t usual, std::size_t slowed)
{
    const char* wanted = std::getenv(variable);
    if (wanted != nullptr)
    {
        return std::strtoul(wanted, nullptr, 10);
    }
#ifdef CORPDIR_TESTS_SLOWED_DOWN
    (void)usual;
    return slowed;
#else
    (void)slowed;
    return usual;
#endif
}

}  // namespace integration

#endif
