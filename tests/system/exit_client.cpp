// A client that ends without a stop, for exit_test.cpp:
//     exit_client WAY MICROSECONDS PORT plain|tls TRUST LOG_DIRECTORY OUTPUT_DIRECTORY
// WAY: how it ends, MICROSECONDS after its request. The exit status confirms it.
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "exit_client.h"
#include "ftpcorpdir.h"

namespace
{

// Constructed before the service's object and so destroyed after it: a thread that still runs then
// has time to use the destroyed object.
struct LastMoment
{
    ~LastMoment()
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
    }
};
__attribute__((init_priority(101))) LastMoment g_last_moment;

std::string g_way;
std::atomic<unsigned int> g_callbacks{0};

// Other threads run meanwhile on purpose.
[[noreturn]] void EndProcess()
{
    std::exit(exit_client::kEnded);  // NOLINT(concurrency-mt-unsafe)
}

void OnResult(unsigned int /*kind*/, unsigned int /*result*/, const char* /*text*/,
              void* /*reserved*/)
{
    ++g_callbacks;
    if (g_way == exit_client::kExitInCallback)
    {
        EndProcess();
    }
    if (g_way == exit_client::kExitBesideCallback)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

template <std::size_t size>
void Fill(char (&field)[size], const std::string& text)
{
    memcpy(field, text.c_str(), text.size() < size ? text.size() : size - 1);
}

unsigned int Ask(char** arguments)
{
    tag_CORPDIR_DOWNLOADINFO record = {};
    record.pszFtpIPs = "127.0.0.1";
    record.ulPort = static_cast<unsigned int>(std::atoi(arguments[3]));
    record.ulFtpMode = arguments[4] == std::string("plain") ? 1 : 0;
    record.ulCertVerify = 1;
    Fill(record.szFtpCtrlInfo, arguments[5]);
    Fill(record.szUserName, exit_client::kUser);
    Fill(record.szPassword, exit_client::kPassword);
    Fill(record.szVersionServerFile, "version.txt");
    Fill(record.szCorpDirServerFile, "directory.csv");
    Fill(record.szVersionLocalDir, arguments[7]);
    Fill(record.szVersionLocalFileName, "version.txt");
    Fill(record.szCorpDirLocalDir, arguments[7]);
    Fill(record.szCorpDirLocalFileName, "directory.csv");
    return GetCorpDirInstance()->CorpDirDownloadNetaddr(&record, OnResult);
}

void AwaitCallback()
{
    while (g_callbacks == 0)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

}  // namespace

int main(int count, char** arguments)
{
    if (count != 8)
    {
        return exit_client::kMisused;
    }
    g_way = arguments[1];
    const std::chrono::microseconds pause(std::atol(arguments[2]));
    tag_CORPDIR_LOGINFO log = {};
    Fill(log.szLogDir, arguments[6]);
    log.ulLogLevel = 2;
    // A request whose callback ends the process meanwhile may fail: it gets no timer then.
    if (GetCorpDirInstance()->CorpDirInit(&log) != 0 ||
        (Ask(arguments) != 0 && !(g_way == exit_client::kExitInCallback && g_callbacks > 0)))
    {
        return exit_client::kRefused;
    }
    if (g_way == exit_client::kExitInCallback)
    {
        for (;;)
        {
            (void)::pause();  // until the callback ends the process
        }
    }
    if (g_way == exit_client::kExitBesideCallback)
    {
        AwaitCallback();
    }
    std::this_thread::sleep_for(pause);
    if (g_way == exit_client::kReturn)
    {
        return exit_client::kEnded;
    }
    if (g_way == exit_client::kExitOnThread)
    {
        std::thread(EndProcess).join();
    }
    EndProcess();
}
