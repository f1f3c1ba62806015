// Keeps the service's log off the terminal when nobody asked for a log: the log layer's settings
// know no "nothing at all", and its errors go to standard error.
#ifndef CORPDIR_TOOL_MUTED_STDERR_H
#define CORPDIR_TOOL_MUTED_STDERR_H

#include <cstdio>

namespace corpdir_tool
{

// While it lives, and when asked to mute, what is written to descriptor 2 is dropped. Make and
// destroy it while no other thread writes there.
class MutedStandardError
{
public:
    explicit MutedStandardError(bool mute);
    ~MutedStandardError();
    MutedStandardError(const MutedStandardError&) = delete;
    MutedStandardError& operator=(const MutedStandardError&) = delete;

    // Leads to where standard error led before.
    std::FILE* Messages() const
    {
        return m_messages;
    }

private:
    std::FILE* m_messages = stderr;
};

}  // namespace corpdir_tool

#endif
