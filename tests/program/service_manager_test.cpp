// The datagrams that systemd receives.
#include "os/service_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <optional>
#include <string>

#include "notify_receiver.h"
#include "parts_support.h"

namespace corpdir_tool
{
namespace
{

using ::testing::StartsWith;

long MonotonicSeconds()
{
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

class ToolServiceManager : public ::testing::Test
{
protected:
    ~ToolServiceManager() override
    {
        (void)unsetenv("NOTIFY_SOCKET");
    }

    const TemporaryDirectory m_folder;
};

TEST_F(ToolServiceManager, EachReportIsOneDatagram)
{
    for (const std::string& name :
         {m_folder.Path() + "/notify", "@corpdir-test-" + std::to_string(getpid())})
    {
        const NotifyReceiver receiver(name);
        const ServiceManager manager;
        manager.Ready();
        manager.Status("version 'a' from dir1, checked 12:00");
        manager.Stopping();
        EXPECT_EQ(receiver.Next(), "READY=1") << name;
        EXPECT_EQ(receiver.Next(), "STATUS=version 'a' from dir1, checked 12:00") << name;
        EXPECT_EQ(receiver.Next(), "STOPPING=1") << name;
        EXPECT_EQ(receiver.Next(), std::nullopt) << name;
    }
}

TEST_F(ToolServiceManager, AReloadHasItsTime)
{
    const NotifyReceiver receiver(m_folder.Path() + "/notify");
    const ServiceManager manager;
    const long before = MonotonicSeconds();
    manager.Reloading();
    const std::string got = receiver.Next().value_or("");
    const std::string start = "RELOADING=1\nMONOTONIC_USEC=";
    ASSERT_THAT(got, StartsWith(start));
    const long seconds = std::stol(got.substr(start.size())) / 1000000;
    EXPECT_GE(seconds, before);
    EXPECT_LE(seconds, MonotonicSeconds());
}

// A server's text must not become another variable of the protocol.
TEST_F(ToolServiceManager, AStatusIsOneLine)
{
    const NotifyReceiver receiver(m_folder.Path() + "/notify");
    ServiceManager().Status("failed: no\nSTOPPING=1\r\x1b\xff");
    EXPECT_EQ(receiver.Next(), "STATUS=failed: no\\x0aSTOPPING=1\\x0d\\x1b\\xff");
}

TEST_F(ToolServiceManager, TheVariableIsTakenOnce)
{
    const NotifyReceiver receiver(m_folder.Path() + "/notify");
    const ServiceManager first;
    EXPECT_EQ(getenv("NOTIFY_SOCKET"), nullptr);
    ServiceManager().Ready();
    EXPECT_EQ(receiver.Next(), std::nullopt);
    first.Ready();
    EXPECT_EQ(receiver.Next(), "READY=1");
}

// Neither no manager, nor one that is gone, nor one that does not read stops the program.
TEST_F(ToolServiceManager, FailuresAreIgnored)
{
    ServiceManager().Ready();
    for (const std::string& name :
         {m_folder.Path() + "/gone", std::string("relative"), std::string(),
          "/" + std::string(sizeof(sockaddr_un::sun_path), 'a')})
    {
        ASSERT_EQ(setenv("NOTIFY_SOCKET", name.c_str(), 1), 0);
        ServiceManager().Ready();
    }
    const NotifyReceiver receiver(m_folder.Path() + "/notify");
    const ServiceManager manager;
    const int more = 100000;  // than any queue has
    for (int count = 0; count < more; ++count)
    {
        manager.Status("checked");
    }
    EXPECT_EQ(receiver.Next(), "STATUS=checked");
}

}  // namespace
}  // namespace corpdir_tool
