// File descriptors of the log's own.
#ifndef CORPDIR_LOG_DESCRIPTOR_H
#define CORPDIR_LOG_DESCRIPTOR_H

#include <string>
#include <utility>

namespace corpdir_log
{
// Owns a descriptor, or none. One thread only.
class Descriptor
{
public:
    Descriptor() = default;
    explicit Descriptor(int number) : m_number(number) {}
    Descriptor(Descriptor&& other) noexcept : m_number(std::exchange(other.m_number, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        std::swap(m_number, other.m_number);
        return *this;
    }
    ~Descriptor();

    bool IsOpen() const
    {
        return m_number != -1;
    }
    int Number() const
    {
        return m_number;
    }

private:
    int m_number = -1;
};

// Makes the file with mode 0600 if it is missing and opens it, closed on exec, for reading and for
// writing at its end. Not open, and errno set, when that fails or the name is a symbolic link.
// Never one of the standard streams' numbers, even if those are free: what the client or a library
// prints would end up in the file.
Descriptor OpenPrivate(const std::string& path);

}  // namespace corpdir_log

#endif
