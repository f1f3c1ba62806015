// What to do about a failure.
#ifndef CORPDIR_TOOL_HINTS_H
#define CORPDIR_TOOL_HINTS_H

#include <string>
#include <vector>

#include "cli/options.h"

namespace corpdir_tool
{

// A failure as the FTP layer reported it.
struct Failure
{
    unsigned int code = 0;    // tagTRAVEX_FTP_RESULT
    unsigned int step = 0;    // tagTRAVEX_FTP_STEP
    unsigned int reply = 0;   // number of the server's reply that caused it; 0: none did
    unsigned int detail = 0;  // tagTRAVEX_FTP_DETAIL
    std::string file;         // on the server; empty when not known
    std::string reason;       // in words, for people: nothing is decided by them
};

// A sentence on what to do next; empty when there is nothing to advise.
std::string HintFor(const Failure& failure, const Plan& plan);

// Those of several failures, each once, in their order.
std::vector<std::string> HintsFor(const std::vector<Failure>& failures, const Plan& plan);

// The reason with the file that it is about, where it is about one.
std::string WithFile(const Failure& failure);

// "all 3 servers failed"
std::string AllFailed(std::size_t servers);

}  // namespace corpdir_tool

#endif
