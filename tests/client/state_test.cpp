// The state file of a directory file.
#include "state.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <map>
#include <nlohmann/json.hpp>

#include "files.h"

namespace client
{
namespace
{

using nlohmann::json;
using ::testing::HasSubstr;

const std::string kHash(64, 'a');

State SomeState()
{
    return {"edition 17", 167808,     kHash,    "192.0.2.1 (dir.example)",  1763746200,
            1763746300,   1763746400, "failed", "192.0.2.1: login refused", 2};
}

json SomeObject()
{
    return json::parse(StateText(SomeState()));
}

class ClientState : public ::testing::Test
{
protected:
    std::optional<State> ReadText(const std::string& text)
    {
        support::WriteFile(m_path, text);
        return ReadState(m_path, m_problem);
    }

    // Why a file with this text is not used.
    std::string ProblemOf(const std::string& text)
    {
        EXPECT_FALSE(ReadText(text).has_value()) << text;
        return m_problem;
    }

    const support::TemporaryDirectory m_directory;
    const std::string m_path = m_directory.File(".directory.csv.corpdir.json");
    std::string m_problem = "not set";
};

TEST_F(ClientState, HasTheDocumentedForm)
{
    EXPECT_EQ(StateText(SomeState()),
              "{\n"
              "  \"format\": 1,\n"
              "  \"version\": \"edition 17\",\n"
              "  \"size\": 167808,\n"
              "  \"sha256\": \"" +
                  kHash +
                  "\",\n"
                  "  \"server\": \"192.0.2.1 (dir.example)\",\n"
                  "  \"fetched\": \"2025-11-21T17:30:00Z\",\n"
                  "  \"confirmed\": \"2025-11-21T17:31:40Z\",\n"
                  "  \"checked\": \"2025-11-21T17:33:20Z\",\n"
                  "  \"outcome\": \"failed\",\n"
                  "  \"reason\": \"192.0.2.1: login refused\",\n"
                  "  \"failures\": 2\n"
                  "}\n");
}

void ExpectSame(const State& read, const State& written)
{
    EXPECT_EQ(read.version, written.version);
    EXPECT_EQ(read.size, written.size);
    EXPECT_EQ(read.sha256, written.sha256);
    EXPECT_EQ(read.server, written.server);
    EXPECT_EQ(read.fetched, written.fetched);
    EXPECT_EQ(read.confirmed, written.confirmed);
    EXPECT_EQ(read.checked, written.checked);
    EXPECT_EQ(read.outcome, written.outcome);
    EXPECT_EQ(read.reason, written.reason);
    EXPECT_EQ(read.failures, written.failures);
}

TEST_F(ClientState, IsReadAsItWasWritten)
{
    State largest = SomeState();
    largest.size = UINT64_MAX;
    largest.failures = UINT32_MAX;
    for (const State& state : {State(), SomeState(), largest})
    {
        const std::optional<State> read = ReadText(StateText(state));
        ASSERT_TRUE(read.has_value()) << m_problem;
        EXPECT_EQ(m_problem, "");
        ExpectSame(*read, state);
    }
}

TEST_F(ClientState, KeepsEachByteOfAVersion)
{
    State state = SomeState();
    std::string every;
    for (int byte = 0; byte != 256; ++byte)
    {
        every += static_cast<char>(byte);
    }
    std::vector<std::string> versions = {
        "\xff\xfe"
        "1\0.\0",
        "caf\xe9 7",
        "caf\xc3\xa9 7",
        "\xef\xbf\xbd 17",
        "a\r",
        "\"\\\n"};
    for (std::size_t at = 0; at < every.size(); at += 16)
    {
        versions.push_back(every.substr(at, 16));
    }
    versions.emplace_back(30, '\xff');
    for (const std::string& version : versions)
    {
        state.version = version;
        const std::optional<State> read = ReadText(StateText(state));
        ASSERT_TRUE(read.has_value()) << m_problem << ": " << StateText(state);
        EXPECT_EQ(read->version, version);
    }
}

TEST_F(ClientState, ShowsAVersionThatIsNotUtf8AsHexadecimalToo)
{
    State state = SomeState();
    EXPECT_FALSE(SomeObject().contains("version_hex"));
    state.version = "caf\xe9";
    const json object = json::parse(StateText(state));
    EXPECT_EQ(object["version"], "caf\xef\xbf\xbd");
    EXPECT_EQ(object["version_hex"], "636166e9");
}

TEST_F(ClientState, NoFileAndAnEmptyOneAreNoProblem)
{
    EXPECT_FALSE(ReadState(m_path, m_problem).has_value());
    EXPECT_EQ(m_problem, "");
    EXPECT_EQ(ProblemOf(""), "");
}

TEST_F(ClientState, OtherFilesAreRefusedWithAReason)
{
    EXPECT_EQ(ProblemOf("{"), "not a JSON object");
    EXPECT_EQ(ProblemOf("[]"), "not a JSON object");
    EXPECT_EQ(ProblemOf("\x80"), "not a JSON object");
    EXPECT_EQ(ProblemOf("{}"), "no member 'format'");
    EXPECT_EQ(ProblemOf(R"({"format":2})"), "format 2 is not supported");
    EXPECT_EQ(ProblemOf(R"({"format":"1"})"), "member 'format' is not valid");
    EXPECT_EQ(ProblemOf(std::string(30000, '[')), "not a JSON object");
    const std::string text = StateText(SomeState());
    EXPECT_TRUE(ReadText(text + std::string(65536 - text.size(), ' ')).has_value());
    EXPECT_EQ(ProblemOf(text + std::string(65537 - text.size(), ' ')), "larger than 64 KiB");
}

TEST_F(ClientState, EachMemberIsNeededAndChecked)
{
    const std::map<std::string, std::vector<json>> wrong = {
        {"version", {1, "", std::string(31, 'x')}},
        {"size", {-1, 1.5, "1", nullptr, 18446744073709551616.0}},
        {"sha256", {1, "", std::string(63, 'a'), std::string(64, 'A'), std::string(65, 'a')}},
        {"server", {1, json::array(), std::string(513, 'x')}},
        {"fetched", {1, "", "2025-11-21", "2025-11-21T17:30:00", " 2025-11-21T17:30:00Z"}},
        {"confirmed", {true, "2025-02-30T17:30:00Z", "2025-11-21T17:30:60Z"}},
        {"checked", {json::object(), "2025-11-21T17:30:00+01:00", "1969-12-31T23:59:59Z"}},
        {"outcome", {1, "other"}},
        {"failures", {-1, 4294967296, nullptr}}};
    for (const auto& [name, values] : wrong)
    {
        json object = SomeObject();
        object.erase(name);
        EXPECT_EQ(ProblemOf(object.dump()), "no member '" + name + "'");
        for (const json& value : values)
        {
            object[name] = value;
            EXPECT_EQ(ProblemOf(object.dump()), "member '" + name + "' is not valid") << value;
        }
    }
    for (const char* digits : {"", "a", "xy", "AB"})
    {
        json object = SomeObject();
        object["version_hex"] = digits;
        EXPECT_EQ(ProblemOf(object.dump()), "member 'version_hex' is not valid");
    }
}

TEST_F(ClientState, OtherKindsOfFileAreRefusedWithoutWaiting)
{
    ASSERT_EQ(mkfifo(m_path.c_str(), 0600), 0);
    EXPECT_FALSE(ReadState(m_path, m_problem).has_value());
    EXPECT_EQ(m_problem, "not a regular file");
    EXPECT_FALSE(ReadState(m_directory.Path(), m_problem).has_value());
    EXPECT_EQ(m_problem, "not a regular file");
    EXPECT_FALSE(ReadState(m_path + "/x", m_problem).has_value());
    EXPECT_EQ(m_problem, "Not a directory");
}

TEST(ClientStateName, FitsForTheLongestDirectoryName)
{
    EXPECT_EQ(StateName("directory.csv"), ".directory.csv.corpdir.json");
    EXPECT_EQ(StateName(std::string(kMaxDirectoryName, 'd')).size(), 255U);
}

}  // namespace
}  // namespace client
