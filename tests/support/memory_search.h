// Search of the process's own memory for a secret, for tests of what is wiped.
//
// Not for builds with sanitizers: they keep freed memory, and map more than can be read.
#ifndef CORPDIR_TESTS_MEMORY_SEARCH_H
#define CORPDIR_TESTS_MEMORY_SEARCH_H

#include <cstddef>
#include <string>
#include <vector>

namespace support
{

// A secret that the test knows without holding it: every byte is kept changed.
class Scrambled
{
public:
    Scrambled(const void* secret, std::size_t size);
    // From a text that is written backwards in the source.
    static Scrambled Reversed(const std::string& text);

    std::size_t Size() const;
    char Byte(std::size_t index) const;  // the secret's own

private:
    explicit Scrambled(std::string bytes);

    std::string m_bytes;
};

// The mappings that hold the secret, one entry for each place: "[heap]", "[stack]",
// a file's path, or "anonymous". All writable memory is searched, but for the search's own.
std::vector<std::string> PlacesInMemory(const Scrambled& secret);

}  // namespace support

#endif
