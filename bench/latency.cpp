// Measures the time from the end of a timer callback, and of a notification callback, until the
// service's worker starts the download that the callback has queued: its call of
// TRAVEX_FTP_AsynDownloadFile. Compares it with the same service whose worker polls sharply, by
// usleep(50) with a timer slack of 1 ns in place of the OS layer's sleep; the two take turns.
//     latency [SAMPLES]
// Service and layers are the real ones. Both servers of the list accept a connection and close it
// 0.2 to 3.2 ms later: each check starts one download from the timer's callback and one from the
// first server's notification. 5 ms after the second server's the timer fires again.
#include <arpa/inet.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "corpdir_log.h"
#include "ftpcorpdir.h"
#include "osak.h"
#include "travex_ftp.h"

// The layers' functions; the linker leads the service's calls to those named __wrap.
extern "C"
{
    int __real_OSAK_PollSleep(unsigned int microseconds);
    OSAK_TIMER __real_OSAK_CreateRelTimerM(OSAK_TIMER_PROC callback, unsigned int mode,
                                           unsigned int line, const char* file);
    unsigned int __real_OSAK_StartRelTimer(OSAK_TIMER timer, unsigned int ms, void* param);
    unsigned int __real_TRAVEX_FTP_AsynDownloadFile(TRAVEX_FTP_HANDLE handle, unsigned int* taskId,
                                                    const char* serverFile, const char* dir,
                                                    const char* localFile,
                                                    TRAVEX_FTP_NOTIFY_CB callback);
}

namespace
{
using Clock = std::chrono::steady_clock;

enum Cause
{
    kTimer,
    kNotification,
    kNone
};

constexpr unsigned int kOnce = 1;        // mode of a timer that does not repeat
constexpr unsigned int kFirstMs = 2500;  // the first timer, after the request's own check
constexpr unsigned int kPauseMs = 5;     // longer than the sleep's brief phase after a change
constexpr size_t kBlock = 500;           // samples until the other worker's turn

std::mutex g_guard;
std::condition_variable g_sampled;
std::atomic<Cause> g_cause{kNone};    // of the next download
std::atomic<bool> g_isSecond{false};  // the latest download is from the second server
Clock::time_point g_ended, g_started;
std::vector<double> g_samples[kNone];  // µs, of the block

bool g_isSharp = false;
OSAK_TIMER_PROC g_onTimer = nullptr;
TRAVEX_FTP_NOTIFY_CB g_onNotification = nullptr;
std::atomic<OSAK_TIMER> g_timer{nullptr};

// A callback begins, which may queue a download.
void Expect(Cause cause)
{
    const std::lock_guard<std::mutex> hold(g_guard);
    g_cause = cause;
    g_ended = g_started = {};
}

// The callback's end or the download's start. A start before the end counts as 0.
void Happened(Clock::time_point& which)
{
    const Clock::time_point now = Clock::now();
    const std::lock_guard<std::mutex> hold(g_guard);
    if (g_cause == kNone)
    {
        return;
    }
    which = now;
    if (g_ended != Clock::time_point() && g_started != Clock::time_point())
    {
        const std::chrono::duration<double, std::micro> latency = g_started - g_ended;
        g_samples[g_cause].push_back(std::max(0.0, latency.count()));
        g_cause = kNone;
        g_sampled.notify_one();
    }
}

void OnTimer(void* param)
{
    Expect(kTimer);
    g_onTimer(param);
    Happened(g_ended);
}

void OnNotification(void* user, tagTRAVEX_FTP_S_NOTIFY_DATA* data)
{
    const bool isLast = g_isSecond;
    Expect(isLast ? kNone : kNotification);
    g_onNotification(user, data);
    Happened(g_ended);
    if (isLast && g_timer != nullptr)
    {
        (void)__real_OSAK_StartRelTimer(g_timer, kPauseMs, nullptr);
    }
}

// Accepts on any address of loopback, waits, and closes.
void Serve(int listener)
{
    std::mt19937 random(17);
    std::uniform_int_distribution<> delay(200, 3200);
    for (;;)
    {
        const int connection = accept(listener, nullptr, nullptr);
        std::this_thread::sleep_for(std::chrono::microseconds(delay(random)));
        (void)close(connection);
    }
}

unsigned int StartServer()
{
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    socklen_t length = sizeof address;
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        listen(listener, 16) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0)
    {
        std::perror("latency: no server");
        std::exit(1);
    }
    std::thread(Serve, listener).detach();
    return ntohs(address.sin_port);
}

