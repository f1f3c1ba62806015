#include "cli/settings_file.h"

#include <errno.h>
#include <toml++/toml.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <utility>

#include "cli/suggestion.h"
#include "exit_error.h"
#include "text.h"

namespace corpdir_tool
{

namespace
{

constexpr std::size_t kMaxFile = 1 << 20;  // bytes

[[noreturn]] void Refuse(std::size_t line, const std::string& problem)
{
    throw ExitError(kExitArguments, "line " + std::to_string(line) + ": " + problem);
}

// For messages: the file may be anything.
std::string Shown(const std::string& text)
{
    constexpr std::size_t kLongest = 40;
    return "'" + Printable(text.substr(0, kLongest)) + (text.size() > kLongest ? "..." : "") + "'";
}

std::string ReadAll(std::istream& input)
{
    std::string text(kMaxFile + 1, '\0');
    input.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(input.gcount()));
    if (input.bad() || (input.fail() && !input.eof()))
    {
        throw ExitError(kExitArguments, "the file cannot be read");
    }
    if (text.size() > kMaxFile)
    {
        throw ExitError(kExitArguments, "the file is larger than 1 MiB");
    }
    return text;
}

// Where a line starts; lines are counted from 1.
std::size_t StartOfLine(const std::string& text, std::size_t number)
{
    std::size_t start = 0;
    for (std::size_t line = 1; line < number && start < text.size(); ++line)
    {
        start = std::min(text.find('\n', start), text.size() - 1) + 1;
    }
    return start;
}

// The line with its value in quotes, if that makes it valid, otherwise empty. Earlier versions read
// values without quotes.
std::string InQuotes(const std::string& text, std::size_t number)
{
    const std::size_t start = StartOfLine(text, number);
    const std::string line = text.substr(start, text.find('\n', start) - start);
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos)
    {
        return "";
    }
    const char blanks[] = " \t\r";
    const std::string value = line.substr(equals + 1, line.find(" #") - equals - 1);
    std::string quoted =
        Trimmed(line.substr(0, equals), blanks) + " = \"" + Trimmed(value, blanks) + "\"";
    try
    {
        (void)toml::parse(text.substr(0, start) + quoted);
        return quoted;
    }
    catch (const toml::parse_error&)
    {
        return "";
    }
}

[[noreturn]] void RefuseToml(const toml::parse_error& error, const std::string& text)
{
    const std::size_t line = error.source().begin.line;
    const std::string quoted = InQuotes(text, line);
    Refuse(line,
           Printable(error.description()) + (quoted.empty() ? "" : "; write " + Printable(quoted)));
}

// The setting with its array of strings as one string, if the option takes a list; otherwise empty.
std::string JoinedList(const toml::node& node, const std::string& name)
{
    const bool takesList = name == "servers" || name == "verify-name" || name == "ciphers";
    const toml::array* const array = node.as_array();
    if (!takesList || array == nullptr || !array->is_homogeneous<std::string>())
    {
        return "";
    }
    const std::string separator = name == "servers" ? ";" : ",";
    std::string list;
    for (const toml::node& element : *array)
    {
        list += (list.empty() ? "" : separator) + element.value_or(std::string());
    }
    return name + " = \"" + Printable(list) + "\"";
}

// Integers and booleans mean the same with and without quotes.
std::string TextOf(const toml::node& node, const std::string& name)
{
    if (const auto text = node.value_exact<std::string>())
    {
        return *text;
    }
    if (const auto number = node.value_exact<std::int64_t>())
    {
        return std::to_string(*number);
    }
    if (const auto truth = node.value_exact<bool>())
    {
        return *truth ? "true" : "false";
    }
    const std::string joined = JoinedList(node, name);
    Refuse(node.source().begin.line, Shown(name) + " must be a string, an integer, true or false" +
                                         (joined.empty() ? "" : "; write " + joined));
}

