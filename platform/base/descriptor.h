// An owned file descriptor.
#ifndef CORPDIR_BASE_DESCRIPTOR_H
#define CORPDIR_BASE_DESCRIPTOR_H

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace base
{
// Owns a descriptor, or none. One thread only.
class Descriptor
{
public:
    Descriptor() = default;
    // A negative number: none.
    explicit Descriptor(int number) : m_number(number) {}
    Descriptor(Descriptor&& other) noexcept : m_number(std::exchange(other.m_number, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        std::swap(m_number, other.m_number);
        return *this;
    }
    // Leaves errno as it was.
    ~Descriptor()
    {
        if (IsOpen())
        {
            const int before = errno;
            (void)close(m_number);
            errno = before;
        }
    }

    bool IsOpen() const
    {
        return m_number >= 0;
    }
    int Number() const
    {
        return m_number;
    }

private:
    int m_number = -1;
};

}  // namespace base

#endif
