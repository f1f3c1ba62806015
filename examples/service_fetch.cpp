// Fetches the directory once over FTPS: service_fetch SERVERS USER OUTPUT_DIR CA_FILE
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>

#include "ftpcorpdir.h"

static std::promise<void> g_arrived;

static void OnResult(unsigned int, unsigned int result, const char*, void*)
{
    if (result == 0)
        g_arrived.set_value();
    else
        std::fprintf(stderr, "a transfer failed, the service tries the next server\n");
}

int main(int argc, char** argv)
{
    const char* password = std::getenv("CORPDIR_PASSWORD");
    if (argc != 5 || password == nullptr)
        return 2;

    tag_CORPDIR_DOWNLOADINFO request = {};
    request.pszFtpIPs = argv[1];
    request.ulCertVerify = 1;
    std::snprintf(request.szFtpCtrlInfo, 256, "%s", argv[4]);
    std::snprintf(request.szUserName, 256, "%s", argv[2]);
    std::snprintf(request.szPassword, 256, "%s", password);
    std::snprintf(request.szVersionServerFile, 256, "version.txt");
    std::snprintf(request.szCorpDirServerFile, 256, "directory.csv");
    std::snprintf(request.szVersionLocalDir, 256, "%s", argv[3]);
    std::snprintf(request.szCorpDirLocalDir, 256, "%s", argv[3]);
    std::snprintf(request.szVersionLocalFileName, 256, "version.txt");
    std::snprintf(request.szCorpDirLocalFileName, 256, "directory.csv");

    IFtpCorpDir* service = GetCorpDirInstance();
    bool fetched =
        service->CorpDirInit(nullptr) == 0 &&
        service->CorpDirDownloadNetaddr(&request, OnResult) == 0 &&
        g_arrived.get_future().wait_for(std::chrono::seconds(60)) == std::future_status::ready;
    service->CorpDirUninit();
    return fetched ? 0 : 1;
}
