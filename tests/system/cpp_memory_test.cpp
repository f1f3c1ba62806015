// That the interface for C++ leaves no copy of the password behind. As in c_memory_test.cpp, the
// test knows the password in changed form only.
#include <string.h>

#include <algorithm>
#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "corpdir.hpp"
#include "ftp_servers.h"
#include "memory_search.h"

namespace integration
{
namespace
{

using ::testing::IsEmpty;
using ::testing::Not;

// Backwards, so that nothing in this process holds it as it is.
const std::string kReversedEnd = "-atem-si-siht-drowssap-a-ton";

TEST(CppMemory, ACloseLeavesNoPasswordWhenTheRequestIsWiped)
{
    const auto secret = support::Scrambled::Reversed(kReversedEnd);
    corpdir::Request request;
    request.password = kReversedEnd + std::string(40, '.');
    std::reverse(request.password.begin(), request.password.end());
    request.servers = {"127.0.0.1"};
    request.port = static_cast<std::uint16_t>(support::FreePort("127.0.0.1"));
    request.user = "user";
    request.versionFile = "version.txt";
    request.directoryFile = "directory.csv";
    const support::TemporaryDirectory output;
    request.directoryDir = output.Path();
    {
        corpdir::Client client;
        std::error_code error;
        client.Start(request);
        request.servers = {};
        client.Start(request, error);
        EXPECT_EQ(error, corpdir::Code::kServers);
        EXPECT_THAT(support::PlacesInMemory(secret), Not(IsEmpty())) << "the search finds nothing";
        explicit_bzero(request.password.data(), request.password.size());
    }
    EXPECT_THAT(support::PlacesInMemory(secret), IsEmpty());
}

}  // namespace
}  // namespace integration
