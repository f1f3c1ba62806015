// A scripted service for the unit tests of the program, and a stream that the scripts follow.
#ifndef CORPDIR_TESTS_FAKE_SERVICE_H
#define CORPDIR_TESTS_FAKE_SERVICE_H

#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "corpdir_log.h"
#include "fake_layers.h"
#include "files.h"
#include "ftpcorpdir.h"

namespace corpdir_tool
{

// Records the calls. Each request plays its script at once, on the caller's thread; the last script
// is played for all later requests too. The functions below do what the service and the FTP layer
// would do. Not thread-safe.
class FakeService final : public IFtpCorpDir
{
public:
    using Script = std::function<void(FakeService& service)>;

    unsigned int CorpDirInit(tag_CORPDIR_LOGINFO* log) override
    {
        ++starts;
        running = true;
        lastLog = *log;
        const unsigned int result = initFailures != 0 && initFailures-- != 0 ? initResult : 0;
        if (result == 0)
        {
            (void)CorpDir_OpenLog(log);
        }
        return result;
    }
    void CorpDirUninit() override
    {
        running = false;
        if (onStop)
        {
            std::exchange(onStop, nullptr)();
        }
        CorpDir_CloseLog();
        ++stops;
    }
    unsigned int CorpDirDownloadNetaddr(tag_CORPDIR_DOWNLOADINFO* info,
                                        CORPDIR_DOWNLOAD_CB) override
    {
        requests.emplace_back(info->pszFtpIPs);
        lastRequest = *info;
        requestResult = 0;
        if (!scripts.empty())
        {
            scripts[std::min(requests.size(), scripts.size()) - 1](*this);
        }
        return requestResult;
    }
    unsigned int CorpDirSetFtpCipherListToDirImpl(const int* list, unsigned int count) override
    {
        cipherLists.emplace_back(list, list + count);
        return cipherResult;
    }
    unsigned int CorpDirAddFtpCipherListToDirImplByOne(int) override
    {
        return 1;
    }
    unsigned int CorpDirAddFtpCipherListToDirImpl(const int*, unsigned int) override
    {
        return 1;
    }

    // The transfer begins. Returns its task.
    unsigned int VersionBegins(const std::string& server)
    {
        return Begin(server, lastRequest.szVersionServerFile);
    }
    unsigned int DirectoryBegins(const std::string& server)
    {
        return Begin(server, lastRequest.szCorpDirServerFile);
    }

    // 24 of 48 bytes of the directory file have arrived.
    void DirectoryProgress(const std::string& server)
    {
        Observe(TRAVEX_FTP_OBSERVED_PROGRESS, m_task, server, lastRequest.szCorpDirServerFile, 0,
                "");
    }
    void VersionProgress(const std::string& server)
    {
        Observe(TRAVEX_FTP_OBSERVED_PROGRESS, m_task, server, lastRequest.szVersionServerFile, 0,
                "");
    }

    void Version(const std::string& server, const std::string& text)
    {
        const unsigned int task = VersionBegins(server);
        support::WriteFile(
            std::string(lastRequest.szVersionLocalDir) + lastRequest.szVersionLocalFileName, text);
        Observe(TRAVEX_FTP_OBSERVED_SUCCESS, task, server, lastRequest.szVersionServerFile, 0, "");
    }
    void DirectoryArrives(const std::string& server, const std::string& text, unsigned int task)
    {
        support::WriteFile(
            std::string(lastRequest.szCorpDirLocalDir) + lastRequest.szCorpDirLocalFileName, text);
        Observe(TRAVEX_FTP_OBSERVED_SUCCESS, task, server, lastRequest.szCorpDirServerFile, 0, "");
    }

    // Both files arrive. The directory file is the text of the version.
    void Deliver(const std::string& server, const std::string& version)
    {
        Version(server, version + "\n");
        DirectoryArrives(server, version, DirectoryBegins(server));
    }

