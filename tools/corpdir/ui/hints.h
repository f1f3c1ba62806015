// What to do about a failure.
#ifndef CORPDIR_TOOL_HINTS_H
#define CORPDIR_TOOL_HINTS_H

#include <string>
#include <vector>

#include "cli/options.h"
#include "commands/events.h"

namespace corpdir_tool
{

// A failure as the FTP layer reported it.
struct Trouble
{
    unsigned int code = 0;    // tagTRAVEX_FTP_RESULT
    unsigned int step = 0;    // tagTRAVEX_FTP_STEP
    unsigned int reply = 0;   // number of the server's reply that caused it; 0: none did
    unsigned int detail = 0;  // tagTRAVEX_FTP_DETAIL
    std::string file;         // on the server; empty when not known
    std::string reason;       // in words, for people: nothing is decided by them
};

Trouble TroubleOf(const Event& event);

// A sentence on what to do next; empty when there is nothing to advise.
std::string HintFor(const Trouble& trouble, const Plan& plan);

// Those of several failures, each once, in their order.
std::vector<std::string> HintsFor(const std::vector<Trouble>& troubles, const Plan& plan);

// The reason with the file that it is about, where it is about one.
std::string WithFile(const Trouble& trouble);

// "all 3 servers failed"
std::string AllFailed(std::size_t servers);

// "; did you mean 'candidate'?" for the one that is most like a misspelt word; empty when none is.
std::string Suggestion(const std::string& word, const std::vector<std::string>& candidates);

}  // namespace corpdir_tool

#endif
