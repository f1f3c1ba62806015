#include "replies.h"

#include <algorithm>
#include <cstring>

#include "failure.h"

namespace travex_ftp
{
namespace
{
constexpr char kWithheld[] = "(text withheld)";

// A shorter secret is not masked: it would match parts of ordinary words, and the mask would reveal
// it.
constexpr size_t kShortestMasked = 4;

bool Digit(char c)
{
    return c >= '0' && c <= '9';
}

// Some servers echo a text in one case only.
char Lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// The code of a line "150 text", "150-text" or "150", else 0.
unsigned int CodeOf(const char* line, size_t length)
{
    if (length < 3 || !Digit(line[0]) || !Digit(line[1]) || !Digit(line[2]) ||
        (length > 3 && line[3] != ' ' && line[3] != '-'))
    {
        return 0;
    }
    return static_cast<unsigned int>((line[0] - '0') * 100 + (line[1] - '0') * 10 + line[2] - '0');
}

// Reads digits and returns their end. A number that does not fit becomes UINT64_MAX.
const char* ReadNumber(const char* at, uint64_t& number)
{
    number = 0;
    for (; Digit(*at); ++at)
    {
        const uint64_t next = static_cast<uint64_t>(*at - '0');
        number = number > (UINT64_MAX - next) / 10 ? UINT64_MAX : number * 10 + next;
    }
    return at;
}

// "(|||50000|)", with any delimiter (RFC 2428); some servers omit a delimiter or the parentheses.
unsigned int ExtendedPort(const char* text)
{
    const char* const parenthesis = strchr(text, '(');
    const char* at = parenthesis != nullptr ? parenthesis + 1 : strchr(text, '|');
    if (at == nullptr || *at == '\0' || Digit(*at))
    {
        return 0;
    }
    const char delimiter[] = {*at, '\0'};
    at += strspn(at, delimiter);
    uint64_t port = 0;
    const char* const end = ReadNumber(at, port);
    const bool found = end != at && *end == delimiter[0] && port <= 65535;
    return found ? static_cast<unsigned int>(port) : 0;
}

// "(192,0,2,1,195,80)", with or without the parentheses.
unsigned int PassivePort(const char* text)
{
    for (const char* begin = text; *begin != '\0'; ++begin)
    {
        const char* at = begin;
        uint64_t numbers[6] = {};
        size_t count = 0;
        while (count != 6 && Digit(*at))
        {
            at = ReadNumber(at, numbers[count]);
            ++count;
            at += count != 6 && *at == ',' ? 1 : 0;
        }
        if (count == 6 && numbers[4] <= 255 && numbers[5] <= 255)
        {
            return static_cast<unsigned int>(numbers[4] << 8 | numbers[5]);
        }
        begin += Digit(*begin) ? strspn(begin, "0123456789") - 1 : 0;
    }
    return 0;
}

// Converts the secret from UTF-8 to Latin-1, or from Latin-1 to UTF-8 if it is not UTF-8: servers
// may echo it in either.
void OtherEncoding(const char* secret, char (&other)[2 * Secret::kCapacity])
{
    const auto* at = reinterpret_cast<const unsigned char*>(secret);
    size_t used = 0;
    bool utf8 = true;
    for (; utf8 && *at != '\0'; ++at)
    {
        const bool two = (at[0] == 0xc2 || at[0] == 0xc3) && (at[1] & 0xc0) == 0x80;
        utf8 = at[0] < 0x80 || two;
        other[used++] = static_cast<char>(two ? (at[0] & 3) << 6 | (at[1] & 0x3f) : at[0]);
        at += two ? 1 : 0;
    }
    at = reinterpret_cast<const unsigned char*>(secret);
    for (used = utf8 ? used : 0; !utf8 && *at != '\0'; ++at)
    {
        if (*at >= 0x80)
        {
            other[used++] = static_cast<char>(0xc0 | *at >> 6);
        }
        other[used++] = static_cast<char>(*at >= 0x80 ? 0x80 | (*at & 0x3f) : *at);
    }
    other[used] = '\0';
}

}  // namespace

ReplyReader::~ReplyReader()
{
    explicit_bzero(m_input, sizeof m_input);
    explicit_bzero(m_line, sizeof m_line);
}

void ReplyReader::Restart(const Limits& limits)
{
    m_bytesLeft = limits.replyBytes;
    m_linesLeft = limits.replyLines;
}

char* ReplyReader::FreeSpace(size_t& size)
{
    size = sizeof m_input;
    return m_input;
}

void ReplyReader::Arrived(size_t length)
{
    m_at = 0;
    m_end = length;
}

// Moves bytes of the current line from the input. False: the line is incomplete.
bool ReplyReader::TakeLine()
{
    while (m_at != m_end)
    {
        const char c = m_input[m_at++];
        --m_bytesLeft;
        if (c == '\n')
        {
            return true;
        }
        if (m_length != sizeof m_line - 1)
        {
            m_line[m_length++] = c == '\0' ? '?' : c;
        }
        if (m_bytesLeft == 0)
        {
            return false;
        }
    }
    return false;
}

ReplyReader::Result ReplyReader::Next(Reply& reply, bool login)
{
    for (;;)
    {
        const bool line = m_bytesLeft != 0 && TakeLine();
        if (m_bytesLeft == 0)
        {
            return Result::kTooManyBytes;
        }
        if (!line)
        {
            return Result::kIncomplete;
        }
        if (m_linesLeft == 0)
        {
            return Result::kTooManyLines;
        }
        --m_linesLeft;
        const bool complete = EndReply(reply, login);
        m_length = 0;
        if (complete)
        {
            return Result::kReply;
        }
    }
}

// Handles a complete line; true if it ends a reply. A reply of several lines ends only with its own
// code. Lines without a code outside a reply are ignored.
bool ReplyReader::EndReply(Reply& reply, bool login)
{
    m_length -= m_length != 0 && m_line[m_length - 1] == '\r' ? 1 : 0;
    m_line[m_length] = '\0';
    const unsigned int code = CodeOf(m_line, m_length);
    const bool last = m_length <= 3 || m_line[3] == ' ';
    if (m_code == 0 && code != 0 && !last)
    {
        m_code = code;
        KeepText(m_first, login);
    }
    if (code == 0 || !last || (m_code != 0 && code != m_code))
    {
        return false;
    }
    reply.code = code;
    KeepText(reply.text, login);
    if (reply.text[0] == '\0')
    {
        memcpy(reply.text, m_first, sizeof reply.text);
    }
    m_code = 0;
    m_first[0] = '\0';
    return true;
}

// Copies the text of m_line. The password is masked first, while the text is still as received.
void ReplyReader::KeepText(char (&text)[256], bool login) const
{
    const size_t begin = std::min<size_t>(m_length, 4);
    const size_t kept = std::min(m_length - begin, sizeof text - 1);
    memcpy(text, m_line + begin, kept);
    text[kept] = '\0';
    const RevealedSecret secret(m_secret);
    const size_t length = strlen(secret.Text());
    if (length >= kShortestMasked)
    {
        char other[2 * Secret::kCapacity];
        OtherEncoding(secret.Text(), other);
        MaskText(text, secret.Text(), length);
        MaskText(text, other, strlen(other));
        explicit_bzero(other, sizeof other);
    }
    else if (login)
    {
        memcpy(text, kWithheld, sizeof kWithheld);
    }
    for (size_t end = strlen(text); end != 0 && text[end - 1] == ' '; --end)
    {
        text[end - 1] = '\0';
    }
    MakePrintable(text);
}

// Masks the password with asterisks, ignoring case: whole, its first or last part of at least half
// its length (4 bytes at least), or cut by the end of the text.
void ReplyReader::MaskText(char (&text)[256], const char* secret, size_t length) const
{
    const size_t least = std::max(kShortestMasked, length / 2);
    const size_t kept = strlen(text);
    const char* const line = m_line + std::min<size_t>(m_length, 4);
    for (size_t at = 0; at < kept; ++at)
    {
        for (size_t from = 0; from + least <= length; ++from)
        {
            size_t same = 0;
            while (from + same < length && Lower(line[at + same]) == Lower(secret[from + same]))
            {
                ++same;
            }
            if (same >= least && (from == 0 || from + same == length))
            {
                memset(text + at, '*', std::min(same, kept - at));
            }
        }
    }
}

uint64_t SizeIn213(const char* text)
{
    uint64_t size = 0;
    const char* const end = ReadNumber(text, size);
    const bool number = end != text && *end == '\0' && size <= static_cast<uint64_t>(INT64_MAX);
    return number ? size : TRAVEX_FTP_SIZE_UNKNOWN;
}

uint64_t SizeIn150(const char* text)
{
    constexpr char kUnit[] = " bytes";
    uint64_t found = 0;
    for (const char* at = strchr(text, '('); at != nullptr; at = strchr(at + 1, '('))
    {
        uint64_t size = 0;
        const char* const end = ReadNumber(at + 1, size);
        const bool number = end != at + 1 && strncmp(end, kUnit, sizeof kUnit - 1) == 0;
        found = number ? size : found;  // the last one: a file name may look like a size
    }
    return found != 0 && found <= static_cast<uint64_t>(INT64_MAX) ? found
                                                                   : TRAVEX_FTP_SIZE_UNKNOWN;
}

unsigned int PortOfReply(const Reply& reply)
{
    const unsigned int port = ExtendedPort(reply.text);
    return port != 0 ? port : PassivePort(reply.text);
}

}  // namespace travex_ftp
