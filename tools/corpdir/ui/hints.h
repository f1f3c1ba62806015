// Failures of transfers, and hints on what to do about them.
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
    unsigned int reply = 0;   // number of the server reply that caused it; 0: none
    unsigned int detail = 0;  // tagTRAVEX_FTP_DETAIL
    std::string file;         // on the server; empty when not known
    std::string reason;       // for people; nothing is decided by its words
    // Of the server's certificate, separated by ", "; see tagTRAVEX_FTP_S_TIMINGS.
    std::string certificateNames{};
};

// The advice on a failure; empty when there is none. A code of 0 with a file and a reason: the
// version file is not valid.
std::string HintFor(const Failure& failure, const Plan& plan);

// A server that was asked, and its failure.
struct Attempt
{
    Server server;
    Failure failure;  // no reason: it did not fail
};

// The advice on the failure that came furthest in the dialogue, with the server's name when there
// are several.
std::string HintFor(const std::vector<Attempt>& attempts, const Plan& plan);

// The elements of a list of certificate names.
std::vector<std::string> CertificateNames(const std::string& list);

// The reason, after the file name when the failure is about a file.
std::string WithFile(const Failure& failure);

// The message when no name in --servers has an address.
std::string NoAddress(const Plan& plan);

// "all 3 servers failed"
std::string AllFailed(std::size_t servers);

// The outcome of a failed run, for its last record in the log: the message, and the server and the
// reason that the hint is about. status: of the run.
std::string OutcomeText(int status, const std::string& message,
                        const std::vector<Attempt>& attempts, const Plan& plan);

}  // namespace corpdir_tool

#endif
