#include "state.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <limits>
#include <nlohmann/json.hpp>
#include <system_error>

#include "base/descriptor.h"

namespace client
{

namespace
{

// Members keep the order in which they were added.
using Json = nlohmann::ordered_json;

constexpr int kFormat = 1;
constexpr std::size_t kMaxFile = 65536;  // bytes
constexpr std::size_t kMaxVersion = 30;
constexpr std::size_t kMaxServer = 512;
constexpr std::size_t kMaxReason = 2048;
constexpr std::size_t kHashDigits = 64;
constexpr char kHexDigits[] = "0123456789abcdef";
constexpr char kTimeFormat[] = "%Y-%m-%dT%H:%M:%SZ";

std::string ErrorText()
{
    return std::generic_category().message(errno);
}

// The whole file, empty when there is none.
std::string ReadFile(const std::string& path, std::string& problem)
{
    // Opening a FIFO without O_NONBLOCK would wait for a writer.
    const base::Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file.IsOpen())
    {
        problem = errno == ENOENT ? "" : ErrorText();
        return "";
    }
    struct stat status = {};
    if (fstat(file.Number(), &status) != 0 || !S_ISREG(status.st_mode))
    {
        problem = "not a regular file";
        return "";
    }
    std::string text(kMaxFile + 1, '\0');
    std::size_t used = 0;
    ssize_t count = 1;
    while (count > 0 && used < text.size())
    {
        count = read(file.Number(), &text[used], text.size() - used);
        used += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    if (count < 0 || used > kMaxFile)
    {
        problem = count < 0 ? ErrorText() : "larger than 64 KiB";
        return "";
    }
    text.resize(used);
    return text;
}

std::string HexOf(const std::string& bytes)
{
    std::string digits;
    for (const char byte : bytes)
    {
        const auto value = static_cast<unsigned char>(byte);
        digits += kHexDigits[value >> 4];
        digits += kHexDigits[value & 0x0f];
    }
    return digits;
}

bool IsHex(const std::string& text)
{
    return text.find_first_not_of(kHexDigits) == std::string::npos;
}

// The digits have been checked.
std::string BytesOfHex(const std::string& digits)
{
    std::string bytes;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
    {
        bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

// Bytes that are not UTF-8 are replaced.
std::string Dumped(const Json& value, int indent)
{
    return value.dump(indent, ' ', false, Json::error_handler_t::replace);
}

// True when JSON returns the same bytes.
bool Survives(const std::string& text)
{
    return Json::parse(Dumped(text, -1)).get_ref<const std::string&>() == text;
}

Json OrNull(const std::string& text)
{
    return text.empty() ? Json(nullptr) : Json(text);
}

// 0 when the text is not a time in our form.
std::int64_t TimeOf(const std::string& text)
{
    tm parts = {};
    const char* const end = strptime(text.c_str(), kTimeFormat, &parts);
    const std::int64_t seconds = end == nullptr ? 0 : timegm(&parts);
    // strptime also accepts blanks and numbers with fewer digits.
    return TimeText(seconds) == text ? seconds : 0;
}

// Reads the members of an object; the first one that cannot be used becomes the problem.
class Members
{
public:
    Members(const Json& object, std::string& problem) : m_object(object), m_problem(problem) {}

    // null is the empty text.
    std::string Text(const char* name, std::size_t longest)
    {
        const Json* const value = Find(name);
        if (value == nullptr || value->is_null())
        {
            return "";
        }
        std::string text = value->is_string() ? value->get<std::string>() : "";
        if (text.empty() || text.size() > longest)
        {
            Refuse(name);
        }
        return text;
    }

    std::uint64_t Number(const char* name, std::uint64_t largest)
    {
        const Json* const value = Find(name);
        if (value == nullptr)
        {
            return 0;
        }
        if (!value->is_number_unsigned() || value->get<std::uint64_t>() > largest)
        {
            Refuse(name);
            return 0;
        }
        return value->get<std::uint64_t>();
    }

    std::int64_t Time(const char* name)
    {
        const std::string text = Text(name, kMaxFile);
        const std::int64_t seconds = text.empty() ? 0 : TimeOf(text);
        if (seconds == 0 && !text.empty())
        {
            Refuse(name);
        }
        return seconds;
    }

    std::string Version()
    {
        constexpr char kName[] = "version_hex";
        // A byte that is not UTF-8 is shown as three.
        std::string shown = Text("version", 3 * kMaxVersion);
        if (m_object.contains(kName))
        {
            const std::string digits = Text(kName, 2 * kMaxVersion);
            if (digits.empty() || digits.size() % 2 != 0 || !IsHex(digits))
            {
                Refuse(kName);
                return "";
            }
            return BytesOfHex(digits);
        }
        if (shown.size() > kMaxVersion)
        {
            Refuse("version");
        }
        return shown;
    }

    std::string Hash()
    {
        std::string hash = Text("sha256", kHashDigits);
        if (!hash.empty() && (hash.size() != kHashDigits || !IsHex(hash)))
        {
            Refuse("sha256");
        }
        return hash;
    }

    std::string Outcome()
    {
        std::string outcome = Text("outcome", kMaxFile);
        if (!outcome.empty() && outcome != "fetched" && outcome != "unchanged" &&
            outcome != "failed")
        {
            Refuse("outcome");
        }
        return outcome;
    }

private:
    const Json* Find(const char* name)
    {
        const auto found = m_object.find(name);
        if (found == m_object.end())
        {
            Note("no member '" + std::string(name) + "'");
            return nullptr;
        }
        return &*found;
    }

    void Refuse(const char* name)
    {
        Note("member '" + std::string(name) + "' is not valid");
    }

    void Note(const std::string& problem)
    {
        if (m_problem.empty())
        {
            m_problem = problem;
        }
    }

    const Json& m_object;
    std::string& m_problem;
};

State StateOf(const Json& object, std::string& problem)
{
    State state;
    Members members(object, problem);
    // First: the others may mean something else in another format.
    const std::uint64_t format =
        members.Number("format", std::numeric_limits<std::uint64_t>::max());
    if (!problem.empty() || format != kFormat)
    {
        problem =
            problem.empty() ? "format " + std::to_string(format) + " is not supported" : problem;
        return state;
    }
    state.version = members.Version();
    state.size = members.Number("size", std::numeric_limits<std::uint64_t>::max());
    state.sha256 = members.Hash();
    state.server = members.Text("server", kMaxServer);
    state.fetched = members.Time("fetched");
    state.confirmed = members.Time("confirmed");
    state.checked = members.Time("checked");
    state.outcome = members.Outcome();
    if (object.contains("reason"))
    {
        state.reason = members.Text("reason", kMaxReason);
    }
    state.commandDue = object.value("command_due", Json()) == Json(true);
    state.failures = static_cast<std::uint32_t>(
        members.Number("failures", std::numeric_limits<std::uint32_t>::max()));
    return state;
}

}  // namespace

std::string StateName(const std::string& directoryName)
{
    return std::string(kStatePrefix) + directoryName + std::string(kStateSuffix);
}

std::string TimeText(std::int64_t secondsSince1970)
{
    const time_t seconds = secondsSince1970;
    tm parts = {};
    char text[32] = "";
    if (secondsSince1970 <= 0 || gmtime_r(&seconds, &parts) == nullptr)
    {
        return "";
    }
    (void)strftime(text, sizeof text, kTimeFormat, &parts);
    return text;
}

std::optional<State> ReadState(const std::string& path, std::string& problem)
{
    problem.clear();
    const std::string text = ReadFile(path, problem);
    if (text.empty())
    {
        return std::nullopt;
    }
    const Json object = Json::parse(text, nullptr, false);
    if (!object.is_object())
    {
        problem = "not a JSON object";
        return std::nullopt;
    }
    State state = StateOf(object, problem);
    if (!problem.empty())
    {
        return std::nullopt;
    }
    return state;
}

std::string StateText(const State& state)
{
    Json object = {{"format", kFormat}, {"version", OrNull(state.version)}};
    if (!Survives(state.version))
    {
        object["version_hex"] = HexOf(state.version);
    }
    object["size"] = state.size;
    object["sha256"] = OrNull(state.sha256);
    object["server"] = OrNull(state.server);
    object["fetched"] = OrNull(TimeText(state.fetched));
    object["confirmed"] = OrNull(TimeText(state.confirmed));
    object["checked"] = OrNull(TimeText(state.checked));
    object["outcome"] = OrNull(state.outcome);
    object["reason"] = OrNull(state.reason);
    object["failures"] = state.failures;
    if (state.commandDue)
    {
        object["command_due"] = true;
    }
    return Dumped(object, 2) + "\n";
}

}  // namespace client
