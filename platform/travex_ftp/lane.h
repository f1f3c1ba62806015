// The tasks that wait for connections to one server, and what was learnt of how many it takes.
#ifndef TRAVEX_FTP_LANE_H
#define TRAVEX_FTP_LANE_H

#include <memory>

#include "limits.h"
#include "task.h"

namespace travex_ftp
{
// A server is one to which the same connection would do: address, user and security agree. Some
// servers take only so many connections of a client and turn others away. That is learnt from their
// refusals, and tried anew now and then: each time that ends in a refusal doubles the pause.
// Transfer thread only.
class Lane
{
public:
    explicit Lane(std::shared_ptr<const Settings> settings);

    const Settings& settings() const
    {
        return *settings_;
    }

    bool serves(const std::shared_ptr<const Settings>& settings) const;

    // First come, first served.
    TaskQueue<&Task::nextTransfer> waiting;

    // Another connection may be tried beside `open` ones.
    bool mayConnect(size_t open, Clock::time_point now) const;

    // It is tried.
    void connects(size_t open, Clock::time_point now);

    // The server has turned a connection away, and serves `others`.
    void turnedAway(size_t others, Clock::time_point now);

    // When a connection may be tried that may not now, if none ends before.
    Clock::time_point triesAt() const
    {
        return triesAt_;
    }

private:
    const std::shared_ptr<const Settings> settings_;
    size_t most_ = SIZE_MAX;
    bool trying_ = false;  // beyond what it last took
    milliseconds pause_{0};
    Clock::time_point triesAt_;
};

}  // namespace travex_ftp

#endif
