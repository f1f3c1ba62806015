// A fleet of clients in compressed time, for what it costs a server.
//     fleet --port N --clients N --interval SECONDS --duration SECONDS --work-dir DIR [OPTION...]
// Each client is a handle of the FTP layer, with its thread and its connection, and has a local
// address of its own, so that the server counts it as one. It repeats a check: the version
// file, and when its first line is not the one accepted last, the directory file on the same
// connection. An unused connection is closed after the part of the interval that the product's 15 s
// are of its ten minutes: so each check is one connection, and as many are idle as in real time.
// Prints one JSON object. The password is in CORPDIR_PASSWORD.
#include <arpa/inet.h>
#include <getopt.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "cpu_seconds.h"
#include "travex_ftp.h"

namespace
{
using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr double kRealInterval = 600;  // of the product, seconds
constexpr double kRealIdle = 15;
constexpr unsigned int kMostClients = 500;
constexpr std::chrono::seconds kPatience{60};  // with what is under way at the end

// The product's defaults.
constexpr int kSuites[] = {0x03000035, 0x0300003C, 0x0300003D};

constexpr char kLocalVersion[] = "version";
constexpr char kLocalDirectory[] = "directory";

struct Options
{
    std::string address = "127.0.0.1";
    unsigned int port = 0;
    unsigned int clients = 0;
    double interval = 0;
    double duration = 0;
    unsigned int seed = 0;  // 0: first checks evenly spread, else random
    std::string ca;         // empty: plain FTP
    std::string user = "ftp";
    std::string versionFile = "version.txt";
    std::string directoryFile = "directory.dat";
    std::string workDir;
    std::string accepted;  // the version that all clients begin with

    double Idle() const
    {
        return interval * kRealIdle / kRealInterval;
    }
};

struct Client
{
    TRAVEX_FTP_HANDLE handle = nullptr;
    std::string folder;
    std::string accepted;
    bool fetchingDirectory = false;
    Clock::duration offset{};
    Clock::time_point began;
    bool checking = false;
};

// A transfer's outcome, from the notification thread to the main one.
struct Ended
{
    unsigned int task;
    std::string failure;  // empty: success
    Clock::time_point at;
};

// Between the notification thread and the main one. Thread-safe by its mutex.
class Mailbox
{
public:
    void Put(Ended ended)
    {
        {
            const std::lock_guard<std::mutex> hold(m_guard);
            m_ended.push_back(std::move(ended));
        }
        m_arrived.notify_one();
    }

    // The outcomes so far; waits for the first one until then.
    std::vector<Ended> Take(Clock::time_point until)
    {
        std::unique_lock<std::mutex> hold(m_guard);
        m_arrived.wait_until(hold, until, [this] { return !m_ended.empty(); });
        return std::move(m_ended);
    }

private:
    std::mutex m_guard;
    std::condition_variable m_arrived;
    std::vector<Ended> m_ended;
};

Mailbox g_mailbox;

void OnNotify(void*, tagTRAVEX_FTP_S_NOTIFY_DATA* seen)
{
    if (seen->ulType == TRAVEX_FTP_NOTIFY_OVER)
    {
        return;
    }
    const bool failed = seen->ulType != TRAVEX_FTP_NOTIFY_SUCCESS;
    g_mailbox.Put(
        {seen->ulTaskID, failed ? std::string(seen->pstErrInfo->acReason) : "", Clock::now()});
}

double Milliseconds(Clock::duration time)
{
    return std::chrono::duration<double, std::milli>(time).count();
}

// The median, 99th percentile, maximum and mean of what is measured in milliseconds, as JSON.
std::string Summary(std::vector<double> values)
{
    if (values.empty())
    {
        return "null";
    }
    std::sort(values.begin(), values.end());
    const auto rank = [&values](double part)
    { return values[static_cast<size_t>(part * static_cast<double>(values.size() - 1))]; };
    double sum = 0;
    for (const double value : values)
    {
        sum += value;
    }
    char text[160];
    std::snprintf(text, sizeof text,
                  "{\"median\": %.3f, \"p99\": %.3f, \"max\": %.3f, \"mean\": %.3f}", rank(0.5),
                  rank(0.99), values.back(), sum / static_cast<double>(values.size()));
    return text;
}

std::string Quoted(const std::string& text)
{
    std::string quoted = "\"";
    for (const char byte : text)
    {
        const bool special = byte == '"' || byte == '\\';
        quoted += special ? std::string("\\") + byte : std::string(1, byte < ' ' ? '?' : byte);
    }
    return quoted + "\"";
}

// The clients and their checks. Main thread only.
class Fleet
{
public:
    explicit Fleet(const Options& options) : m_options(options), m_clients(options.clients) {}

