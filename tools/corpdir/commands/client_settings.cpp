#include "commands/client_settings.h"

#include "commands/layer_settings.h"
#include "os/password.h"

namespace corpdir_tool
{

namespace
{

void Copy(const client::Secret& from, client::Secret& to)
{
    to.Wipe();
    for (const char byte : from.View())
    {
        (void)to.Append(byte);  // as long as the other
    }
}

}  // namespace

PasswordSource::PasswordSource(std::string file) : m_file(std::move(file))
{
    ReadPassword(m_file, m_password);
}

PasswordSource::PasswordSource(std::string file, PasswordSource& earlier) : m_file(std::move(file))
{
    if (!CanBeReadAgain() || !ReadPasswordAgain(m_file, m_password))
    {
        earlier.Get(m_password, false);
    }
}

void PasswordSource::Get(client::Secret& password, bool again)
{
    if (again && CanBeReadAgain())
    {
        try
        {
            client::Secret read;
            if (ReadPasswordAgain(m_file, read))
            {
                Copy(read, m_password);
            }
        }
        catch (const ExitError&)
        {
            // It may be replaced at this moment; the next check reads it again.
        }
    }
    Copy(m_password, password);
}

client::Settings SettingsOf(const Plan& plan, PasswordSource& password)
{
    client::Settings settings;
    settings.servers = plan.entries;
    settings.family = plan.family;
    settings.port = plan.port;
    settings.localAddress = plan.localIp;
    settings.user = plan.user;
    settings.plain = plan.plain;
    settings.verify = plan.verify;
    settings.trust = plan.trust;
    settings.names = plan.verifyNames;
    settings.suites = plan.suites;
    settings.maxFileBytes = plan.maxSize;
    settings.connectMs = plan.connectTimeout * 1000;
    settings.versionFile = plan.versionFile;
    settings.directoryFile = plan.directoryFile;
    settings.versionFolder = plan.outputDir;
    settings.versionName = plan.versionName;
    settings.directoryFolder = plan.outputDir;
    settings.directoryName = plan.directoryName;
    settings.log = LogSettingsOf(plan);
    settings.retry = std::chrono::seconds(plan.retrySeconds);
    settings.onlyIfChanged = plan.ifChanged;
    settings.readPassword = [&password](client::Secret& to, bool loginRefused)
    { password.Get(to, loginRefused); };
    return settings;
}

ExitError StartProblem(const Plan& plan, const client::StartError& error)
{
    return error.Log() != 0 && !plan.logDir.empty()
               ? LogError(plan, static_cast<unsigned int>(error.Log()))
               : ExitError(kExitInternal, error.what());
}

}  // namespace corpdir_tool
