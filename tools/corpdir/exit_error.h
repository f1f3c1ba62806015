// How the program ends: its exit statuses, and the exception that carries one to main().
#ifndef CORPDIR_TOOL_EXIT_ERROR_H
#define CORPDIR_TOOL_EXIT_ERROR_H

#include <stdexcept>
#include <string>

namespace corpdir_tool
{

// A program that a signal stopped ends with kExitSignal plus the signal's number.
enum ExitStatus : int
{
    kExitFetched = 0,     // the directory file was fetched
    kExitInternal = 1,    // the service could not be started, or the program ran out of memory
    kExitArguments = 2,   // invalid arguments
    kExitNoServer = 3,    // every server failed
    kExitBadVersion = 4,  // the version file is not valid
    kExitNoOutcome = 5,   // timed out (--timeout)
    kExitLocalFile = 6,   // a local file or directory cannot be written
    kExitNoState = 7,     // status: the directory file is not known, missing or changed
    kExitStale = 8,       // status: not confirmed within --max-age
    kExitSignal = 128
};

// Ends the program with a message and an exit status. Thrown on the main thread only.
class ExitError : public std::runtime_error
{
public:
    ExitError(int status, const std::string& message)
        : std::runtime_error(message), m_status(status)
    {
    }

    int Status() const
    {
        return m_status;
    }

private:
    int m_status;
};

}  // namespace corpdir_tool

#endif
