// What the server says on the control channel, read line by line as it arrives.
#ifndef TRAVEX_FTP_REPLIES_H
#define TRAVEX_FTP_REPLIES_H

#include <cstddef>
#include <cstdint>

#include "limits.h"
#include "secret.h"

namespace travex_ftp
{
// The replies of one transfer. Not thread-safe: the transfer thread's. Allocates nothing.
class Replies
{
public:
    // `secret` is the password, which a server may repeat; it must outlive the object. Null: none.
    explicit Replies(const Secret* secret = nullptr) : secret_(secret) {}

    // The server gives up the control connection, whatever the command was.
    static constexpr unsigned int kServiceEnds = 421;

    // Verdict on a line.
    enum class Line
    {
        Fine,
        TooMuch,  // more lines or bytes than the limits allow
        BadSize,  // 213 without a number
    };

    // A client command went out: the next reply is its answer.
    void commandSent(const char* line, size_t length);

    Line lineHeard(const char* line, size_t length, const Limits& limits);

    // Code of the last complete reply, 0 before the first; its text, shortened and without the
    // password.
    unsigned int code() const
    {
        return code_;
    }
    const char* text() const
    {
        return text_;
    }

    // Verb of the last command, empty before the first: the greeting answers none.
    const char* verb() const
    {
        return verb_;
    }

    // The same in words: what the next reply is, or should have been, the answer to.
    const char* step() const
    {
        return *verb_ != '\0' ? verb_ : "the greeting";
    }

    // The last command has its final reply.
    bool answered() const
    {
        return answered_;
    }

    // A refusal is the last that was said. One that libcurl tolerated before it sent the next
    // command is none; a 421 needs no command.
    bool refused() const
    {
        return code_ >= 400 && (answered_ || code_ == kServiceEnds);
    }

    uint64_t lines() const
    {
        return lines_;
    }

    // 125 or 150 was heard: the data channel carries the file, or has carried it.
    bool opened() const
    {
        return opened_;
    }

    // Size by the answer to SIZE, by the text of the 150; TRAVEX_FTP_SIZE_UNKNOWN each if none.
    uint64_t sizeAnswered() const
    {
        return sizeAnswered_;
    }
    uint64_t sizeOpened() const
    {
        return sizeOpened_;
    }

private:
    Line final(const char* line, size_t length);
    void keepText(const char* begin, const char* end, const char* lineEnd);

    const Secret* secret_;
    char verb_[8] = "";
    char text_[256] = "";
    unsigned int code_ = 0;
    unsigned int pending_ = 0;  // code of a reply of several lines that has not ended
    uint64_t lines_ = 0;
    uint64_t bytes_ = 0;
    uint64_t sizeAnswered_ = UINT64_MAX;
    uint64_t sizeOpened_ = UINT64_MAX;
    bool answered_ = true;
    bool opened_ = false;
};

}  // namespace travex_ftp

#endif
