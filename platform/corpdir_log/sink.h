// A place that the log's lines go to.
#ifndef CORPDIR_LOG_SINK_H
#define CORPDIR_LOG_SINK_H

#include "record.h"

namespace corpdir_log
{
// Used by one thread only, the log's.
class Sink
{
public:
    Sink() = default;
    virtual ~Sink() = default;
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;

    // Both may throw std::system_error or std::bad_alloc.
    virtual void Write(const Record& record) = 0;
    virtual void Flush() = 0;
};

}  // namespace corpdir_log

#endif