    void VersionFails(const std::string& server, unsigned int code = TRAVEX_FTP_ERR_CONNECT)
    {
        Observe(TRAVEX_FTP_OBSERVED_FAILED, VersionBegins(server), server,
                lastRequest.szVersionServerFile, code, "version refused");
    }
    void DirectoryFails(const std::string& server, unsigned int code = TRAVEX_FTP_ERR_PARTIAL)
    {
        DirectoryEndsEarly(server, DirectoryBegins(server), code);
    }
    void DirectoryEndsEarly(const std::string& server, unsigned int task,
                            unsigned int code = TRAVEX_FTP_ERR_PARTIAL)
    {
        Observe(TRAVEX_FTP_OBSERVED_FAILED, task, server, lastRequest.szCorpDirServerFile, code,
                "directory refused");
    }

    // A transfer is not begun.
    void Refuse(const std::string& server, unsigned int code)
    {
        Observe(TRAVEX_FTP_OBSERVED_REFUSED, 0, server, "", code, "bad suite");
    }

    std::vector<Script> scripts;
    std::function<void()> onStop;  // ends what a script has begun on another thread
    unsigned int initResult = 0;
    int initFailures = 1000;  // how often
    unsigned int cipherResult = 0;
    unsigned int requestResult = 0;  // of the current request; set by its script
    bool running = false;
    int starts = 0;
    int stops = 0;
    std::vector<std::string> requests;
    std::vector<std::vector<int>> cipherLists;
    tag_CORPDIR_DOWNLOADINFO lastRequest = {};
    tag_CORPDIR_LOGINFO lastLog = {};

private:
    unsigned int Begin(const std::string& server, const char* file)
    {
        Observe(TRAVEX_FTP_OBSERVED_ACCEPTED, ++m_task, server, file, 0, "");
        return m_task;
    }

    void Observe(unsigned int kind, unsigned int task, const std::string& server, const char* file,
                 unsigned int code, const char* reason) const
    {
        const bool isIpv6 = server.find(':') != std::string::npos;
        const std::string endpoint = isIpv6 ? "[" + server + "]:21" : server + ":21";
        Layers().Observe(kind, task, server.empty() ? "" : endpoint, file, code, reason);
    }

    unsigned int m_task = 0;
};

// A stream that keeps its text, and calls a function for each text that it was given to wait for,
// in their order, as soon as it has been written. The function runs on the writer's thread.
class FollowedStream
{
public:
    FollowedStream() : m_stream(fopencookie(this, "w", {nullptr, &Write, nullptr, nullptr})) {}
    ~FollowedStream()
    {
        (void)std::fclose(m_stream);
    }
    FollowedStream(const FollowedStream&) = delete;
    FollowedStream& operator=(const FollowedStream&) = delete;

    std::FILE* Get() const
    {
        return m_stream;
    }

    const std::string& Text() const
    {
        (void)std::fflush(m_stream);
        return m_text;
    }

    // After what was written for the step before it.
    void When(const std::string& text, std::function<void()> action)
    {
        m_steps.push_back({text, std::move(action)});
    }

    // The texts that have not been written.
    std::vector<std::string> Missing() const
    {
        std::vector<std::string> texts;
        for (std::size_t i = m_next; i < m_steps.size(); ++i)
        {
            texts.push_back(m_steps[i].text);
        }
        return texts;
    }

private:
    struct Step
    {
        std::string text;
        std::function<void()> action;
    };

    static ssize_t Write(void* cookie, const char* bytes, std::size_t size)
    {
        auto* const stream = static_cast<FollowedStream*>(cookie);
        stream->m_text.append(bytes, size);
        stream->Follow();
        return static_cast<ssize_t>(size);
    }

    void Follow()
    {
        while (m_next < m_steps.size())
        {
            const std::size_t found = m_text.find(m_steps[m_next].text, m_from);
            if (found == std::string::npos)
            {
                return;
            }
            m_from = found + m_steps[m_next].text.size();
            m_steps[m_next++].action();
        }
    }

    std::string m_text;
    std::vector<Step> m_steps;
    std::size_t m_next = 0;  // step
    std::size_t m_from = 0;  // where its text is looked for
    std::FILE* m_stream;
};

}  // namespace corpdir_tool

#endif
