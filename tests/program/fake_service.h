// The part that the scripted services of the unit tests share.
#ifndef CORPDIR_TESTS_FAKE_SERVICE_H
#define CORPDIR_TESTS_FAKE_SERVICE_H

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ftpcorpdir.h"

namespace corpdir_tool
{

// Plays each request on a thread that a stop joins. Records the calls.
class FakeService : public IFtpCorpDir
{
public:
    unsigned int CorpDirInit(tag_CORPDIR_LOGINFO* log) override
    {
        m_stop = false;
        ++starts;
        lastLog = *log;
        const unsigned int result = initResult;
        if (result != 0 && --initFailures == 0)
        {
            initResult = 0;
        }
        return result;
    }

    void CorpDirUninit() override
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
        }
        m_changed.notify_all();
        if (m_thread.joinable())
        {
            m_thread.join();
        }
        ++stops;
    }

    unsigned int CorpDirDownloadNetaddr(tag_CORPDIR_DOWNLOADINFO* info,
                                        CORPDIR_DOWNLOAD_CB callback) override
    {
        EXPECT_FALSE(m_thread.joinable()) << "a request while another one is under way";
        requests.push_back(info->pszFtpIPs);
        lastRequest = *info;
        m_callback = callback;
        const unsigned int refusal = Refuse();
        if (refusal == 0)
        {
            m_thread = std::thread([this] { Play(); });
        }
        return refusal;
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

    std::atomic<unsigned int> initResult{0};
    int initFailures = 1000;  // how often
    unsigned int cipherResult = 0;
    int starts = 0;
    int stops = 0;
    std::vector<std::string> requests;
    std::vector<std::vector<int>> cipherLists;
    tag_CORPDIR_DOWNLOADINFO lastRequest = {};
    tag_CORPDIR_LOGINFO lastLog = {};

protected:
    ~FakeService() = default;  // the service must be stopped by then

    // 0, or the code with which the request is refused.
    virtual unsigned int Refuse() = 0;

    // The events after a request.
    virtual void Play() = 0;

    CORPDIR_DOWNLOAD_CB m_callback = nullptr;
    std::mutex m_mutex;  // guards m_stop
    std::condition_variable m_changed;
    bool m_stop = false;

private:
    std::thread m_thread;
};

}  // namespace corpdir_tool

#endif
