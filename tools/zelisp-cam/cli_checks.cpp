// cli_checks.cpp - value checks and parse-error sentences of zelisp-cam.
#include "cli_checks.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace zcam {
namespace {

bool read_whole_number(const std::string &text, long long *value)
{
    if (text.empty() || text[0] == '+' || isspace(static_cast<unsigned char>(text[0])))
        return false;
    errno = 0;
    char *end = nullptr;
    *value = strtoll(text.c_str(), &end, 0);
    return errno == 0 && *end == '\0';
}

std::string join(const std::vector<std::string> &words, const std::string &last_separator)
{
    std::string text;
    for (size_t i = 0; i < words.size(); ++i) {
        if (i > 0)
            text += i + 1 == words.size() ? last_separator : ", ";
        text += words[i];
    }
    return text;
}

std::string command_names(const CLI::App &app)
{
    std::vector<std::string> names;
    for (const CLI::App *command : app.get_subcommands({}))
        names.push_back(command->get_name());
    return join(names, " and ");
}

// The first word on the command line that is not an option: what the user
// meant as the command.
std::string first_word(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i)
        if (argv[i][0] != '-')
            return argv[i];
    return "";
}

bool starts_with(const std::string &text, const std::string &prefix)
{
    return text.rfind(prefix, 0) == 0;
}

} // namespace

CLI::Validator whole_number(long long min, long long max)
{
    std::string range = std::to_string(min) + " to " + std::to_string(max);
    return CLI::Validator(
        [min, max, range](std::string &text) -> std::string {
            long long value;
            if (!read_whole_number(text, &value) || value < min || value > max)
                return "a whole number from " + range + " is needed, got '" + text + "'";
            return "";
        },
        "");
}

CLI::Validator camera_number()
{
    return CLI::Validator(
        [](std::string &text) -> std::string {
            long long value;
            if (!read_whole_number(text, &value) || value < 0 || value > 11)
                return "cameras are numbered 0 to 11, got '" + text + "'";
            return "";
        },
        "");
}

CLI::Validator capture_seconds()
{
    // A millisecond is the shortest time the frame loop can tell apart; a
    // shorter run would end before its first frame and say nothing.
    return CLI::Validator(
        [](std::string &text) -> std::string {
            errno = 0;
            char *end = nullptr;
            double value = text.empty() ? 0 : strtod(text.c_str(), &end);
            if (text.empty() || errno != 0 || *end != '\0' || !std::isfinite(value) || value < 0.001 ||
                value > 31536000)
                return "a number of seconds from 0.001 to 31536000 (a year) is needed, got '" + text + "'";
            return "";
        },
        "");
}

CLI::Validator one_of(const std::vector<std::string> &words, const std::string &what)
{
    std::string choices = join(words, " or ");
    return CLI::Validator(
        [words, choices, what](std::string &text) -> std::string {
            for (const std::string &word : words)
                if (text == word)
                    return "";
            return "'" + text + "' is not " + what + "; use " + choices;
        },
        "");
}

std::string parse_error_sentence(const CLI::App &app, const CLI::ParseError &error, int argc, char **argv)
{
    std::string what = error.what();
    std::string word = first_word(argc, argv);
    bool command_given = false;
    for (const CLI::App *command : app.get_subcommands({}))
        command_given = command_given || command->get_name() == word;
    if (error.get_name() == "RequiredError" && starts_with(what, "A subcommand")) {
        if (!word.empty())
            return "'" + word + "' is not a command; the commands are " + command_names(app);
        return "a command is needed; the commands are " + command_names(app);
    }
    if (error.get_name() == "ExtrasError") {
        if (!command_given && !word.empty())
            return "'" + word + "' is not a command; the commands are " + command_names(app);
        std::string extras = what.substr(what.find(':') + 1);
        return "unexpected argument" + std::string(extras.find(' ', 1) != std::string::npos ? "s" : "") + ":" + extras;
    }
    if (error.get_name() == "ExcludesError") {
        // "--seconds excludes --frames"
        size_t at = what.find(" excludes ");
        if (at != std::string::npos)
            return what.substr(0, at) + " and " + what.substr(at + 10) + " cannot be used together";
    }
    if (error.get_name() == "RequiredError") {
        size_t at = what.find(" is required");
        if (at != std::string::npos)
            return what.substr(0, at) + " must be given";
    }
    if (error.get_name() == "ArgumentMismatch") {
        // "--trigger: 0 required MODE [P1 P2 P3] missing" and the like
        size_t colon = what.find(':');
        if (colon != std::string::npos)
            return what.substr(0, colon) + ": a value is missing or there are too many";
    }
    // Validation errors come as "--option: <our sentence>" already.
    return what;
}

} // namespace zcam