    // False, with a message, when a client cannot be made.
    bool Prepare()
    {
        m_interval = std::chrono::duration_cast<Clock::duration>(Seconds(m_options.interval));
        std::mt19937 random(m_options.seed);
        std::uniform_real_distribution<double> anywhere(0, 1);
        for (unsigned int i = 0; i != m_options.clients; ++i)
        {
            const double part =
                m_options.seed != 0 ? anywhere(random) : (i + 0.5) / m_options.clients;
            m_clients[i].offset =
                std::chrono::duration_cast<Clock::duration>(Seconds(part * m_options.interval));
            if (!Prepare(m_clients[i], i))
            {
                return false;
            }
        }
        std::sort(m_clients.begin(), m_clients.end(),
                  [](const Client& left, const Client& right)
                  { return left.offset < right.offset; });
        return true;
    }

    void Run()
    {
        m_startedAt = std::chrono::system_clock::now();
        m_start = Clock::now();
        const Clock::time_point end =
            m_start + std::chrono::duration_cast<Clock::duration>(Seconds(m_options.duration));
        for (Clock::time_point round = m_start; round < end; round += m_interval)
        {
            for (Client& client : m_clients)
            {
                if (round + client.offset < end)
                {
                    HandleUntil(round + client.offset);
                    Check(client, round + client.offset);
                }
            }
        }
        HandleUntil(end);
        const Clock::time_point patience = Clock::now() + kPatience;
        while (!m_tasks.empty() && Clock::now() < patience)
        {
            Handle(g_mailbox.Take(patience));
        }
    }

    void Print() const
    {
        std::printf("{\"clients\": %u, \"interval\": %g, \"duration\": %g, \"idle\": %g,\n",
                    m_options.clients, m_options.interval, m_options.duration, m_options.Idle());
        std::printf(" \"started_at\": %.3f,\n", Seconds(m_startedAt.time_since_epoch()).count());
        std::printf(" \"checks\": %zu, \"skipped\": %zu, \"unfinished\": %zu, \"failed\": %zu,\n",
                    m_latencies.size(), m_skipped, m_tasks.size(), m_failed);
        PrintFailures();
        std::printf(" \"latency_ms\": %s,\n", Summary(m_latencies).c_str());
        std::printf(" \"latency_with_directory_ms\": %s,\n",
                    Summary(m_latenciesWithDirectory).c_str());
        std::printf(" \"late_ms\": %s,\n", Summary(m_late).c_str());
        PrintDirectories();
        std::printf(" \"version_bytes\": %ju, \"directory_bytes\": %ju,\n", m_versionBytes,
                    m_directoryBytes);
        std::printf(" \"cpu_seconds\": %.3f}\n", bench::CpuSeconds());
    }

