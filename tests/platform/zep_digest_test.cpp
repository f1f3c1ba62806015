// Digests of files: published vectors, files over several chunks, errors of the system, lack of
// memory.
#include "zep/digest.h"

#include "files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace
{
int g_failingCall = 0;  // of the crypto library's requests for memory; 1: the next one; 0: none

bool Fails()
{
    return g_failingCall != 0 && --g_failingCall == 0;
}

void* Allocate(std::size_t size, const char* /*file*/, int /*line*/)
{
    return Fails() ? nullptr : std::malloc(size);
}

void* Reallocate(void* block, std::size_t size, const char* /*file*/, int /*line*/)
{
    return Fails() ? nullptr : std::realloc(block, size);
}

void Release(void* block, const char* /*file*/, int /*line*/)
{
    std::free(block);
}

// Before the library's first request.
const bool g_replaced = CRYPTO_set_mem_functions(Allocate, Reallocate, Release) == 1;

std::string Hexadecimal(const unsigned char (&digest)[32])
{
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : digest)
    {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0x0F];
    }
    return text;
}

// A file with this content, open for reading.
class OpenFile
{
public:
    explicit OpenFile(const std::string& bytes)
    {
        support::WriteFile(m_directory.File("file"), bytes);
        m_descriptor = open(m_directory.File("file").c_str(), O_RDONLY | O_CLOEXEC);
    }
    ~OpenFile()
    {
        (void)close(m_descriptor);
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    int Descriptor() const
    {
        return m_descriptor;
    }

private:
    support::TemporaryDirectory m_directory;
    int m_descriptor = -1;
};

struct Result
{
    bool done = false;
    int error = 0;
    std::string digest;
    std::uint64_t size = 0;
};

Result DigestOf(int descriptor)
{
    Result result;
    unsigned char digest[32] = {};
    errno = 0;
    result.done = zep::Sha256OfFile(descriptor, digest, result.size);
    result.error = errno;
    result.digest = Hexadecimal(digest);
    return result;
}

void ExpectDigest(const std::string& bytes, const std::string& expected)
{
    const OpenFile file(bytes);
    const Result result = DigestOf(file.Descriptor());
    EXPECT_TRUE(result.done);
    EXPECT_EQ(result.digest, expected);
    EXPECT_EQ(result.size, bytes.size());
}

void ExpectError(int descriptor, int error)
{
    const Result result = DigestOf(descriptor);
    EXPECT_FALSE(result.done);
    EXPECT_EQ(result.error, error);
}

// NIST, Cryptographic Algorithm Validation Program, SHA Test Vectors for Hashing Byte-Oriented
// Messages, SHA256ShortMsg.rsp, Len = 0.
TEST(ZepDigest, PublishedEmptyMessage)
{
    ExpectDigest("", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

// RFC 6234, 8.5 (FIPS 180-2, appendix B): TEST1, TEST2_1, TEST3 and TEST4 of SHA-256.
TEST(ZepDigest, PublishedMessages)
{
    ExpectDigest("abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    ExpectDigest("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
                 "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    ExpectDigest(std::string(1000000, 'a'),
                 "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
    std::string digits;
    for (int count = 0; count < 80; ++count)
    {
        digits += "01234567";
    }
    ExpectDigest(digits, "594847328451bdfa85056225462cc1d867d877fb388df0ce35f25ab5562bfbb5");
}

TEST(ZepDigest, FilesOverSeveralChunksAndAtTheirEdges)
{
    constexpr std::size_t kChunk = 64U << 10;
    for (const std::size_t size : {kChunk - 1, kChunk, kChunk + 1, 3 * kChunk, 50 * kChunk + 12345})
    {
        const std::string bytes = support::PatternBytes(size, 1);
        ExpectDigest(bytes, support::Sha256(bytes));
    }
}

TEST(ZepDigest, TheFileOffsetIsNeitherUsedNorChanged)
{
    const OpenFile file("abc");
    ASSERT_EQ(lseek(file.Descriptor(), 2, SEEK_SET), 2);
    const Result result = DigestOf(file.Descriptor());
    EXPECT_EQ(result.digest, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(result.size, 3U);
    EXPECT_EQ(lseek(file.Descriptor(), 0, SEEK_CUR), 2);
}

TEST(ZepDigest, ErrorsOfTheSystem)
{
    ExpectError(-1, EBADF);
    const int closed = dup(STDIN_FILENO);
    ASSERT_EQ(close(closed), 0);
    ExpectError(closed, EBADF);
    const support::TemporaryDirectory directory;
    const int opened = open(directory.Path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(opened, 0);
    ExpectError(opened, EISDIR);
    ASSERT_EQ(close(opened), 0);
    int ends[2] = {};
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    ExpectError(ends[0], ESPIPE);
    ASSERT_EQ(close(ends[0]) + close(ends[1]), 0);
}

// Every request of one digest is refused in turn, until all are granted. The library can do without
// some of them.
TEST(ZepDigest, LackOfMemoryIsAnError)
{
    ASSERT_TRUE(g_replaced);
    const OpenFile file("abc");
    const Result expected = DigestOf(file.Descriptor());  // the library has started
    ASSERT_TRUE(expected.done);
    int failures = 0;
    bool allGranted = false;
    for (int nth = 1; !allGranted; ++nth)
    {
        g_failingCall = nth;
        const Result result = DigestOf(file.Descriptor());
        allGranted = g_failingCall != 0;
        g_failingCall = 0;
        EXPECT_EQ(result.error, result.done ? 0 : ENOMEM) << nth;
        EXPECT_EQ(result.digest == expected.digest, result.done) << nth;
        failures += result.done ? 0 : 1;
    }
    EXPECT_GE(failures, 2);  // the context, and the algorithm's state
}

}  // namespace
