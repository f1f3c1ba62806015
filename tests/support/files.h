// Files and waiting, for tests. Failures throw std::runtime_error, which fails the test that asked.
#ifndef CORPDIR_TESTS_FILES_H
#define CORPDIR_TESTS_FILES_H

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace support
{

// A new directory under TMPDIR (default /tmp), removed with its content at the end.
class TemporaryDirectory
{
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::string& Path() const;
    std::string File(const std::string& name) const;  // Path() + "/" + name

private:
    std::string m_path;
};

void WriteFile(const std::string& path, const std::string& bytes);
std::string ReadFile(const std::string& path);
bool FileExists(const std::string& path);

// Names of all entries of a directory, hidden ones included, sorted.
std::vector<std::string> FilesIn(const std::string& directory);

// Sha256 in lower-case hexadecimal.
std::string Sha256(const std::string& bytes);

// `size` bytes that look random and are the same for the same seed.
std::string PatternBytes(std::size_t size, unsigned int seed);

// Polls until the condition holds; false when it does not within the limit.
bool WaitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds limit = std::chrono::seconds(20));

}  // namespace support

#endif
