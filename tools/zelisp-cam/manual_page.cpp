// manual_page.cpp - the manual page in roff, from the commands' own help.
#include "manual_page.h"

#include <sstream>

namespace zcam {
namespace {

// Text as roff prints it: backslashes and hyphens escaped (a plain "-" may
// be set as a typographic hyphen), a line that would start with a control
// character protected, the text's own line breaks kept.
std::string roff(const std::string &text)
{
    std::string out;
    bool line_start = true;
    for (char c : text) {
        if (line_start && (c == '.' || c == '\''))
            out += "\\&";
        line_start = false;
        if (c == '\\') {
            out += "\\e";
        } else if (c == '-') {
            out += "\\-";
        } else if (c == '\n') {
            out += "\n.br\n";
            line_start = true;
        } else {
            out += c;
        }
    }
    return out;
}

// "-c,--camera" as "\-c, \-\-camera", in bold, then the value's name in italics.
std::string option_heading(const CLI::Option &option)
{
    if (!option.nonpositional())
        return "\\fI" + roff(option.get_name()) + "\\fR";
    std::string names = option.get_name(false, true), heading = "\\fB";
    for (char c : names)
        heading += c == ',' ? std::string("\\fR, \\fB") : roff(std::string(1, c));
    heading += "\\fR";
    if (option.get_type_size() != 0)
        heading += " \\fI" + roff(option.get_type_name()) + "\\fR";
    return heading;
}

bool listed(const CLI::Option &option)
{
    // Hidden options have no group; help is said once, for the program.
    return !option.get_group().empty() && option.get_name(false, true).find("--help") == std::string::npos;
}

void options_of(std::ostringstream &page, const CLI::App &command, bool with_help)
{
    for (const CLI::Option *option : command.get_options()) {
        if (option->get_group().empty() || (!with_help && !listed(*option)))
            continue;
        page << ".TP\n" << option_heading(*option) << "\n" << roff(option->get_description()) << "\n";
    }
}

void command_section(std::ostringstream &page, const std::string &program, const CLI::App &command)
{
    page << ".SS \"" << program << " " << command.get_name() << "\"\n";
    page << ".B " << program << " " << command.get_name() << "\n[\\fIoptions\\fR]";
    for (const CLI::Option *option : command.get_options())
        if (!option->nonpositional())
            page << " " << (option->get_required() ? "" : "[") << "\\fI" << roff(option->get_name()) << "\\fR"
                 << (option->get_items_expected_max() > 1 ? "..." : "") << (option->get_required() ? "" : "]");
    page << "\n.PP\n" << roff(command.get_description()) << "\n";
    options_of(page, command, false);
}

} // namespace

std::string manual_page(const CLI::App &app, const std::string &summary, const std::string &version,
                        const std::vector<ManualSection> &sections)
{
    const std::string program = app.get_name();
    std::string upper;
    for (char c : program)
        upper += char(toupper(static_cast<unsigned char>(c)));
    std::ostringstream page;
    page << ".TH " << upper << " 1 \"\" \"" << roff(version) << "\" \"User Commands\"\n";
    page << ".SH NAME\n" << program << " \\- " << roff(summary) << "\n";
    page << ".SH SYNOPSIS\n.B " << program << "\n\\fIcommand\\fR [\\fIoptions\\fR]\n";
    page << ".br\n.B " << program << "\n\\fB\\-\\-help\\fR | \\fB\\-\\-help\\-all\\fR | \\fB\\-\\-version\\fR\n";
    page << ".SH DESCRIPTION\n" << roff(app.get_description()) << "\n";
    options_of(page, app, true);
    page << ".SH COMMANDS\n";
    for (const CLI::App *command : app.get_subcommands({}))
        command_section(page, program, *command);
    for (const ManualSection &section : sections) {
        page << ".SH \"" << section.title << "\"\n";
        for (size_t i = 0; i < section.paragraphs.size(); ++i)
            page << (i > 0 ? ".PP\n" : "") << roff(section.paragraphs[i]) << "\n";
    }
    return page.str();
}

} // namespace zcam
