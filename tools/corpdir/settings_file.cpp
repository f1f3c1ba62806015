#include "settings_file.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "failure.h"
#include "text.h"

namespace corpdir_tool
{

namespace
{

// Reads the file as the parser's own format does, and hands each setting to the chosen command.
class SettingsFormat final : public CLI::ConfigTOML
{
public:
    explicit SettingsFormat(const CLI::App& program) : m_program(program) {}

    std::vector<CLI::ConfigItem> from_config(std::istream& input) const override
    {
        std::vector<CLI::ConfigItem> ofCommand;
        std::vector<CLI::ConfigItem> ofAll;
        for (CLI::ConfigItem& item : CLI::ConfigTOML::from_config(input))
        {
            if (item.name != "++" && item.name != "--")  // begin and end of a section
            {
                Sort(item, ofCommand, ofAll);
            }
        }
        // The first setting of an option counts.
        ofCommand.insert(ofCommand.end(), ofAll.begin(), ofAll.end());
        return ofCommand;
    }

private:
    void Sort(CLI::ConfigItem& item, std::vector<CLI::ConfigItem>& ofCommand,
              std::vector<CLI::ConfigItem>& ofAll) const
    {
        const bool sectioned = !item.parents.empty();
        bool known = false;
        for (const CLI::App* command : m_program.get_subcommands(nullptr))
        {
            if ((sectioned && item.parents != std::vector<std::string>{command->get_name()}) ||
                command->get_option_no_throw("--" + item.name) == nullptr)
            {
                continue;
            }
            known = true;
            if (command->parsed())
            {
                CLI::ConfigItem own = item;
                own.parents = {command->get_name()};
                (sectioned ? ofCommand : ofAll).push_back(own);
            }
        }
        if (!known)
        {
            throw Failure(EXIT_ARGUMENTS, "--config: no command has an option '" +
                                              Printable(item.fullname()) + "'");
        }
    }

    const CLI::App& m_program;
};

}  // namespace

void AddSettingsFile(CLI::App& program)
{
    program.config_formatter(std::make_shared<SettingsFormat>(program));
    program.set_config("--config", "", "Read options from this file; see the manual page")
        ->type_name("FILE");
}

}  // namespace corpdir_tool
