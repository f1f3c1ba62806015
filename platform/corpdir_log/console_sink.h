// Standard error as a sink.
#ifndef CORPDIR_LOG_CONSOLE_SINK_H
#define CORPDIR_LOG_CONSOLE_SINK_H

#include <spdlog/details/null_mutex.h>
#include <spdlog/sinks/base_sink.h>

namespace corpdir_log
{
// Writes past the C library's stream, unlike spdlog's own sink: a standard error that nobody reads
// would block the log's thread with the stream locked, and the process, which flushes its streams,
// could not end. What cannot be written is dropped, since there is nobody to tell; everything, if
// standard error is closed when the object is made: its number may later be a file of the client's.
// One thread only.
class ConsoleSink final : public spdlog::sinks::base_sink<spdlog::details::null_mutex>
{
public:
    ConsoleSink();

protected:
    void sink_it_(const spdlog::details::log_msg& message) override;
    void flush_() override {}

private:
    const bool m_isOpen;
};

}  // namespace corpdir_log

#endif
