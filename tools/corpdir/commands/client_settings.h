// The client's settings, from the plan; the password, and where it came from.
#ifndef CORPDIR_TOOL_CLIENT_SETTINGS_H
#define CORPDIR_TOOL_CLIENT_SETTINGS_H

#include <string>
#include <utility>

#include "cli/options.h"
#include "exit_error.h"
#include "secret.h"
#include "service_link.h"
#include "settings.h"

namespace corpdir_tool
{

// Belongs to the main thread.
class PasswordSource
{
public:
    // Reads the password; see ReadPassword().
    explicit PasswordSource(std::string file);

    // For settings that are read again: takes the earlier password when there is no regular file to
    // read. Throws ExitError when there is one that cannot be used.
    PasswordSource(std::string file, PasswordSource& earlier);

    // Appends the password to an empty one. again: a password file is read again first. One that
    // cannot be read, or is no regular file, leaves the password as it was.
    void Get(client::Secret& password, bool again);

private:
    bool CanBeReadAgain() const
    {
        return !m_file.empty() && m_file != "-";
    }

    const std::string m_file;
    client::Secret m_password;
};

// The password must outlive the settings.
client::Settings SettingsOf(const Plan& plan, PasswordSource& password);

// The error that ends the program.
ExitError StartProblem(const Plan& plan, const client::StartError& error);

}  // namespace corpdir_tool

#endif
