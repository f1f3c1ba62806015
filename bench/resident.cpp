// Fetches version file and directory file in a running process, like an application that links the
// library; beside it the same on libcurl's easy handle.
//     resident PORT USER DIRECTORY_FILE OUTPUT_DIR ROUNDS [CA_FILE]
// The two take turns. Each round creates the service or handle, connects, fetches both files and
// closes everything. Password in CORPDIR_PASSWORD. Prints JSON: seconds of each round.
#include <curl/curl.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iterator>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "cpu_seconds.h"
#include "ftpcorpdir.h"

namespace
{

struct Work
{
    unsigned int port;
    std::string user;
    std::string password;
    std::string file;
    std::string output;
    std::string authorities;  // empty: plain FTP
};

struct Figure
{
    double wall;
    double cpu;
};

std::mutex g_mutex;
std::condition_variable g_changed;
int g_outcomes = 0;
int g_arrived = 0;

void OnResult(unsigned int, unsigned int result, const char*, void*)
{
    const std::lock_guard<std::mutex> hold(g_mutex);
    ++g_outcomes;
    g_arrived += result == 0 ? 1 : 0;
    g_changed.notify_one();
}

template <size_t Size>
void Put(char (&field)[Size], const std::string& text)
{
    std::snprintf(field, Size, "%s", text.c_str());
}

bool FetchByService(const Work& work)
{
    tag_CORPDIR_DOWNLOADINFO request = {};
    request.pszFtpIPs = "127.0.0.1";
    request.ulPort = work.port;
    request.ulFtpMode = work.authorities.empty() ? 1 : 0;
    request.ulCertVerify = 1;
    Put(request.szFtpCtrlInfo, work.authorities.empty() ? "none" : work.authorities);
    Put(request.szUserName, work.user);
    Put(request.szPassword, work.password);
    Put(request.szVersionServerFile, "version.txt");
    Put(request.szVersionLocalDir, work.output);
    Put(request.szVersionLocalFileName, "version.txt");
    Put(request.szCorpDirServerFile, work.file);
    Put(request.szCorpDirLocalDir, work.output);
    Put(request.szCorpDirLocalFileName, work.file);
    tag_CORPDIR_LOGINFO log = {};
    IFtpCorpDir* const service = GetCorpDirInstance();
    g_outcomes = g_arrived = 0;
    if (service->CorpDirInit(&log) == 0 && service->CorpDirDownloadNetaddr(&request, OnResult) == 0)
    {
        std::unique_lock<std::mutex> hold(g_mutex);
        (void)g_changed.wait_for(hold, std::chrono::seconds(60), [] { return g_outcomes != 0; });
    }
    (void)service->CorpDirUninit();
    return g_arrived == 1;
}

size_t Write(char* data, size_t size, size_t count, void* file)
{
    return std::fwrite(data, size, count, static_cast<FILE*>(file));
}

bool FetchOneByCurl(CURL* easy, const Work& work, const std::string& name, bool flush)
{
    FILE* const file = std::fopen((work.output + "/" + name).c_str(), "wb");
    const std::string url = "ftp://127.0.0.1:" + std::to_string(work.port) + "/" + name;
    (void)curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    (void)curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, Write);
    (void)curl_easy_setopt(easy, CURLOPT_WRITEDATA, file);
    const CURLcode result = curl_easy_perform(easy);
    const bool written = std::fflush(file) == 0 && (!flush || fsync(fileno(file)) == 0);
    return std::fclose(file) == 0 && written && result == CURLE_OK;
}

// Fetches both files over one connection. TLS sessions are resumed only with a share.
bool FetchByCurl(const Work& work, bool flush)
{
    CURL* const easy = curl_easy_init();
    CURLSH* const share = curl_share_init();
    (void)curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    (void)curl_easy_setopt(easy, CURLOPT_SHARE, share);
    (void)curl_easy_setopt(easy, CURLOPT_USERNAME, work.user.c_str());
    (void)curl_easy_setopt(easy, CURLOPT_PASSWORD, work.password.c_str());
    if (!work.authorities.empty())
    {
        (void)curl_easy_setopt(easy, CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_ALL));
        (void)curl_easy_setopt(easy, CURLOPT_CAINFO, work.authorities.c_str());
        // The suites that the service offers by default.
        (void)curl_easy_setopt(easy, CURLOPT_SSL_CIPHER_LIST,
                               "AES256-SHA:AES128-SHA256:AES256-SHA256");
        (void)curl_easy_setopt(
            easy, CURLOPT_SSLVERSION,
            static_cast<long>(CURL_SSLVERSION_TLSv1_2 | CURL_SSLVERSION_MAX_TLSv1_2));
    }
    const bool both = FetchOneByCurl(easy, work, "version.txt", flush) &&
                      FetchOneByCurl(easy, work, work.file, flush);
    curl_easy_cleanup(easy);
    (void)curl_share_cleanup(share);
    return both;
}

Figure Measure(const Work& work, const std::function<bool(const Work&)>& fetch)
{
    std::filesystem::remove(work.output + "/version.txt");
    std::filesystem::remove(work.output + "/" + work.file);
    const double cpu = bench::CpuSeconds();
    const auto begin = std::chrono::steady_clock::now();
    if (!fetch(work))
    {
        std::fprintf(stderr, "a fetch has failed\n");
        std::exit(1);
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    return {took.count(), bench::CpuSeconds() - cpu};
}

void Print(const char* name, const std::vector<Figure>& figures)
{
    std::printf("\"%s\": {\"wall\": [", name);
    for (size_t i = 0; i != figures.size(); ++i)
    {
        std::printf("%s%.6f", i == 0 ? "" : ", ", figures[i].wall);
    }
    std::printf("], \"cpu\": [");
    for (size_t i = 0; i != figures.size(); ++i)
    {
        std::printf("%s%.6f", i == 0 ? "" : ", ", figures[i].cpu);
    }
    std::printf("]}");
}

}  // namespace

int main(int count, char** arguments)
{
    const char* const password = std::getenv("CORPDIR_PASSWORD");
    if (count < 6 || count > 7 || password == nullptr)
    {
        std::fprintf(stderr,
                     "usage: CORPDIR_PASSWORD=... resident PORT USER DIRECTORY_FILE OUTPUT_DIR "
                     "ROUNDS [CA_FILE]\n");
        return 2;
    }
    (void)curl_global_init(CURL_GLOBAL_DEFAULT);
    const Work work = {static_cast<unsigned int>(std::atoi(arguments[1])),
                       arguments[2],
                       password,
                       arguments[3],
                       arguments[4],
                       count == 7 ? arguments[6] : ""};
    const std::pair<const char*, std::function<bool(const Work&)>> kinds[] = {
        {"corpdir", FetchByService},
        {"libcurl", [](const Work& it) { return FetchByCurl(it, false); }},
        {"libcurl + sync", [](const Work& it) { return FetchByCurl(it, true); }}};
    std::vector<Figure> figures[std::size(kinds)];
    for (int round = 0; round <= std::atoi(arguments[5]); ++round)
    {
        for (size_t kind = 0; kind != std::size(kinds); ++kind)
        {
            const Figure figure = Measure(work, kinds[kind].second);
            if (round != 0)  // the first round does not count
            {
                figures[kind].push_back(figure);
            }
        }
    }
    for (size_t kind = 0; kind != std::size(kinds); ++kind)
    {
        std::printf("%s", kind == 0 ? "{" : ", ");
        Print(kinds[kind].first, figures[kind]);
    }
    std::printf("}\n");
    return 0;
}
