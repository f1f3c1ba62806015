#include "cli/settings_file.h"

#include <errno.h>
#include <toml++/toml.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
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
    Refuse(node.source().begin.line, Shown(name) + " must be a string, an integer, true or false");
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

// False for a flag that is switched off, and for the default of --ca.
bool HasEffect(const std::string& name, const std::string& value)
{
    return value != "false" && (name != "ca" || value != "system");
}

bool IsGiven(const CLI::App& command, const std::string& name)
{
    const CLI::Option* const option = command.get_option_no_throw("--" + name);
    return option != nullptr &&
           std::any_of(option->results().begin(), option->results().end(),
                       [&name](const std::string& value) { return HasEffect(name, value); });
}

// Passes each setting to the chosen command, as an item of the parser. Called after the command
// line has been read.
class SettingsFormat final : public CLI::ConfigBase
{
public:
    explicit SettingsFormat(const CLI::App& program) : m_program(program) {}

    std::vector<CLI::ConfigItem> from_config(std::istream& input) const override
    {
        const bool given = m_program.get_config_ptr()->count() != 0;
        if (given && IsExcluded())
        {
            throw ExitError(kExitArguments, "--config and --no-config exclude each other");
        }
        if (IsExcluded() || OnlyPrints())
        {
            return {};
        }
        try
        {
            return Items(ReadSettings(input));
        }
        catch (const ExitError& error)
        {
            const std::string problem = Path() + ", " + error.what();
            if (m_program.got_subcommand("ciphers"))
            {
                m_used.notices.push_back(problem);
                return {};
            }
            throw ExitError(kExitArguments, (given ? "--config " : "") + problem);
        }
    }

    UsedSettings Used() const
    {
        UsedSettings used = m_used;
        const auto path = m_program.get_config_ptr()->as<std::string>();
        used.path = Path();
        // The parser ignores a default file that cannot be opened.
        if (!IsExcluded() && access(path.c_str(), R_OK) != 0 && errno != ENOENT)
        {
            used.notices.push_back(Path() + " is not used: " + SystemMessage(errno));
        }
        return used;
    }

private:
    // Help or version is asked for.
    bool OnlyPrints() const
    {
        const std::vector<CLI::App*> commands = m_program.get_subcommands();
        return m_program.get_version_ptr()->count() != 0 ||
               m_program.get_help_ptr()->count() != 0 ||
               std::any_of(commands.begin(), commands.end(),
                           [](const CLI::App* command)
                           { return command->get_help_ptr()->count() != 0; });
    }

    bool IsExcluded() const
    {
        return m_program.get_option("--no-config")->count() != 0;
    }

    std::string Path() const
    {
        return Printable(m_program.get_config_ptr()->as<std::string>());
    }

    // The option of the command line that rules out this setting; empty when there is none.
    static std::string RuledOutBy(const CLI::App& command, const Setting& setting)
    {
        for (const auto& [one, other] : kConflicts)
        {
            const std::string opposite = setting.name == one     ? other
                                         : setting.name == other ? one
                                                                 : "";
            if (!opposite.empty() && HasEffect(setting.name, setting.value) &&
                IsGiven(command, opposite) && !IsGiven(command, setting.name))
            {
                return "--" + opposite;
            }
        }
        return "";
    }

    std::vector<CLI::ConfigItem> Items(const std::vector<Setting>& settings) const
    {
        std::vector<CLI::ConfigItem> ofCommand;
        std::vector<CLI::ConfigItem> ofAll;
        for (const Setting& setting : settings)
        {
            Sort(setting, setting.section.empty() ? ofAll : ofCommand);
        }
        // The parser takes the first setting of an option.
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
                CheckFlag(setting, option->get_expected_max() == 0);
                if (command->parsed())
                {
                    Add(*command, setting, sorted);
                }
            }
        }
        if (!known)
        {
            RefuseUnknown(setting);
        }
    }

    void Add(const CLI::App& command, const Setting& setting,
             std::vector<CLI::ConfigItem>& sorted) const
    {
        const std::string opposite = RuledOutBy(command, setting);
        if (!opposite.empty())
        {
            m_used.notices.push_back("the setting '" + setting.name + "' of " + Path() +
                                     " is not used, because the command line has " + opposite);
            return;
        }
        CLI::ConfigItem item;
        item.parents = {command.get_name()};
        item.name = setting.name;
        item.inputs = {setting.value};
        std::vector<std::string>& names = m_used.names;
        if (command.count("--" + setting.name) == 0 &&
            std::find(names.begin(), names.end(), setting.name) == names.end())
        {
            names.push_back(setting.name);
        }
        sorted.push_back(item);
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
        Refuse(setting.line, (setting.section.empty()
                                  ? "no command has an option "
                                  : "section [" + Printable(setting.section) + "] has no option ") +
                                 Shown(setting.name) + Suggestion(setting.name, names));
    }

    // Any value of a flag but true and false is a mistake: an empty one may come from a template,
    // and must not switch a protection off.
    static void CheckFlag(const Setting& setting, bool isFlag)
    {
        if (isFlag && setting.value != "true" && setting.value != "false")
        {
            Refuse(setting.line,
                   setting.name + " must be true or false, not " + Shown(setting.value));
        }
    }

    const CLI::App& m_program;
    // The parser reads through a constant object.
    mutable UsedSettings m_used;
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

CLI::Validator NotEmpty()
{
    return CLI::Validator([](const std::string& value)
                          { return value.empty() ? std::string("Value is empty") : std::string(); },
                          "");
}

void AddSettingsFile(CLI::App& program, const std::string& defaultPath,
                     std::function<void(const UsedSettings& used)> use)
{
    const auto format = std::make_shared<SettingsFormat>(program);
    program.config_formatter(format);
    program.set_config("--config", defaultPath, "Read options from this file; see the manual page")
        ->check(NotEmpty())
        ->type_name("FILE");
    program.add_flag("--no-config", "Read no settings file");
    program.parse_complete_callback([format, use = std::move(use)] { use(format->Used()); });
}

}  // namespace corpdir_tool
