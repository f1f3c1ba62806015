#include "settings_file.h"

#include <algorithm>
#include <memory>

#include "failure.h"
#include "hints.h"
#include "text.h"

namespace corpdir_tool
{

namespace
{

const char BLANKS[] = " \t\r";

constexpr std::size_t MAX_FILE = 1 << 20;

// Some editors begin a file with one.
const char BYTE_ORDER_MARK[] = "\xef\xbb\xbf";

[[noreturn]] void Refuse(std::size_t line, const std::string& problem)
{
    throw Failure(EXIT_ARGUMENTS, "line " + std::to_string(line) + ": " + problem);
}

// For messages: a file that is none of settings may have anything in it.
std::string Shown(const std::string& text)
{
    constexpr std::size_t LONGEST = 40;
    return "'" + Printable(text.substr(0, LONGEST)) + (text.size() > LONGEST ? "..." : "") + "'";
}

std::string Trimmed(const std::string& text)
{
    const std::size_t first = text.find_first_not_of(BLANKS);
    if (first == std::string::npos)
    {
        return {};
    }
    return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

std::string WithoutMark(const std::string& line, std::size_t number)
{
    const bool marked = number == 1 && line.rfind(BYTE_ORDER_MARK, 0) == 0;
    return marked ? line.substr(sizeof BYTE_ORDER_MARK - 1) : line;
}

bool IsComment(const std::string& text)
{
    return text.empty() || text.front() == '#';
}

// The value of a text that begins with a quote.
std::string Unquoted(const std::string& text, std::size_t line)
{
    const std::size_t end = text.find(text.front(), 1);
    if (end == std::string::npos)
    {
        Refuse(line, "the quote " + text.substr(0, 1) + " is not closed");
    }
    const std::string rest = Trimmed(text.substr(end + 1));
    if (!IsComment(rest))
    {
        Refuse(line, Shown(rest) + " stands behind the closing quote");
    }
    return text.substr(1, end - 1);
}

std::string ValueOf(const std::string& text, std::size_t line)
{
    if (!text.empty() && (text.front() == '"' || text.front() == '\''))
    {
        return Unquoted(text, line);
    }
    std::size_t end = text.find('#');
    while (end != std::string::npos && end != 0 &&
           std::string(BLANKS).find(text[end - 1]) == std::string::npos)
    {
        end = text.find('#', end + 1);
    }
    std::string value = Trimmed(text.substr(0, end));
    if (value.find_first_of("\"'") != std::string::npos)
    {
        Refuse(line, "a value with quotes in it has to stand in the other kind of quotes");
    }
    return value;
}

std::string SectionOf(const std::string& text, std::size_t line)
{
    const std::size_t end = text.find(']');
    if (end == std::string::npos || !IsComment(Trimmed(text.substr(end + 1))))
    {
        Refuse(line, Shown(text) + " is not a section such as [watch]");
    }
    return Trimmed(text.substr(1, end - 1));
}

Setting SettingOf(const std::string& text, const std::string& section, std::size_t line)
{
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos)
    {
        Refuse(line, Shown(text) + " is not of the form 'option = value'");
    }
    return {section, Trimmed(text.substr(0, equals)),
            ValueOf(Trimmed(text.substr(equals + 1)), line), line};
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
        catch (const Failure& failure)
        {
            const auto path = m_program.get_config_ptr()->as<std::string>();
            throw Failure(EXIT_ARGUMENTS, "--config " + Printable(path) + ", " + failure.what());
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
    std::vector<Setting> settings;
    std::string section;
    std::string line;
    std::size_t number = 1;
    for (std::size_t size = 0; std::getline(input, line); ++number)
    {
        size += line.size();
        if (size > MAX_FILE)
        {
            Refuse(number, "the file is too large for one of settings");
        }
        const std::string text = Trimmed(WithoutMark(line, number));
        if (IsComment(text))
        {
            continue;
        }
        if (text.front() == '[')
        {
            section = SectionOf(text, number);
            continue;
        }
        Setting setting = SettingOf(text, section, number);
        const auto same = [&setting](const Setting& other)
        { return other.section == setting.section && other.name == setting.name; };
        const auto first = std::find_if(settings.begin(), settings.end(), same);
        if (first != settings.end())
        {
            Refuse(number, Shown(setting.name) + " stands on line " + std::to_string(first->line) +
                               " already; several values are separated by ','");
        }
        settings.push_back(std::move(setting));
    }
    if (!input.eof())
    {
        Refuse(number, "the file cannot be read any further");
    }
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
