#include "lane.h"

#include <algorithm>

namespace travex_ftp
{
namespace
{
constexpr milliseconds kFirstPause{1000};
constexpr milliseconds kLongestPause{60 * 1000};

}  // namespace

Lane::Lane(std::shared_ptr<const Settings> settings) : settings_(std::move(settings)) {}

bool Lane::serves(const std::shared_ptr<const Settings>& settings) const
{
    return settings == settings_ || settings_->sameConnection(*settings);
}

bool Lane::mayConnect(size_t open, Clock::time_point now) const
{
    return open < most_ || now >= triesAt_;
}

void Lane::connects(size_t open, Clock::time_point now)
{
    if (open >= most_)
    {
        trying_ = true;
        most_ = open + 1;
        triesAt_ = now + pause_;
    }
}

// Of several that were on their way at once, each may be turned away: that is one refusal.
void Lane::turnedAway(size_t others, Clock::time_point now)
{
    if (trying_ || most_ == SIZE_MAX)
    {
        pause_ = std::clamp(pause_ * 2, kFirstPause, kLongestPause);
    }
    trying_ = false;
    most_ = others;
    triesAt_ = now + pause_;
}

}  // namespace travex_ftp
