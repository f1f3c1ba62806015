#include "cli/settings_file.h"

#include <toml++/toml.h>

#include <algorithm>
#include <memory>
#include <sstream>

#include "cli/suggestion.h"
#include "exit_error.h"
#include "text.h"

namespace corpdir_tool
{

namespace
{

constexpr std::size_t kMaxFile = 1 << 20;

[[noreturn]] void Refuse(std::size_t line, const std::string& problem)
{
    throw ExitError(kExitArguments, "line " + std::to_string(line) + ": " + problem);
}

// For messages: a file that is none of settings may have anything in it.
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
        throw ExitError(kExitArguments, "the file cannot be read any further");
    }
    if (text.size() > kMaxFile)
    {
        throw ExitError(kExitArguments, "the file is too large for one of settings");
    }
    return text;
}

std::string Trimmed(const std::string& text)
{
    const char blanks[] = " \t\r";
    const std::size_t first = text.find_first_not_of(blanks);
    return first == std::string::npos
               ? ""
               : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// The lines with one of them replaced.
std::string WithLine(const std::string& text, std::size_t number, const std::string& replacement)
{
    std::istringstream lines(text);
    std::string all;
    std::string line;
    for (std::size_t at = 1; std::getline(lines, line); ++at)
    {
        all += (at == number ? replacement : line) + "\n";
    }
    return all;
}

std::string LineOf(const std::string& text, std::size_t number)
{
    std::istringstream lines(text);
    std::string line;
    while (number-- != 0 && std::getline(lines, line))
    {
    }
    return line;
}

bool IsGoodUpTo(const std::string& text, std::size_t line)
{
    try
    {
        (void)toml::parse(text);
        return true;
    }
    catch (const toml::parse_error& error)
    {
        return error.source().begin.line > line;
    }
}

// The line with its value in quotes, if that is what it lacks; else empty.
std::string InQuotes(const std::string& text, std::size_t number)
{
    const std::string line = LineOf(text, number);
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos)
    {
        return "";
    }
    const std::string value = line.substr(equals + 1, line.find(" #") - equals - 1);
    const std::string quoted = Trimmed(line.substr(0, equals)) + " = \"" + Trimmed(value) + "\"";
    return IsGoodUpTo(WithLine(text, number, quoted), number) ? quoted : "";
}

[[noreturn]] void RefuseToml(const toml::parse_error& error, const std::string& text)
{
    const std::size_t line = error.source().begin.line;
    const std::string quoted = InQuotes(text, line);
    Refuse(line,
           Printable(error.description()) + (quoted.empty() ? "" : "; write " + Printable(quoted)));
}

// Numbers and the words true and false mean the same in quotes.
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
    Refuse(node.source().begin.line,
           Shown(name) + " is neither a text, nor a whole number, nor true or false");
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

// Hands each setting to the chosen command in the parser's own terms.
class SettingsFormat final : public CLI::ConfigBase
{
public:
    explicit SettingsFormat(const CLI::App& program) : m_program(program) {}

    std::vector<CLI::ConfigItem> from_config(std::istream& input) const override
    {
        try
        {
            return Items(ReadSettings(input));
        }
        catch (const ExitError& error)
        {
            const auto path = m_program.get_config_ptr()->as<std::string>();
            throw ExitError(kExitArguments, "--config " + Printable(path) + ", " + error.what());
        }
    }

private:
    std::vector<CLI::ConfigItem> Items(const std::vector<Setting>& settings) const
    {
        std::vector<CLI::ConfigItem> ofCommand;
        std::vector<CLI::ConfigItem> ofAll;
        for (const Setting& setting : settings)
        {
            Sort(setting, setting.section.empty() ? ofAll : ofCommand);
        }
        // The first setting of an option counts.
        ofCommand.insert(ofCommand.end(), ofAll.begin(), ofAll.end());
        return ofCommand;
    }

    void Sort(const Setting& setting, std::vector<CLI::ConfigItem>& sorted) const
    {
        bool known = false;
        for (const CLI::App* command : m_program.get_subcommands(nullptr))
        {
            const CLI::Option* const option = command->get_option_no_throw("--" + setting.name);
            const bool meant = setting.section.empty() || setting.section == command->get_name();
            if (meant && option != nullptr && option->get_configurable())
            {
                known = true;
                const bool isFlag = option->get_expected_max() == 0;
                if (command->parsed() && IsSet(setting, isFlag))
                {
                    CLI::ConfigItem item;
                    item.parents = {command->get_name()};
                    item.name = setting.name;
                    item.inputs = {setting.value};
                    sorted.push_back(item);
                }
            }
        }
        if (!known)
        {
            RefuseUnknown(setting);
        }
    }

    [[noreturn]] void RefuseUnknown(const Setting& setting) const
    {
        std::vector<std::string> names;
        for (const CLI::App* command : m_program.get_subcommands(nullptr))
        {
            for (const CLI::Option* option : command->get_options())
            {
                if (setting.section.empty() || setting.section == command->get_name())
                {
                    names.push_back(option->get_single_name());
                }
            }
        }
        Refuse(setting.line,
               (setting.section.empty() ? "no command" : "no command " + Shown(setting.section)) +
                   " has an option " + Shown(setting.name) + Suggestion(setting.name, names));
    }

    // A flag that is false is as good as one that is not there. Any other value is a mistake: an
    // empty one may come of a template, and shall switch nothing off.
    static bool IsSet(const Setting& setting, bool isFlag)
    {
        if (isFlag && setting.value != "true" && setting.value != "false")
        {
            Refuse(setting.line, setting.name + " is true or false, not " + Shown(setting.value));
        }
        return !isFlag || setting.value == "true";
    }

    const CLI::App& m_program;
};

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

void AddSettingsFile(CLI::App& program)
{
    program.config_formatter(std::make_shared<SettingsFormat>(program));
    program.set_config("--config", "", "Read options from this file; see the manual page")
        ->check(CLI::Validator([](const std::string& value)
                               { return value.empty() ? std::string("Value is empty") : ""; },
                               ""))
        ->type_name("FILE");
}

}  // namespace corpdir_tool
