#include "replies.h"

#include <algorithm>
#include <cstring>

#include "failure.h"

namespace travex_ftp
{
namespace
{
constexpr char kWithheld[] = "(text withheld)";

bool digit(char c)
{
    return c >= '0' && c <= '9';
}

// Code of a line "150 text" or "150-text", else 0.
unsigned int codeOf(const char* line, size_t length)
{
    if (length < 4 || !digit(line[0]) || !digit(line[1]) || !digit(line[2]) ||
        (line[3] != ' ' && line[3] != '-'))
    {
        return 0;
    }
    return static_cast<unsigned int>((line[0] - '0') * 100 + (line[1] - '0') * 10 + line[2] - '0');
}

// Reads digits from `at` on and returns where they end. A number that does not fit is the largest
// but one, so that it is too large for every limit and yet known.
const char* readNumber(const char* at, const char* end, uint64_t& number)
{
    number = 0;
    for (; at != end && digit(*at); ++at)
    {
        const uint64_t next = static_cast<uint64_t>(*at - '0');
        number = number > (UINT64_MAX - 1 - next) / 10 ? UINT64_MAX - 1 : number * 10 + next;
    }
    return at;
}

// Finds "(1234 bytes" in the text of a 150. Other phrases ("64.0 kbytes") are not exact and count
// as none.
uint64_t sizeInParentheses(const char* line, const char* end)
{
    static const char kUnit[] = " bytes";
    for (const char* at = line; at != end; ++at)
    {
        uint64_t number = 0;
        if (*at != '(' || at + 1 == end || !digit(at[1]))
        {
            continue;
        }
        const char* behind = readNumber(at + 1, end, number);
        if (static_cast<size_t>(end - behind) >= sizeof kUnit - 1 &&
            memcmp(behind, kUnit, sizeof kUnit - 1) == 0)
        {
            return number;
        }
    }
    return UINT64_MAX;
}

const char* trimmedEnd(const char* line, size_t length)
{
    const char* end = line + length;
    while (end != line && (end[-1] == '\n' || end[-1] == '\r' || end[-1] == ' '))
    {
        --end;
    }
    return end;
}

}  // namespace

void Replies::commandSent(const char* line, size_t length)
{
    size_t used = 0;
    // Letters only: what follows the verb may be a password.
    while (used < length && used < sizeof verb_ - 1 && line[used] >= 'A' && line[used] <= 'Z')
    {
        verb_[used] = line[used];
        ++used;
    }
    verb_[used] = '\0';
    answered_ = false;
}

// Lines in the middle of a reply may look like the end of another one: only the code that began it
// ends it.
Replies::Line Replies::lineHeard(const char* line, size_t length, const Limits& limits)
{
    ++lines_;
    bytes_ += length;
    if (lines_ > limits.replyLines || bytes_ > limits.replyBytes)
    {
        return Line::TooMuch;
    }
    const unsigned int code = codeOf(line, length);
    if (pending_ != 0 ? code == pending_ && line[3] == ' ' : code != 0 && line[3] == ' ')
    {
        pending_ = 0;
        code_ = code;
        return final(line, length);
    }
    if (pending_ == 0)
    {
        pending_ = code;
    }
    return Line::Fine;
}

// The password is looked for in the line as it came: not trimmed, not shortened, not yet printable.
void Replies::keepText(const char* begin, const char* end, const char* lineEnd)
{
    const size_t kept = std::min(static_cast<size_t>(end - begin), sizeof text_ - 1);
    memcpy(text_, begin, kept);
    text_[kept] = '\0';
    if (secret_ == nullptr)
    {
        return;
    }
    const Clear secret(*secret_);
    const size_t length = strlen(secret.text());
    if (length < kShortestMasked)
    {
        if (strcmp(verb_, "USER") == 0 || strcmp(verb_, "PASS") == 0)
        {
            memcpy(text_, kWithheld, sizeof kWithheld);
        }
        return;
    }
    for (const char* at = begin; at < begin + kept; ++at)
    {
        if (static_cast<size_t>(lineEnd - at) >= length && memcmp(at, secret.text(), length) == 0)
        {
            const size_t offset = static_cast<size_t>(at - begin);
            memset(text_ + offset, '*', std::min(length, kept - offset));
        }
    }
}

Replies::Line Replies::final(const char* line, size_t length)
{
    const char* const begin = line + 4;
    const char* const end = std::max(begin, trimmedEnd(line, length));
    keepText(begin, end, line + length);
    answered_ = code_ >= 200;  // a 1xx is followed by another reply
    if (code_ == 150 || code_ == 125)
    {
        opened_ = true;
        sizeOpened_ = sizeInParentheses(begin, end);
    }
    // 213 answers other commands too.
    if (code_ == 213 && strcmp(verb_, "SIZE") == 0)
    {
        uint64_t size = 0;
        const char* const behind = readNumber(begin, end, size);
        if (behind == begin || behind != end)
        {
            return Line::BadSize;
        }
        sizeAnswered_ = size;
    }
    return Line::Fine;
}

}  // namespace travex_ftp