void Collect(const toml::table& table, const std::string& section, std::vector<Setting>& settings)
{
    for (const auto& [key, node] : table)
    {
        const std::string name(key.str());
        if (node.is_table() && section.empty())
        {
            Collect(*node.as_table(), name, settings);
            continue;
        }
        settings.push_back({section, name, TextOf(node, name), node.source().begin.line});
    }
}

// Options that must not be given together; see CheckProtection in options.cpp.
constexpr std::pair<const char*, const char*> kConflicts[] = {{"plain", "ca"},
                                                              {"plain", "verify-name"},
                                                              {"plain", "ciphers"},
                                                              {"no-verify", "ca"},
                                                              {"no-verify", "verify-name"}};

// False for a flag that is switched off.
bool HasEffect(const std::string& value)
{
    return value != "false";
}

bool IsGiven(const CLI::App& command, const std::string& name)
{
    const CLI::Option* const option = command.get_option_no_throw("--" + name);
    return option != nullptr &&
           (option->get_expected_max() == 0 ? option->as<bool>() : option->count() != 0);
}

// The option of the command line that rules out this setting; empty when there is none.
std::string RuledOutBy(const CLI::App& command, const Setting& setting)
{
    for (const auto& [one, other] : kConflicts)
    {
        const std::string opposite = setting.name == one ? other : setting.name == other ? one : "";
        if (!opposite.empty() && HasEffect(setting.value) && IsGiven(command, opposite) &&
            !IsGiven(command, setting.name))
        {
            return "--" + opposite;
        }
    }
    return "";
}

[[noreturn]] void RefuseUnknown(const CLI::App& program, const Setting& setting)
{
    std::vector<std::string> names;
    std::vector<std::string> sections;
    for (const CLI::App* command : program.get_subcommands(nullptr))
    {
        sections.push_back("[" + command->get_name() + "]");
        for (const CLI::Option* option : command->get_options())
        {
            if (setting.section.empty() || setting.section == command->get_name())
            {
                names.push_back(option->get_single_name());
            }
        }
    }
    const std::string section = "[" + setting.section + "]";
    if (!setting.section.empty() &&
        std::find(sections.begin(), sections.end(), section) == sections.end())
    {
        Refuse(setting.line,
               "there is no section " + Printable(section) + Suggestion(section, sections));
    }
    Refuse(setting.line, (setting.section.empty()
                              ? "no command has an option "
                              : "section [" + Printable(setting.section) + "] has no option ") +
                             Shown(setting.name) + Suggestion(setting.name, names));
}

// Any value of a flag but true and false is a mistake: an empty one may come from a template, and
// must not switch a protection off.
void CheckFlag(const Setting& setting, bool isFlag)
{
    if (isFlag && setting.value != "true" && setting.value != "false")
    {
        Refuse(setting.line, setting.name + " must be true or false, not " + Shown(setting.value));
    }
}

// Throws unless some command has such a setting.
void CheckSetting(const CLI::App& program, const Setting& setting)
{
    bool known = false;
    for (const CLI::App* command : program.get_subcommands(nullptr))
    {
        const CLI::Option* const option = command->get_option_no_throw("--" + setting.name);
        const bool meant = setting.section.empty() || setting.section == command->get_name();
        if (meant && option != nullptr && option->get_configurable())
        {
            known = true;
            CheckFlag(setting, option->get_expected_max() == 0);
        }
    }
    if (!known)
    {
        RefuseUnknown(program, setting);
    }
}

// Those of the command, in the order of precedence.
std::vector<Setting> SettingsOf(const CLI::App& command, const std::vector<Setting>& settings)
{
    std::vector<Setting> found;
    for (const std::string& section : {command.get_name(), std::string()})
    {
        std::copy_if(settings.begin(), settings.end(), std::back_inserter(found),
                     [&](const Setting& setting)
                     {
                         return setting.section == section &&
                                command.get_option_no_throw("--" + setting.name) != nullptr;
                     });
    }
    return found;
}

