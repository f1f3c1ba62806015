// How the program ends: its exit statuses, and the exception that carries one to main().
#ifndef CORPDIR_TOOL_FAILURE_H
#define CORPDIR_TOOL_FAILURE_H

#include <stdexcept>
#include <string>

namespace corpdir_tool
{

// Exit statuses; a stop by a signal is 128 + the signal.
enum ExitStatus : int
{
    EXIT_FETCHED = 0,      // the directory file has arrived
    EXIT_INTERNAL = 1,     // the service could not be started, or memory ran out
    EXIT_ARGUMENTS = 2,    // unusable arguments
    EXIT_NO_SERVER = 3,    // every server failed
    EXIT_BAD_VERSION = 4,  // the version file on disk is not valid
    EXIT_NO_OUTCOME = 5,   // no outcome within --timeout
    EXIT_LOCAL_FILE = 6,   // a local file or directory cannot be written
    EXIT_SIGNAL = 128
};

// Ends the program with a status after its message was shown. Thrown on the main thread only.
class Failure : public std::runtime_error
{
public:
    Failure(int status, const std::string& message) : std::runtime_error(message), m_status(status)
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
