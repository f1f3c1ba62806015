// Link-time fake of the log component: keeps every record for the tests.
//
// Link captured_log.cpp instead of the log component. Thread-safe. g_LogOne is set from the start;
// a test may set it to null, or g_LogMode, as the component's users may see them.
#ifndef CAPTURED_LOG_H
#define CAPTURED_LOG_H

#include "corpdir_log.h"

#include <cstddef>
#include <string>
#include <vector>

namespace captured_log
{
// The call that made a record.
enum class Kind
{
    kWrite,  // CCorpDirLog::WriteLog
    kEnter,  // constructor of a FunctionTrace; text is "enter"
    kLeave,  // its destructor; text is "leave"
    kOpen,   // CorpDir_OpenLog; text is the directory, level the one asked for
    kClose   // CorpDir_CloseLog
};

struct Record
{
    Kind kind = Kind::kWrite;
    std::string module;
    std::string function;
    std::string file;
    unsigned int line = 0;
    unsigned int level = 0;
    std::string text;
};

// All records since the start or the last Clear, in order.
std::vector<Record> Records();

// The texts of the records that WriteLog made at this level.
std::vector<std::string> Texts(unsigned int level);

// The number of records of WriteLog whose text contains `part`.
size_t CountWith(const std::string& part);

void Clear();

// The result of CorpDir_OpenLog from now on; 0 at first.
void SetOpenResult(unsigned int result);

}  // namespace captured_log

#endif
