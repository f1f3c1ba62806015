#include "files.h"

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <thread>

#include <openssl/evp.h>

namespace support
{

TemporaryDirectory::TemporaryDirectory()
{
    m_path = (std::filesystem::temp_directory_path() / "corpdir-test-XXXXXX").string();
    if (mkdtemp(m_path.data()) == nullptr)
    {
        throw std::runtime_error("no temporary directory " + m_path);
    }
    // Servers may read it as another user.
    std::filesystem::permissions(m_path, std::filesystem::perms(0755));
}

TemporaryDirectory::~TemporaryDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

const std::string& TemporaryDirectory::Path() const
{
    return m_path;
}

std::string TemporaryDirectory::File(const std::string& name) const
{
    return m_path + "/" + name;
}

void WriteFile(const std::string& path, const std::string& bytes)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    file.close();
    if (!file)
    {
        throw std::runtime_error("cannot write " + path);
    }
}

std::string ReadFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
    {
        throw std::runtime_error("cannot read " + path);
    }
    return std::string(std::istreambuf_iterator<char>(file), {});
}

bool FileExists(const std::string& path)
{
    return std::filesystem::exists(path);
}

std::vector<std::string> FilesIn(const std::string& directory)
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory))
    {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string Sha256(const std::string& bytes)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr) != 1)
    {
        throw std::runtime_error("no SHA-256");
    }
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < length; ++i)
    {
        text += digits[digest[i] >> 4];
        text += digits[digest[i] & 15];
    }
    return text;
}

std::string PatternBytes(std::size_t size, unsigned int seed)
{
    std::mt19937 generator(seed);
    std::string bytes(size, '\0');
    std::generate(bytes.begin(), bytes.end(),
                  [&generator] { return static_cast<char>(generator() & 0xff); });
    return bytes;
}

bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition())
    {
        if (std::chrono::steady_clock::now() >= deadline)
        {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace support
