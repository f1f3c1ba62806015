// Many downloads accepted at once on one handle of the FTP layer.
//     many_transfers ADDRESS PORT USER OUTPUT_DIR COUNT [CA_FILE]
// Fetches 1.dat to COUNT.dat, over explicit TLS with a CA file, else in plain. Password in
// CORPDIR_PASSWORD. Prints JSON: seconds from the first acceptance to the last notification, and
// the peak of the process's memory before and after, in KB.
#include <arpa/inet.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>

#include "travex_ftp.h"

namespace
{

std::mutex g_mutex;
std::condition_variable g_changed;
int g_complete = 0;
int g_failed = 0;

void OnNotify(void*, tagTRAVEX_FTP_S_NOTIFY_DATA* notify)
{
    const std::lock_guard<std::mutex> hold(g_mutex);
    g_complete += notify->ulType == 12 ? 1 : 0;
    g_failed += notify->ulType == 3 ? 1 : 0;
    g_changed.notify_one();
}

// The reason of a refusal or failure, at once: a figure of failures is worth nothing.
void OnObserved(void*, const tagTRAVEX_FTP_S_OBSERVATION* seen)
{
    if (*seen->pcReason != '\0')
    {
        std::fprintf(stderr, "%s\n", seen->pcReason);
    }
}

// Of this program alone: getrusage counts what ran in the process before it, too.
long PeakKilobytes()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
    {
        long kilobytes = 0;
        if (std::sscanf(line.c_str(), "VmHWM: %ld", &kilobytes) == 1)
        {
            return kilobytes;
        }
    }
    return -1;
}

bool Configure(TRAVEX_FTP_HANDLE handle, char** arguments, const char* password, const char* trust)
{
    tagTRAVEX_FTP_S_CTRL_PARAM control = {};
    control.ulServerType = trust != nullptr ? 1 : 0;
    control.ulServerIpType = 0;
    if (inet_pton(AF_INET, arguments[1], control.aucServerIp) != 1)
    {
        return false;
    }
    control.ulServerPort = static_cast<unsigned int>(std::atoi(arguments[2]));
    std::snprintf(control.acUserName, sizeof control.acUserName, "%s", arguments[3]);
    std::snprintf(control.acPassword, sizeof control.acPassword, "%s", password);
    std::snprintf(control.acWorkDir, sizeof control.acWorkDir, "%s", arguments[4]);
    std::string authorities(trust != nullptr ? trust : "");
    control.pcFtpCtrlInfo = authorities.data();
    control.ulCertVerify = trust != nullptr ? 1 : 0;
    tagTRAVEX_FTP_S_DATA_PARAM data = {};
    return TRAVEX_FTP_SetCtrlParam(handle, &control) == 0 &&
           TRAVEX_FTP_SetDataParam(handle, &data) == 0;
}

}  // namespace

int main(int count, char** arguments)
{
    const char* const password = std::getenv("CORPDIR_PASSWORD");
    if (count < 6 || count > 7 || password == nullptr)
    {
        std::fprintf(stderr,
                     "usage: CORPDIR_PASSWORD=... many_transfers ADDRESS PORT USER OUTPUT_DIR "
                     "COUNT [CA_FILE]\n");
        return 2;
    }
    TRAVEX_FTP_SetObserver(OnObserved, nullptr);
    if (TRAVEX_FTP_Init() != 0)
    {
        return 1;
    }
    const TRAVEX_FTP_HANDLE handle = TRAVEX_FTP_CreateHandle();
    if (!Configure(handle, arguments, password, count == 7 ? arguments[6] : nullptr))
    {
        return 1;
    }
    const int wanted = std::atoi(arguments[5]);
    const long before = PeakKilobytes();
    const auto begin = std::chrono::steady_clock::now();
    for (int number = 1; number <= wanted; ++number)
    {
        const std::string name = std::to_string(number) + ".dat";
        unsigned int task = 0;
        if (TRAVEX_FTP_AsynDownloadFile(handle, &task, name.c_str(), arguments[4], name.c_str(),
                                        OnNotify) != 0)
        {
            return 1;
        }
    }
    std::unique_lock<std::mutex> hold(g_mutex);
    g_changed.wait(hold, [wanted] { return g_complete + g_failed == wanted; });
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    hold.unlock();
    const long after = PeakKilobytes();
    (void)TRAVEX_FTP_UnInit();
    std::printf("{\"seconds\": %.4f, \"failed\": %d, \"before_kb\": %ld, \"after_kb\": %ld}\n",
                took.count(), g_failed, before, after);
    return g_failed == 0 ? 0 : 1;
}
