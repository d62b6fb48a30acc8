// help_format.cpp - option names in the help, and where the guide is.
#include "help_format.h"

#include <unistd.h>

#include <filesystem>
#include <sstream>

namespace zcam {

namespace {

constexpr size_t kTerminalWidth = 80;

} // namespace

std::string wrap(const std::string &text, size_t width)
{
    std::string wrapped, paragraph, word;
    std::istringstream paragraphs(text);
    bool first = true;
    while (std::getline(paragraphs, paragraph)) {
        if (!first)
            wrapped += '\n';
        first = false;
        std::istringstream words(paragraph);
        std::string line;
        while (words >> word) {
            if (!line.empty() && line.size() + 1 + word.size() > width) {
                wrapped += line + '\n';
                line.clear();
            }
            line += (line.empty() ? "" : " ") + word;
        }
        wrapped += line;
    }
    return wrapped;
}

std::string HelpFormatter::make_option_opts(const CLI::Option *option) const
{
    // A positional argument's name is its placeholder already; a flag has
    // no value. Defaults, ranges and exclusions are in the sentence.
    if (!option->nonpositional() || option->get_type_size() == 0)
        return "";
    return " " + option->get_type_name();
}

std::string HelpFormatter::make_option_desc(const CLI::Option *option) const
{
    return wrap(option->get_description(), kTerminalWidth - get_column_width());
}

std::string HelpFormatter::make_subcommand(const CLI::App *command) const
{
    std::stringstream out;
    CLI::detail::format_help(out, command->get_display_name(true),
                             wrap(command->get_description(), kTerminalWidth - get_column_width()), get_column_width());
    return out.str();
}

std::string HelpFormatter::make_description(const CLI::App *app) const
{
    const std::string &description = app->get_description();
    return description.empty() ? "" : wrap(description, kTerminalWidth) + "\n";
}

std::shared_ptr<HelpFormatter> help_formatter()
{
    static const std::shared_ptr<HelpFormatter> formatter = [] {
        auto made = std::make_shared<HelpFormatter>();
        made->column_width(26);
        return made;
    }();
    return formatter;
}

std::string guide_path()
{
    namespace fs = std::filesystem;
    std::error_code error;
    fs::path program = fs::read_symlink("/proc/self/exe", error);
    if (!error) {
        fs::path guide = (program.parent_path() / ZELISP_BIN_TO_DOC / "zelisp-cam.md").lexically_normal();
        if (access(guide.c_str(), R_OK) == 0)
            return guide.string();
    }
    return ZELISP_DOC_DIR "/zelisp-cam.md";
}

} // namespace zcam
