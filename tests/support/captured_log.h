// Link-time fake of the log component: keeps every record for the tests.
//
// Link captured_log.cpp instead of the log component, with layers that write records and do not
// trace functions. Thread-safe. Records are kept while the log is closed too. g_LogOne is set from
// the start; a test may set it to null, or g_LogMode, as the component's users may see them.
#ifndef CAPTURED_LOG_H
#define CAPTURED_LOG_H

#include "corpdir_log.h"

#include <cstddef>
#include <string>
#include <vector>

namespace captured_log
{
struct Record
{
    std::string module;
    unsigned int level = 0;
    std::string text;
    std::string directory;  // of the log that was open
};

// All records since the start or the last Clear, in order.
std::vector<Record> Records();

// The texts of the records of this level.
std::vector<std::string> Texts(unsigned int level);

// The number of records whose text contains `part`.
size_t CountWith(const std::string& part);

void Clear();

}  // namespace captured_log

#endif
