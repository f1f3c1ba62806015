#include "memory_search.h"

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace support
{
namespace
{

constexpr char kChange = 0x5A;

char g_block[1 << 16];  // a piece of the searched memory

char Changed(char byte)
{
    return static_cast<char>(byte ^ kChange);
}

struct Mapping
{
    unsigned long begin = 0;
    unsigned long end = 0;
    std::string name;
};

std::vector<Mapping> WritableMappings()
{
    std::vector<Mapping> mappings;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);)
    {
        Mapping mapping;
        char mode[5] = "";
        int name = 0;
        if (sscanf(line.c_str(), "%lx-%lx %4s %*s %*s %*s %n", &mapping.begin, &mapping.end, mode,
                   &name) == 3 &&
            mode[1] == 'w')
        {
            mapping.name = line.substr(static_cast<std::size_t>(name));
            mapping.name = mapping.name.empty() ? "anonymous" : mapping.name;
            mappings.push_back(mapping);
        }
    }
    return mappings;
}

bool StandsAt(const char* bytes, const Scrambled& secret)
{
    for (std::size_t i = 0; i < secret.Size(); ++i)
    {
        if (bytes[i] != secret.Byte(i))
        {
            return false;
        }
    }
    return true;
}

// Where the secret is in the first `size` bytes of the block that was read from `at`.
std::size_t CountInBlock(unsigned long at, std::size_t size, const Scrambled& secret)
{
    const auto own = reinterpret_cast<unsigned long>(&g_block[0]);
    std::size_t count = 0;
    for (std::size_t i = 0; i + secret.Size() <= size; ++i)
    {
        const void* const next = memchr(g_block + i, secret.Byte(0), size - secret.Size() + 1 - i);
        if (next == nullptr)
        {
            break;
        }
        i = static_cast<std::size_t>(static_cast<const char*>(next) - g_block);
        const bool is_own = at + i >= own && at + i < own + sizeof g_block;
        count += !is_own && StandsAt(g_block + i, secret) ? 1 : 0;
    }
    return count;
}

// Blocks overlap by a byte less than the secret, so that it is found once wherever it lies.
std::size_t CountIn(int memory, const Mapping& mapping, const Scrambled& secret)
{
    std::size_t count = 0;
    for (unsigned long at = mapping.begin; at + secret.Size() <= mapping.end;)
    {
        const ssize_t got = pread(memory, g_block, std::min(sizeof g_block, mapping.end - at),
                                  static_cast<off_t>(at));
        if (got < static_cast<ssize_t>(secret.Size()))
        {
            break;  // unmapped meanwhile
        }
        count += CountInBlock(at, static_cast<std::size_t>(got), secret);
        at += static_cast<std::size_t>(got) - secret.Size() + 1;
    }
    return count;
}

}  // namespace

Scrambled::Scrambled(const void* secret, std::size_t size)
{
    const char* const bytes = static_cast<const char*>(secret);
    m_bytes.resize(size);
    std::transform(bytes, bytes + size, m_bytes.begin(), Changed);
}

Scrambled::Scrambled(std::string bytes) : m_bytes(std::move(bytes)) {}

Scrambled Scrambled::Reversed(const std::string& text)
{
    std::string bytes(text.size(), '\0');
    std::transform(text.rbegin(), text.rend(), bytes.begin(), Changed);
    return Scrambled(bytes);
}

std::size_t Scrambled::Size() const
{
    return m_bytes.size();
}

char Scrambled::Byte(std::size_t index) const
{
    return Changed(m_bytes[index]);
}

std::vector<std::string> PlacesInMemory(const Scrambled& secret)
{
    const int memory = open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
    if (memory < 0)
    {
        throw std::runtime_error("the process's memory cannot be read");
    }
    std::vector<std::string> places;
    for (const Mapping& mapping : WritableMappings())
    {
        places.insert(places.end(), CountIn(memory, mapping, secret), mapping.name);
    }
    close(memory);
    explicit_bzero(g_block, sizeof g_block);
    return places;
}

}  // namespace support
