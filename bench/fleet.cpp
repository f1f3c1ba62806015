// A fleet of clients in compressed time, for what it costs a server.
//     fleet --port N --clients N --interval SECONDS --duration SECONDS --work-dir DIR [OPTION...]
// Each client is a handle of the FTP layer with a local address of its own, so that neither the
// layer's pool nor the server's counts take two of them for one. It repeats a check: the version
// file, and when its first line is not the one accepted last, the directory file on the same
// connection. An unused connection is closed after the part of the interval that the product's 15 s
// are of its ten minutes: so each check is one connection, and as many stand idle as in real time.
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

// What the product offers unless it is told otherwise.
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

    double idle() const
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

// What the notification thread tells the main one.
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
    void put(Ended ended)
    {
        {
            const std::lock_guard<std::mutex> hold(guard_);
            ended_.push_back(std::move(ended));
        }
        arrived_.notify_one();
    }

    // What has ended; waits for something until then.
    std::vector<Ended> take(Clock::time_point until)
    {
        std::unique_lock<std::mutex> hold(guard_);
        arrived_.wait_until(hold, until, [this] { return !ended_.empty(); });
        return std::move(ended_);
    }

private:
    std::mutex guard_;
    std::condition_variable arrived_;
    std::vector<Ended> ended_;
};

Mailbox g_mailbox;

