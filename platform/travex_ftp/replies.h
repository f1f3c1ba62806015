// Replies on the control channel.
#ifndef TRAVEX_FTP_REPLIES_H
#define TRAVEX_FTP_REPLIES_H

#include <cstddef>
#include <cstdint>

#include "limits.h"
#include "secret.h"

namespace travex_ftp
{
// A complete reply (RFC 959, 4.2).
struct Reply
{
    unsigned int code = 0;  // 0: none yet
    char text[256] = "";    // of the last line, or of the first if the last is empty; printable,
                            // truncated, with the password masked

    bool Preliminary() const
    {
        return code >= 100 && code < 200;
    }
    bool PositiveCompletion() const
    {
        return code >= 200 && code < 300;
    }
    bool Negative() const
    {
        return code >= 400 && code < 600;
    }
};

// Service not available, closing control connection: a reply to any command.
constexpr unsigned int kServiceNotAvailable = 421;

// Parses replies from received bytes, in memory of fixed size. Not thread-safe: transfer thread
// only.
class ReplyReader
{
public:
    // `secret` is the password, masked in replies; it must outlive the object.
    explicit ReplyReader(const Secret& secret) : m_secret(secret) {}
    ~ReplyReader();
    ReplyReader(const ReplyReader&) = delete;
    ReplyReader& operator=(const ReplyReader&) = delete;

    // A transfer begins: its limits count from here.
    void Restart(const Limits& limits);

    // The buffer for received bytes, and how many were put there. Only after Next() has returned
    // kIncomplete.
    char* FreeSpace(size_t& size);
    void Arrived(size_t length);

    enum class Result
    {
        kReply,
        kIncomplete,
        kTooManyBytes,
        kTooManyLines,
    };

    // Parses the next reply. `login`: it answers USER or PASS, and its text is withheld if the
    // password is too short to be masked.
    Result Next(Reply& reply, bool login);

    // Lines left of the limit.
    uint64_t LinesLeft() const
    {
        return m_linesLeft;
    }

    // Bytes have arrived that belong to no complete reply.
    bool Pending() const
    {
        return m_at != m_end || m_length != 0 || m_code != 0;
    }

private:
    bool TakeLine();
    bool EndReply(Reply& reply, bool login);
    void KeepText(char (&text)[256], bool login) const;
    void MaskText(char (&text)[256], const char* secret, size_t length) const;

    const Secret& m_secret;
    uint64_t m_bytesLeft = 0;
    uint64_t m_linesLeft = 0;
    char m_input[2048];  // received bytes; those from m_at to m_end are not parsed yet
    size_t m_at = 0;
    size_t m_end = 0;
    char m_line[512];         // the current line, truncated
    size_t m_length = 0;      // of m_line
    unsigned int m_code = 0;  // of an incomplete reply of several lines, else 0
    char m_first[256] = "";   // text of its first line
};

// The size in a 213 reply to SIZE; TRAVEX_FTP_SIZE_UNKNOWN when the text is not exactly one number
// up to INT64_MAX.
uint64_t SizeIn213(const char* text);

// The size in "(1234 bytes" in a 150 reply, else TRAVEX_FTP_SIZE_UNKNOWN. 0 is unknown too: some
// servers always write it.
uint64_t SizeIn150(const char* text);

// The port in a reply to EPSV or PASV, in either format; the address in it is ignored. 0: none.
unsigned int PortOfReply(const Reply& reply);

}  // namespace travex_ftp

#endif
