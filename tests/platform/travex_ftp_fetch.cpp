// Fetches one file with the FTP layer, in a process of its own that a test may kill or confine:
//     travex_ftp_fetch <port on 127.0.0.1> <directory> <local file> [<certification authorities>]
// With authorities it is explicit FTPS, and the server's certificate is verified. Prints the
// outcome as the tests write it (OutcomeOf). In the environment TRAVEX_FTP_FETCH_USER is the number
// of a user to become first, TRAVEX_FTP_FETCH_RESPONSE_MS a limit that the program sets.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "travex_ftp_fixture.h"

namespace
{
bool BecomeUser()
{
    const char* const number = std::getenv("TRAVEX_FTP_FETCH_USER");
    return number == nullptr || setuid(static_cast<uid_t>(std::atoi(number))) == 0;
}

bool SetLimit()
{
    const char* const response = std::getenv("TRAVEX_FTP_FETCH_RESPONSE_MS");
    tagTRAVEX_FTP_S_LIMITS limits{};
    limits.ulResponseMs = static_cast<unsigned int>(response == nullptr ? 0 : std::atoi(response));
    return TRAVEX_FTP_SetLimits(&limits) == 0;
}

}  // namespace

int main(int count, char** arguments)
{
    if (count < 4 || count > 5 || !BecomeUser() || !SetLimit() || TRAVEX_FTP_Init() != 0)
    {
        return 2;
    }
    const TRAVEX_FTP_HANDLE handle = TRAVEX_FTP_CreateHandle();
    auto record = ftp_test::Parameters(
        "127.0.0.1", static_cast<unsigned int>(std::atoi(arguments[1])), arguments[2]);
    if (count == 5)
    {
        record.ulServerType = 1;
        record.ulCertVerify = 1;
        record.pcFtpCtrlInfo = arguments[4];
    }
    const tagTRAVEX_FTP_S_DATA_PARAM data{};
    unsigned int task = 0;
    if (TRAVEX_FTP_SetCtrlParam(handle, &record) != 0 ||
        TRAVEX_FTP_SetDataParam(handle, &data) != 0 ||
        TRAVEX_FTP_AsynDownloadFile(handle, &task, "f", ".", arguments[3], ftp_test::Record) != 0)
    {
        return 2;
    }
    const std::string outcome = ftp_test::OutcomeOf(task);
    std::printf("%s\n", outcome.c_str());
    return TRAVEX_FTP_UnInit() == 0 && outcome == "0 12" ? 0 : 1;
}
