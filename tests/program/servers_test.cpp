// The server list of the program: splitting, refusing, resolving.
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <condition_variable>
#include <mutex>

#include "cli/servers.h"
#include "parts_support.h"

namespace corpdir_tool
{
namespace
{

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::vector<std::string> Texts(const std::vector<ServerEntry>& entries)
{
    std::vector<std::string> texts;
    for (const ServerEntry& entry : entries)
    {
        texts.push_back((entry.isAddress ? "address " : "name ") + entry.text);
    }
    return texts;
}

TEST(ToolServers, SplitsAddressesAndNamesInOrder)
{
    EXPECT_THAT(Texts(SplitServers("192.0.2.1;dir.example;2001:db8::1")),
                ElementsAre("address 192.0.2.1", "name dir.example", "address 2001:db8::1"));
}

TEST(ToolServers, TakesBlanksBracketsAndUnusualSpellings)
{
    EXPECT_THAT(Texts(SplitServers(" 192.0.2.1 ;\t[2001:DB8:0:0::1]; localhost")),
                ElementsAre("address 192.0.2.1", "address 2001:db8::1", "name localhost"));
}

TEST(ToolServers, RefusesEmptyLists)
{
    for (const char* list : {"", " ", "\t"})
    {
        const Thrown thrown = ExitErrorOf([list] { SplitServers(list); });
        EXPECT_EQ(thrown.status, kExitArguments);
        EXPECT_EQ(thrown.message, "--servers is empty");
    }
}

TEST(ToolServers, RefusesEmptyEntriesWithTheirPlace)
{
    EXPECT_EQ(ExitErrorOf([] { SplitServers("a.example;;b.example"); }).message,
              "--servers: entry 2 of 'a.example;;b.example' is empty");
    EXPECT_EQ(ExitErrorOf([] { SplitServers("a.example;"); }).message,
              "--servers: entry 2 of 'a.example;' is empty");
    EXPECT_EQ(ExitErrorOf([] { SplitServers(";a.example"); }).message,
              "--servers: entry 1 of ';a.example' is empty");
}

TEST(ToolServers, RefusesWhatIsNeitherAddressNorName)
{
    for (const char* entry : {"10.1", "127.1", "0x7f.1", "10.1.1.256", "2130706433", "0x7f000001",
                              "dir example", "ftp://dir.example", "dir..example", ".", "a,b", "a=b",
                              "user@dir.example", "dir.example\n"})
    {
        const Thrown thrown = ExitErrorOf([entry] { SplitServers(entry); });
        EXPECT_EQ(thrown.status, kExitArguments) << entry;
        EXPECT_THAT(thrown.message, HasSubstr("is neither an address nor a host name")) << entry;
    }
}

TEST(ToolServers, NamesTheSeparator)
{
    for (const char* entry : {"a.example,b.example", "a.example b.example", "192.0.2.1\tb",
                              "a.example:21, b.example:21"})
    {
        EXPECT_THAT(ExitErrorOf([entry] { SplitServers(entry); }).message,
                    testing::EndsWith("name; servers are separated by ';'"))
            << entry;
    }
}

TEST(ToolServers, NamesTheOptionForThePort)
{
    for (const char* entry : {"192.0.2.1:2121", "dir.example:21", "[::1]:21"})
    {
        EXPECT_THAT(ExitErrorOf([entry] { SplitServers(entry); }).message,
                    HasSubstr("give the port with --port"));
    }
    EXPECT_THAT(ExitErrorOf([] { SplitServers("fe80::1%eth0"); }).message, HasSubstr("zone"));
}

TEST(ToolServers, RefusesZeroAddresses)
{
    for (const char* entry : {"0.0.0.0", "::", "[::]", "::ffff:0.0.0.0"})
    {
        EXPECT_THAT(ExitErrorOf([entry] { SplitServers(entry); }).message,
                    HasSubstr("is the unspecified address, not a server"));
    }
}

TEST(ToolServers, HostNamesKeepTheirLimits)
{
    const std::string label(63, 'a');
    EXPECT_TRUE(IsHostName(label + ".example"));
    EXPECT_FALSE(IsHostName(label + "a.example"));
    const std::string longest = label + "." + label + "." + label + "." + std::string(61, 'b');
    EXPECT_EQ(longest.size(), 253U);
    EXPECT_TRUE(IsHostName(longest));
    EXPECT_FALSE(IsHostName(longest + "b"));
    EXPECT_TRUE(IsHostName("dir.example."));
    EXPECT_TRUE(IsHostName("10.example"));
}

TEST(ToolServers, TheSystemResolvesAddressesWithoutAServer)
{
    EXPECT_THAT(SystemLookup("192.0.2.1", AF_UNSPEC).addresses, ElementsAre("192.0.2.1"));
    EXPECT_THAT(SystemLookup("2001:db8::1", AF_UNSPEC).addresses, ElementsAre("2001:db8::1"));
}

TEST(ToolServers, TheSystemSaysWhyThereIsNoAddress)
{
    const LookupResult wrongFamily = SystemLookup("192.0.2.1", AF_INET6);
    EXPECT_THAT(wrongFamily.addresses, IsEmpty());
    EXPECT_NE(wrongFamily.problem, "");

    const LookupResult zero = SystemLookup("0.0.0.0", AF_UNSPEC);
    EXPECT_THAT(zero.addresses, IsEmpty());
    EXPECT_EQ(zero.problem, "no usable address");
}

}  // namespace
}  // namespace corpdir_tool