void OnNotify(void*, tagTRAVEX_FTP_S_NOTIFY_DATA* seen)
{
    if (seen->ulType == TRAVEX_FTP_NOTIFY_OVER)
    {
        return;
    }
    const bool failed = seen->ulType != TRAVEX_FTP_NOTIFY_SUCCESS;
    g_mailbox.put(
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
    explicit Fleet(const Options& options) : options_(options), clients_(options.clients) {}

    // False, with a message, when a client cannot be made.
    bool prepare()
    {
        interval_ = std::chrono::duration_cast<Clock::duration>(Seconds(options_.interval));
        std::mt19937 random(options_.seed);
        std::uniform_real_distribution<double> anywhere(0, 1);
        for (unsigned int i = 0; i != options_.clients; ++i)
        {
            const double part =
                options_.seed != 0 ? anywhere(random) : (i + 0.5) / options_.clients;
            clients_[i].offset =
                std::chrono::duration_cast<Clock::duration>(Seconds(part * options_.interval));
            if (!prepare(clients_[i], i))
            {
                return false;
            }
        }
        std::sort(clients_.begin(), clients_.end(),
                  [](const Client& left, const Client& right)
                  { return left.offset < right.offset; });
        return true;
    }

    void run()
    {
        startedAt_ = std::chrono::system_clock::now();
        start_ = Clock::now();
        const Clock::time_point end =
            start_ + std::chrono::duration_cast<Clock::duration>(Seconds(options_.duration));
        for (Clock::time_point round = start_; round < end; round += interval_)
        {
            for (Client& client : clients_)
            {
                if (round + client.offset < end)
                {
                    handleUntil(round + client.offset);
                    check(client, round + client.offset);
                }
            }
        }
        handleUntil(end);
        const Clock::time_point patience = Clock::now() + kPatience;
        while (!tasks_.empty() && Clock::now() < patience)
        {
            handle(g_mailbox.take(patience));
        }
    }

    void print() const
    {
        std::printf("{\"clients\": %u, \"interval\": %g, \"duration\": %g, \"idle\": %g,\n",
                    options_.clients, options_.interval, options_.duration, options_.idle());
        std::printf(" \"started_at\": %.3f,\n", Seconds(startedAt_.time_since_epoch()).count());
        std::printf(" \"checks\": %zu, \"skipped\": %zu, \"unfinished\": %zu, \"failed\": %zu,\n",
                    latencies_.size(), skipped_, tasks_.size(), failed_);
        printFailures();
        std::printf(" \"latency_ms\": %s,\n", Summary(latencies_).c_str());
        std::printf(" \"latency_with_directory_ms\": %s,\n",
                    Summary(latenciesWithDirectory_).c_str());
        std::printf(" \"late_ms\": %s,\n", Summary(late_).c_str());
        printDirectories();
        std::printf(" \"version_bytes\": %ju, \"directory_bytes\": %ju,\n", versionBytes_,
                    directoryBytes_);
        std::printf(" \"cpu_seconds\": %.3f}\n", bench::CpuSeconds());
    }

    bool complete() const
    {
        return failed_ == 0 && skipped_ == 0 && tasks_.empty();
    }

private:
    bool prepare(Client& client, unsigned int number)
    {
        client.accepted = options_.accepted;
        client.folder = std::to_string(number);
        std::filesystem::create_directories(options_.workDir + "/" + client.folder);
        client.handle = TRAVEX_FTP_CreateHandle();
        tagTRAVEX_FTP_S_CTRL_PARAM control = {};
        control.ulServerPort = options_.port;
        control.ulServerType = options_.ca.empty() ? 0 : 1;
        control.ulCertVerify = options_.ca.empty() ? 0 : 1;
        control.pcFtpCtrlInfo = options_.ca.c_str();
        control.piCipherList = kSuites;
        control.ulCipherNum = sizeof kSuites / sizeof *kSuites;
        const char* password = std::getenv("CORPDIR_PASSWORD");
        std::snprintf(control.acUserName, sizeof control.acUserName, "%s", options_.user.c_str());
        std::snprintf(control.acPassword, sizeof control.acPassword, "%s",
                      password != nullptr ? password : "");
        std::snprintf(control.acWorkDir, sizeof control.acWorkDir, "%s", options_.workDir.c_str());
        inet_pton(AF_INET, options_.address.c_str(), control.aucServerIp);
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

    // What ends is seen to until then, even when it is past that already.
    void handleUntil(Clock::time_point until)
    {
        do
        {
            handle(g_mailbox.take(until));
        } while (Clock::now() < until);
    }

    void handle(const std::vector<Ended>& all)
    {
        for (const Ended& ended : all)
        {
            const auto found = tasks_.find(ended.task);
            Client& client = *found->second;
            tasks_.erase(found);
            proceed(client, ended);
        }
    }

    void check(Client& client, Clock::time_point due)
    {
        if (client.checking)
        {
            ++skipped_;
            return;
        }
        client.checking = true;
        client.began = Clock::now();
        late_.push_back(Milliseconds(client.began - due));
        download(client, options_.versionFile, kLocalVersion);
    }

    void download(Client& client, const std::string& serverFile, const char* localFile)
    {
        unsigned int task = 0;
        const unsigned int result = TRAVEX_FTP_AsynDownloadFile(
            client.handle, &task, serverFile.c_str(), client.folder.c_str(), localFile, OnNotify);
        if (result != TRAVEX_FTP_OK)
        {
            fail(client, "refused with code " + std::to_string(result));
            return;
        }
        tasks_.emplace(task, &client);
    }

    // After the version file, and after the directory file.
    void proceed(Client& client, const Ended& ended)
    {
        if (!ended.failure.empty())
        {
            fail(client, ended.failure);
            return;
        }
        if (client.fetchingDirectory)
        {
            client.fetchingDirectory = false;
            directoryBytes_ += sizeOf(client, kLocalDirectory);
            directoriesAt_.push_back(Seconds(ended.at - start_).count());
            latenciesWithDirectory_.push_back(Milliseconds(ended.at - client.began));
            finish(client, ended.at);
            return;
        }
        versionBytes_ += sizeOf(client, kLocalVersion);
        std::string version;
        std::getline(std::ifstream(path(client, kLocalVersion)), version);
        ++versions_[version];
        if (version == client.accepted)
        {
            finish(client, ended.at);
            return;
        }
        client.accepted = version;  // as the product does: before the directory file is here
        client.fetchingDirectory = true;
        download(client, options_.directoryFile, kLocalDirectory);
    }

    void finish(Client& client, Clock::time_point at)
    {
        latencies_.push_back(Milliseconds(at - client.began));
        client.checking = false;
    }

    void fail(Client& client, const std::string& reason)
    {
        ++failed_;
        ++failures_[reason];
        client.fetchingDirectory = false;
        client.checking = false;
    }

    std::string path(const Client& client, const char* file) const
    {
        return options_.workDir + "/" + client.folder + "/" + file;
    }

    uintmax_t sizeOf(const Client& client, const char* file) const
    {
        return std::filesystem::file_size(path(client, file));
    }

    void printFailures() const
    {
        std::printf(" \"failures\": {");
        const char* separator = "";
        for (const auto& [reason, count] : failures_)
        {
            std::printf("%s%s: %zu", separator, Quoted(reason).c_str(), count);
            separator = ", ";
        }
        std::printf("},\n \"versions\": {");
        separator = "";
        for (const auto& [version, count] : versions_)
        {
            std::printf("%s%s: %zu", separator, Quoted(version).c_str(), count);
            separator = ", ";
        }
        std::printf("},\n");
    }

    // When each directory file was there, in seconds since the start.
    void printDirectories() const
    {
        std::printf(" \"directories\": %zu,\n \"directories_at\": [", directoriesAt_.size());
        const char* separator = "";
        for (const double at : directoriesAt_)
        {
            std::printf("%s%.3f", separator, at);
            separator = ", ";
        }
        std::printf("],\n");
    }

    const Options& options_;
    std::vector<Client> clients_;  // in the order of their checks
    Clock::duration interval_{};
    Clock::time_point start_;
    std::chrono::system_clock::time_point startedAt_;
    std::unordered_map<unsigned int, Client*> tasks_;

    size_t skipped_ = 0;  // the client's last check was still under way
    size_t failed_ = 0;
    std::map<std::string, size_t> failures_;
    std::map<std::string, size_t> versions_;
    std::vector<double> latencies_;
    std::vector<double> latenciesWithDirectory_;
    std::vector<double> late_;
    std::vector<double> directoriesAt_;
    uintmax_t versionBytes_ = 0;
    uintmax_t directoryBytes_ = 0;
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

// Each client may have its connection, and nobody's is closed to make room.
void SetLimits(const Options& options)
{
    const auto idle = static_cast<unsigned long>(std::max(1.0, options.idle() * 1000));
    setenv("CORPDIR_FTP_IDLE_MS", std::to_string(idle).c_str(), 1);
    setenv("CORPDIR_FTP_CONNECTIONS", std::to_string(2 * options.clients).c_str(), 1);
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
    SetLimits(options);
    Fleet fleet(options);
    if (TRAVEX_FTP_Init() != TRAVEX_FTP_OK || !fleet.prepare())
    {
        return 2;
    }
    fleet.run();
    // The last connections end as all others do, with a QUIT.
    std::this_thread::sleep_for(Seconds(options.idle() + 0.1));
    TRAVEX_FTP_UnInit();
    fleet.print();
    return fleet.complete() ? 0 : 1;
}