// Runs the service until there are so many samples of each kind.
void RunBlock(unsigned int port, size_t count)
{
    tag_CORPDIR_DOWNLOADINFO request = {"system",
                                        "alice",
                                        "throw-away-17",
                                        "version.txt",
                                        "directory.csv",
                                        "/tmp",
                                        "v",
                                        "/tmp",
                                        "d",
                                        nullptr,
                                        "127.0.0.1;127.0.0.2",
                                        port,
                                        1,
                                        nullptr,
                                        nullptr,
                                        0};
    const auto ignore = [](unsigned int, unsigned int, const char*, void*) {};
    Expect(kNone);  // the request's first download is not the worker's
    IFtpCorpDir* const service = GetCorpDirInstance();
    if (service->CorpDirInit(nullptr) != 0 ||
        service->CorpDirDownloadNetaddr(&request, ignore) != 0)
    {
        std::fputs("latency: the service does not start\n", stderr);
        std::exit(1);
    }
    {
        std::unique_lock<std::mutex> hold(g_guard);
        g_sampled.wait(hold,
                       [count] {
                           return g_samples[kTimer].size() >= count &&
                                  g_samples[kNotification].size() >= count;
                       });
    }
    service->CorpDirUninit();
}

void Print(const char* cause, size_t percent, std::vector<double>* both)
{
    double at[2];
    for (const int worker : {0, 1})
    {
        std::sort(both[worker].begin(), both[worker].end());
        at[worker] = both[worker][(both[worker].size() - 1) * percent / 100];
    }
    std::printf("%-12s %10zu %12.1f %12.1f %8.2f\n", cause, percent, at[0], at[1], at[0] / at[1]);
}

}  // namespace

extern "C"
{
    int __wrap_OSAK_PollSleep(unsigned int microseconds)
    {
        if (!g_isSharp)
        {
            return __real_OSAK_PollSleep(microseconds);
        }
        static thread_local const int isSet = prctl(PR_SET_TIMERSLACK, 1UL);
        (void)isSet;
        return usleep(microseconds);
    }

    OSAK_TIMER __wrap_OSAK_CreateRelTimerM(OSAK_TIMER_PROC callback, unsigned int /*mode*/,
                                           unsigned int line, const char* file)
    {
        g_onTimer = callback;
        return __real_OSAK_CreateRelTimerM(OnTimer, kOnce, line, file);
    }

    unsigned int __wrap_OSAK_StartRelTimer(OSAK_TIMER timer, unsigned int /*ms*/, void* param)
    {
        g_timer = timer;
        return __real_OSAK_StartRelTimer(timer, kFirstMs, param);
    }

    unsigned int __wrap_TRAVEX_FTP_AsynDownloadFile(TRAVEX_FTP_HANDLE handle, unsigned int* taskId,
                                                    const char* serverFile, const char* dir,
                                                    const char* localFile,
                                                    TRAVEX_FTP_NOTIFY_CB callback)
    {
        g_isSecond = g_cause == kNotification;
        Happened(g_started);
        g_onNotification = callback;
        return __real_TRAVEX_FTP_AsynDownloadFile(handle, taskId, serverFile, dir, localFile,
                                                  OnNotification);
    }
}

int main(int count, char** arguments)
{
    const size_t samples = count > 1 ? std::strtoul(arguments[1], nullptr, 10) : 10000;
    if (count > 2 || samples == 0)
    {
        std::fputs("usage: latency [SAMPLES]\n", stderr);
        return 2;
    }
    g_LogMode = 1;
    const unsigned int port = StartServer();
    std::vector<double> all[kNone][2];  // the service's, the sharp worker's
    while (all[kTimer][1].size() < samples)
    {
        for (const int worker : {0, 1})
        {
            g_isSharp = worker == 1;
            RunBlock(port, std::min(samples, kBlock));
            for (int cause = 0; cause != kNone; ++cause)
            {
                std::vector<double>& into = all[cause][worker];
                into.insert(into.end(), g_samples[cause].begin(), g_samples[cause].end());
                g_samples[cause].clear();
            }
        }
    }
    std::printf("%-12s %10s %12s %12s %8s\n", "after a", "percentile", "corpdir, us", "sharp, us",
                "ratio");
    for (const size_t percent : {size_t{50}, size_t{99}})
    {
        Print("timer", percent, all[kTimer]);
        Print("notification", percent, all[kNotification]);
    }
    return 0;
}