void SetOption(CLI::Option& option, const Setting& setting)
{
    try
    {
        option.add_result(setting.value);
        option.run_callback();
    }
    catch (const CLI::ParseError& error)
    {
        Refuse(setting.line, error.what());
    }
}

// Returns zero, or the error number with the reason why the file cannot be read.
int OpenFile(const std::string& path, std::ifstream& input)
{
    errno = 0;
    input.open(path, std::ios::binary);
    if (!input.is_open())
    {
        return errno;
    }
    std::error_code ignored;
    return std::filesystem::is_directory(path, ignored) ? EISDIR : 0;
}

}  // namespace

std::vector<Setting> ReadSettings(std::istream& input)
{
    const std::string text = ReadAll(input);
    std::vector<Setting> settings;
    try
    {
        Collect(toml::parse(text), "", settings);
    }
    catch (const toml::parse_error& error)
    {
        RefuseToml(error, text);
    }
    std::sort(settings.begin(), settings.end(),
              [](const Setting& left, const Setting& right) { return left.line < right.line; });
    return settings;
}

CLI::Validator NotEmpty()
{
    return CLI::Validator([](const std::string& value)
                          { return value.empty() ? std::string("Value is empty") : std::string(); },
                          "");
}

SettingsFile::SettingsFile(CLI::App& program, std::string defaultPath)
    : m_program(program), m_defaultPath(std::move(defaultPath))
{
    program.add_option("--config", m_path, "Read options from this file; see the manual page")
        ->check(NotEmpty())
        ->type_name("FILE");
    program.add_flag("--no-config", m_none, "Read no settings file");
}

UsedSettings SettingsFile::Apply(CLI::App& command) const
{
    const bool given = !m_path.empty();
    if (given && m_none)
    {
        throw ExitError(kExitArguments, "--config and --no-config exclude each other");
    }
    if (m_none)
    {
        return {};
    }
    const std::string& path = given ? m_path : m_defaultPath;
    std::ifstream input;
    const int error = OpenFile(path, input);
    if (error != 0 && given)
    {
        throw ExitError(kExitArguments, "--config '" + Printable(path) +
                                            "' cannot be read: " + SystemMessage(error));
    }
    if (error == ENOENT)
    {
        return {};
    }
    if (error != 0)
    {
        return {"", {}, {Printable(path) + " is not used: " + SystemMessage(error)}};
    }
    try
    {
        return ApplyTo(command, Printable(path), ReadSettings(input));
    }
    catch (const ExitError& mistake)
    {
        const std::string problem = Printable(path) + ", " + mistake.what();
        if (command.get_name() == "ciphers")
        {
            return {"", {}, {problem}};
        }
        throw ExitError(kExitArguments, (given ? "--config " : "") + problem);
    }
}

UsedSettings SettingsFile::ApplyTo(CLI::App& command, const std::string& path,
                                   const std::vector<Setting>& settings) const
{
    for (const Setting& setting : settings)
    {
        CheckSetting(m_program, setting);
    }
    // All are compared with the command line before one is set.
    UsedSettings used{path};
    std::vector<Setting> kept;
    for (const Setting& setting : SettingsOf(command, settings))
    {
        const std::string opposite = RuledOutBy(command, setting);
        if (opposite.empty())
        {
            kept.push_back(setting);
        }
        else
        {
            used.notices.push_back("the setting '" + setting.name);
            used.notices.back() += "' of " + path;
            used.notices.back() += " is not used, because the command line has " + opposite;
        }
    }
    for (const Setting& setting : kept)
    {
        CLI::Option& option = *command.get_option("--" + setting.name);
        if (option.count() == 0)
        {
            SetOption(option, setting);
            used.names.push_back(setting.name);
        }
    }
    return used;
}

}  // namespace corpdir_tool