    bool Complete() const
    {
        return m_failed == 0 && m_skipped == 0 && m_tasks.empty();
    }

private:
    bool Prepare(Client& client, unsigned int number)
    {
        client.accepted = m_options.accepted;
        client.folder = std::to_string(number);
        std::filesystem::create_directories(m_options.workDir + "/" + client.folder);
        client.handle = TRAVEX_FTP_CreateHandle();
        tagTRAVEX_FTP_S_CTRL_PARAM control = {};
        control.ulServerPort = m_options.port;
        control.ulServerType = m_options.ca.empty() ? 0 : 1;
        control.ulCertVerify = m_options.ca.empty() ? 0 : 1;
        control.pcFtpCtrlInfo = m_options.ca.c_str();
        control.piCipherList = kSuites;
        control.ulCipherNum = sizeof kSuites / sizeof *kSuites;
        const char* password = std::getenv("CORPDIR_PASSWORD");
        std::snprintf(control.acUserName, sizeof control.acUserName, "%s", m_options.user.c_str());
        std::snprintf(control.acPassword, sizeof control.acPassword, "%s",
                      password != nullptr ? password : "");
        std::snprintf(control.acWorkDir, sizeof control.acWorkDir, "%s", m_options.workDir.c_str());
        inet_pton(AF_INET, m_options.address.c_str(), control.aucServerIp);
        // 127.1.0.1 onwards: all of 127/8 is this machine's.
        const unsigned char local[] = {127, static_cast<unsigned char>(1 + number / 250), 0,
                                       static_cast<unsigned char>(1 + number % 250)};
        std::memcpy(control.aucLocalIp, local, sizeof local);
        const tagTRAVEX_FTP_S_DATA_PARAM data = {};
        if (TRAVEX_FTP_SetCtrlParam(client.handle, &control) != TRAVEX_FTP_OK ||
            TRAVEX_FTP_SetDataParam(client.handle, &data) != TRAVEX_FTP_OK)
        {
            std::fprintf(stderr, "fleet: the parameters are refused\n");
            return false;
        }
        return true;
    }

    // Handles outcomes until then, at least those that are there.
    void HandleUntil(Clock::time_point until)
    {
        do
        {
            Handle(g_mailbox.Take(until));
        } while (Clock::now() < until);
    }

    void Handle(const std::vector<Ended>& all)
    {
        for (const Ended& ended : all)
        {
            const auto found = m_tasks.find(ended.task);
            Client& client = *found->second;
            m_tasks.erase(found);
            Proceed(client, ended);
        }
    }

    void Check(Client& client, Clock::time_point due)
    {
        if (client.checking)
        {
            ++m_skipped;
            return;
        }
        client.checking = true;
        client.began = Clock::now();
        m_late.push_back(Milliseconds(client.began - due));
        Download(client, m_options.versionFile, kLocalVersion);
    }

    void Download(Client& client, const std::string& serverFile, const char* localFile)
    {
        unsigned int task = 0;
        const unsigned int result = TRAVEX_FTP_AsynDownloadFile(
            client.handle, &task, serverFile.c_str(), client.folder.c_str(), localFile, OnNotify);
        if (result != TRAVEX_FTP_OK)
        {
            Fail(client, "refused with code " + std::to_string(result));
            return;
        }
        m_tasks.emplace(task, &client);
    }

    // After the version file, and after the directory file.
    void Proceed(Client& client, const Ended& ended)
    {
        if (!ended.failure.empty())
        {
            Fail(client, ended.failure);
            return;
        }
        if (client.fetchingDirectory)
        {
            client.fetchingDirectory = false;
            m_directoryBytes += SizeOf(client, kLocalDirectory);
            m_directoriesAt.push_back(Seconds(ended.at - m_start).count());
            m_latenciesWithDirectory.push_back(Milliseconds(ended.at - client.began));
            Finish(client, ended.at);
            return;
        }
        m_versionBytes += SizeOf(client, kLocalVersion);
        std::string version;
        std::getline(std::ifstream(Path(client, kLocalVersion)), version);
        ++m_versions[version];
        if (version == client.accepted)
        {
            Finish(client, ended.at);
            return;
        }
        client.accepted = version;  // as the product does: before the directory file is here
        client.fetchingDirectory = true;
        Download(client, m_options.directoryFile, kLocalDirectory);
    }

    void Finish(Client& client, Clock::time_point at)
    {
        m_latencies.push_back(Milliseconds(at - client.began));
        client.checking = false;
    }

    void Fail(Client& client, const std::string& reason)
    {
        ++m_failed;
        ++m_failures[reason];
        client.fetchingDirectory = false;
        client.checking = false;
    }

    std::string Path(const Client& client, const char* file) const
    {
        return m_options.workDir + "/" + client.folder + "/" + file;
    }

    uintmax_t SizeOf(const Client& client, const char* file) const
    {
        return std::filesystem::file_size(Path(client, file));
    }

    void PrintFailures() const
    {
        std::printf(" \"failures\": {");
        const char* separator = "";
        for (const auto& [reason, count] : m_failures)
        {
            std::printf("%s%s: %zu", separator, Quoted(reason).c_str(), count);
            separator = ", ";
        }
        std::printf("},\n \"versions\": {");
        separator = "";
        for (const auto& [version, count] : m_versions)
        {
            std::printf("%s%s: %zu", separator, Quoted(version).c_str(), count);
            separator = ", ";
        }
        std::printf("},\n");
    }

