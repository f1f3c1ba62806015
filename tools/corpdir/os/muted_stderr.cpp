#include "os/muted_stderr.h"

#include <fcntl.h>
#include <unistd.h>

namespace corpdir_tool
{

// When a step fails, the log's errors are seen, which is better than no messages at all.
MutedStandardError::MutedStandardError(bool mute)
{
    if (!mute)
    {
        return;
    }
    const int kept = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    std::FILE* const messages = kept < 0 ? nullptr : fdopen(kept, "w");
    if (messages == nullptr)
    {
        return;
    }
    m_messages = messages;
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere >= 0)
    {
        (void)dup2(nowhere, STDERR_FILENO);
        (void)close(nowhere);
    }
}

MutedStandardError::~MutedStandardError()
{
    if (m_messages != stderr)
    {
        (void)dup2(fileno(m_messages), STDERR_FILENO);
        (void)std::fclose(m_messages);
    }
}

}  // namespace corpdir_tool
