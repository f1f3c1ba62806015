// Standard error as a sink.
#ifndef CORPDIR_LOG_CONSOLE_SINK_H
#define CORPDIR_LOG_CONSOLE_SINK_H

#include "line_formatter.h"
#include "sink.h"

namespace corpdir_log
{
// Writes past the C library's stream: a standard error that nobody reads would block the log's
// thread with the stream locked, and the process, which flushes its streams, could not end. What
// cannot be written is dropped, since there is nobody to tell; everything, if
// standard error is closed when the object is made: its number may later be a file of the client's.
// One thread only.
class ConsoleSink final : public Sink
{
public:
    ConsoleSink();

    void Write(const Record& record) override;
    void Flush() override {}

private:
    const bool m_isOpen;
    LineFormatter m_formatter;
    std::string m_line;
};

}  // namespace corpdir_log

#endif