    // When each directory file was there, in seconds since the start.
    void PrintDirectories() const
    {
        std::printf(" \"directories\": %zu,\n \"directories_at\": [", m_directoriesAt.size());
        const char* separator = "";
        for (const double at : m_directoriesAt)
        {
            std::printf("%s%.3f", separator, at);
            separator = ", ";
        }
        std::printf("],\n");
    }

    const Options& m_options;
    std::vector<Client> m_clients;  // in the order of their checks
    Clock::duration m_interval{};
    Clock::time_point m_start;
    std::chrono::system_clock::time_point m_startedAt;
    std::unordered_map<unsigned int, Client*> m_tasks;

    size_t m_skipped = 0;  // the client's last check was still under way
    size_t m_failed = 0;
    std::map<std::string, size_t> m_failures;
    std::map<std::string, size_t> m_versions;
    std::vector<double> m_latencies;
    std::vector<double> m_latenciesWithDirectory;
    std::vector<double> m_late;
    std::vector<double> m_directoriesAt;
    uintmax_t m_versionBytes = 0;
    uintmax_t m_directoryBytes = 0;
};

bool ReadOptions(int count, char** arguments, Options& options)
{
    struct Text
    {
        const char* name;
        std::string* value;
    };
    std::string port, clients, interval, duration, seed = "0";
    const std::vector<Text> texts = {{"port", &port},
                                     {"clients", &clients},
                                     {"interval", &interval},
                                     {"duration", &duration},
                                     {"seed", &seed},
                                     {"address", &options.address},
                                     {"ca", &options.ca},
                                     {"user", &options.user},
                                     {"version-file", &options.versionFile},
                                     {"directory-file", &options.directoryFile},
                                     {"work-dir", &options.workDir},
                                     {"accepted", &options.accepted}};
    std::vector<option> known;
    for (const Text& text : texts)
    {
        known.push_back({text.name, required_argument, nullptr, 0});
    }
    known.push_back({nullptr, 0, nullptr, 0});
    int index = 0;
    for (int found; (found = getopt_long(count, arguments, "", known.data(), &index)) != -1;)
    {
        if (found != 0)
        {
            return false;
        }
        *texts[static_cast<size_t>(index)].value = optarg;
    }
    options.port = static_cast<unsigned int>(std::atoi(port.c_str()));
    options.clients = static_cast<unsigned int>(std::atoi(clients.c_str()));
    options.interval = std::atof(interval.c_str());
    options.duration = std::atof(duration.c_str());
    options.seed = static_cast<unsigned int>(std::atoi(seed.c_str()));
    return optind == count && options.port != 0 && options.clients != 0 &&
           options.clients <= kMostClients && options.interval > 0 && options.duration > 0 &&
           !options.workDir.empty();
}

unsigned int SetLimits(const Options& options)
{
    tagTRAVEX_FTP_S_LIMITS limits = {};
    limits.ulIdleMs = static_cast<unsigned int>(std::max(1.0, options.Idle() * 1000));
    return TRAVEX_FTP_SetLimits(&limits);
}

}  // namespace

int main(int count, char** arguments)
{
    Options options;
    if (!ReadOptions(count, arguments, options))
    {
        std::fprintf(stderr,
                     "usage: fleet --port N --clients N --interval SECONDS --duration SECONDS "
                     "--work-dir DIR\n    [--address IPV4] [--ca FILE] [--user NAME] [--seed N] "
                     "[--version-file FILE]\n    [--directory-file FILE] [--accepted VERSION]\n");
        return 2;
    }
    Fleet fleet(options);
    if (SetLimits(options) != TRAVEX_FTP_OK || TRAVEX_FTP_Init() != TRAVEX_FTP_OK ||
        !fleet.Prepare())
    {
        return 2;
    }
    fleet.Run();
    // The last connections end as all others do, with a QUIT.
    std::this_thread::sleep_for(Seconds(options.Idle() + 0.1));
    TRAVEX_FTP_UnInit();
    fleet.Print();
    return fleet.Complete() ? 0 : 1;
}
