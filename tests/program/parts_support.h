// Shared by the unit tests of the program.
#ifndef CORPDIR_TOOL_SUPPORT_H
#define CORPDIR_TOOL_SUPPORT_H

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "cli/ciphers.h"
#include "exit_error.h"

namespace corpdir_tool
{

// A temporary directory, removed at the end. Its path is short enough for --output-dir.
class TemporaryDirectory
{
public:
    TemporaryDirectory()
    {
        char path[] = "/tmp/corpdir_tool_XXXXXX";
        m_path = mkdtemp(path);
    }
    ~TemporaryDirectory()
    {
        std::filesystem::remove_all(m_path);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::string& Path() const
    {
        return m_path;
    }

    std::string Write(const std::string& name, const std::string& text) const
    {
        const std::string path = m_path + "/" + name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }

private:
    std::string m_path;
};

// A stream that keeps its text.
class TextStream
{
public:
    TextStream() : m_stream(open_memstream(&m_text, &m_length)) {}
    ~TextStream()
    {
        (void)std::fclose(m_stream);
        free(m_text);
    }
    TextStream(const TextStream&) = delete;
    TextStream& operator=(const TextStream&) = delete;

    std::FILE* Get() const
    {
        return m_stream;
    }

    std::string Text() const
    {
        (void)std::fflush(m_stream);
        return {m_text, m_length};
    }

private:
    char* m_text = nullptr;
    std::size_t m_length = 0;
    std::FILE* m_stream;
};

// A cipher table of three.
inline CipherTable SomeCiphers()
{
    return {{0x03001302, "TLS_AES_256_GCM_SHA384", "TLS_AES_256_GCM_SHA384", "TLSv1.3"},
            {0x0300003C, "TLS_RSA_WITH_AES_128_CBC_SHA256", "AES128-SHA256", "TLSv1.2"},
            {0x03000035, "TLS_RSA_WITH_AES_256_CBC_SHA", "AES256-SHA", "SSLv3"}};
}

// Message and status of an ExitError.
struct Thrown
{
    int status = -1;
    std::string message = "nothing was thrown";
};

template <typename Call>
Thrown ExitErrorOf(Call call)
{
    try
    {
        call();
    }
    catch (const ExitError& error)
    {
        return {error.Status(), error.what()};
    }
    return {};
}

}  // namespace corpdir_tool

#endif
