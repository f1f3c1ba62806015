// Starts the service, makes a request, stops it.
#ifndef CORPDIR_CLIENT_SERVICE_LINK_H
#define CORPDIR_CLIENT_SERVICE_LINK_H

#include <stdexcept>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "ftpcorpdir.h"
#include "server_names.h"
#include "settings.h"

namespace client
{

// The service could not be started.
class StartError : public std::runtime_error
{
public:
    // log: an errno value when the log could not be opened, else 0.
    StartError(const std::string& message, int log = 0) : runtime_error(message), m_log(log) {}

    int Log() const
    {
        return m_log;
    }

private:
    int m_log;
};

// Start, Request and Stop belong to one thread. StopInObserver is for the observer of the FTP
// layer, which a stop on another thread waits for.
class ServiceLink
{
public:
    explicit ServiceLink(IFtpCorpDir& service) : m_service(service) {}
    ~ServiceLink()
    {
        Stop();
    }
    ServiceLink(const ServiceLink&) = delete;
    ServiceLink& operator=(const ServiceLink&) = delete;

    // Starts the service with the log, the limits and the suites of these settings; one that has
    // taken a request is stopped first. Throws StartError; the service is stopped then.
    void Start(const Settings& settings);

    // As Start(), when the service does not run.
    void StartWhenStopped(const Settings& settings)
    {
        if (Current() == State::kStopped)
        {
            Start(settings);
        }
    }

    // Requests the files from these servers, in this order, under these local names, and registers
    // the names that their certificates may carry. Returns 0 when the first check was started. It
    // throws what settings.readPassword throws.
    [[nodiscard]] unsigned int Request(const Settings& settings, const std::vector<Server>& servers,
                                       const std::string& versionName,
                                       const std::string& directoryName, bool loginRefused);

    void Stop();

    // Returns at once when a stop is under way. Waits for a request that another thread is making.
    void StopInObserver() CORPDIR_EXCLUDES(m_mutex);

private:
    enum class State
    {
        kStopped,
        kStarted,     // without a request
        kRequesting,  // one thread makes a request
        kRunning,     // with a request
        kStopping,
    };

    void Enter(State state) CORPDIR_EXCLUDES(m_mutex);
    State Current() CORPDIR_EXCLUDES(m_mutex);
    bool BeginStop(bool wait) CORPDIR_EXCLUDES(m_mutex);

    IFtpCorpDir& m_service;
    base::Mutex m_mutex;  // not held during a call of the service
    base::CondVar m_changed;
    State m_state CORPDIR_GUARDED_BY(m_mutex) = State::kStopped;
};

}  // namespace client

#endif
