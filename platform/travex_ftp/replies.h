// What the server says on the control channel.
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
    char text[256] = "";    // of its last line, or of the first if that one is empty; printable,
                            // shortened, without the password

    bool Preliminary() const
    {
        return code >= 100 && code < 200;
    }
    bool Positive() const
    {
        return code >= 200 && code < 300;
    }
    bool Refusal() const
    {
        return code >= 400 && code < 600;
    }
};

// "Service not available": the server gives up the control connection, whatever the command was.
constexpr unsigned int kServiceNotAvailable = 421;

// Makes replies of the bytes that arrive. Memory is of fixed size, however much arrives. Not
// thread-safe: the transfer thread's.
class ReplyReader
{
public:
    // `secret` is the password, which a server may repeat; it must outlive the object.
    explicit ReplyReader(const Secret& secret) : m_secret(secret) {}
    ~ReplyReader();
    ReplyReader(const ReplyReader&) = delete;
    ReplyReader& operator=(const ReplyReader&) = delete;

    // A transfer begins: what it may hear is counted from here.
    void Restart(const Limits& limits);

    // Where to put what arrives, and that it has. Only when Next() has said kIncomplete.
    char* Room(size_t& size);
    void Arrived(size_t length);

    enum class Result
    {
        kReply,
        kIncomplete,
        kTooManyBytes,
        kTooManyLines,
    };

    // Takes the next reply out of what has arrived. `login`: it answers USER or PASS, so that its
    // text is withheld if the password is too short to be masked.
    Result Next(Reply& reply, bool login);

    // Lines that may still come.
    uint64_t LinesLeft() const
    {
        return m_linesLeft;
    }

    // Something has arrived that no reply was made of.
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
    char m_input[2048];  // as it arrived; from m_at to m_end it is not looked at yet
    size_t m_at = 0;
    size_t m_end = 0;
    char m_line[512];         // the line that is arriving, its beginning if it is longer
    size_t m_length = 0;      // of the line as far as it is kept
    unsigned int m_code = 0;  // of a reply of several lines that has not ended
    char m_first[256] = "";   // text of its first line
};

// The number of a 213 reply to SIZE; TRAVEX_FTP_SIZE_UNKNOWN when the text is not one number of a
// range that a file can have. Some servers add words.
uint64_t SizeOfAnswer(const char* text);

// The number of "(1234 bytes" in the text of a 150, else TRAVEX_FTP_SIZE_UNKNOWN. 0 is unknown too:
// some servers write it whatever the size is.
uint64_t SizeOfOpening(const char* text);

// The port of a reply to EPSV or PASV, told apart by what the reply holds; its address is not used.
// 0: there is none.
unsigned int PortOfReply(const Reply& reply);

}  // namespace travex_ftp

#endif
