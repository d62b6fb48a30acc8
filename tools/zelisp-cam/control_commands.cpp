// control_commands.cpp - "zelisp-cam get|set -c N CONTROL [VALUE...]": one
// control of one camera by its readable name.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "camera_handle.h"
#include "cli_checks.h"
#include "commands.h"
#include "controls.h"
#include "tool_errors.h"
#include "zelisp.h"

namespace zcam {
namespace {

struct ControlOptions {
    int camera = 0;
    int mode = 1;
    std::string control;
    std::vector<std::string> values;
};

std::string control_help()
{
    std::string help = "The control, one of:";
    for (const Control &control : controls())
        help += std::string("\n  ") + control.name + ": " + control.values;
    return help;
}

// The values as the driver receives them: the manual exposure words and
// white-balance gains go out as their low 16 bits, a cut the library makes
// without a word, so the tool names every value it changed.
std::string sent_text(const Control &control, const std::vector<uint32_t> &values)
{
    std::string text, cut;
    for (uint32_t value : values) {
        uint32_t sent = control.low_16_bits ? (value & 0xffffu) : value;
        text += (text.empty() ? "" : " ") + std::to_string(sent);
        if (sent != value)
            cut += (cut.empty() ? "" : ", ") + std::to_string(value) + " as " + std::to_string(sent);
    }
    if (!cut.empty())
        text += "; only the low 16 bits of each are sent: " + cut;
    return text;
}

// Why a value read back differs from the one set, where the library says so.
std::string read_back_note(const Control &control, const std::vector<uint32_t> &values, const std::string &read)
{
    if (std::string(control.name) == "aec" && values[0] > 1 && read == "1")
        return "the driver holds exposure mode " + std::to_string(values[0]) +
               "; the library reads every mode other than 0 (auto) back as 1";
    return "";
}

int run_get(const ControlOptions &options)
{
    const Control *control = find_control(options.control);
    if (control->read == nullptr)
        return report_usage(options.control + " can only be set: " + control->values);

    CameraHandle camera;
    int status = camera.open(options.camera, options.mode);
    if (status != kExitOk)
        return status;

    std::string value;
    CallResult read = call_library([&] { return control->read(camera.get(), &value); });
    if (read.result != ISP_OK)
        return report_failure(camera_context(options.camera), std::string("reading ") + control->name, read);
    printf("%s: %s\n", control->name, value.c_str());
    return kExitOk;
}

int run_set(const ControlOptions &options)
{
    const Control *control = find_control(options.control);
    if (control->write == nullptr)
        return report_usage(options.control + " can only be read");
    if (int(options.values.size()) != control->set_count)
        return report_usage(options.control + " takes " + std::to_string(control->set_count) + " value" +
                            (control->set_count == 1 ? "" : "s") + ": " + control->values);

    std::vector<uint32_t> values(options.values.size());
    for (size_t i = 0; i < values.size(); ++i) {
        if (!parse_control_value(options.values[i], &values[i]) || values[i] > control->max)
            return report_usage("'" + options.values[i] + "' is not a value for " + control->name + ": " +
                                control->values);
    }

    CameraHandle camera;
    int status = camera.open(options.camera, options.mode);
    if (status != kExitOk)
        return status;

    CallResult written = call_library([&] { return control->write(camera.get(), values.data()); });
    if (written.result != ISP_OK)
        return report_failure(camera_context(options.camera), std::string("setting ") + control->name, written);
    // Read the value back: the driver may keep something else than what
    // was sent, and this is what the camera now uses.
    if (control->read == nullptr) {
        // Nothing to read back: say what was sent, as the driver got it.
        printf("%s: %s (sent; the driver cannot be asked back)\n", control->name, sent_text(*control, values).c_str());
        return kExitOk;
    }
    std::string value;
    CallResult read = call_library([&] { return control->read(camera.get(), &value); });
    if (read.result != ISP_OK)
        return report_failure(camera_context(options.camera), std::string("reading ") + control->name + " back", read);
    printf("%s: %s\n", control->name, value.c_str());
    std::string note = read_back_note(*control, values, value);
    if (!note.empty())
        printf("note: %s\n", note.c_str());
    return kExitOk;
}

CLI::App *add_control_command(CLI::App &app, const char *name, const char *description,
                              const std::shared_ptr<ControlOptions> &options)
{
    CLI::App *command = app.add_subcommand(name, description);
    command->add_option("-c,--camera", options->camera, "The camera, 0 to 11. Required.")
        ->type_name("N")
        ->required()
        ->check(camera_number());
    command->add_option("--mode", options->mode, "Open mode 1 (/dev/videoN; the default) or 2 (/dev/video<N+12>).")
        ->type_name("M")
        ->check(one_of({"1", "2"}, "an open mode"));
    command->add_option("control", options->control, control_help())
        ->required()
        ->check(one_of(control_names(), "a control"));
    return command;
}

} // namespace

void add_get_command(CLI::App &app, int *status)
{
    auto options = std::make_shared<ControlOptions>();
    CLI::App *get = add_control_command(app, "get", "Read one control of a camera and print \"NAME: VALUE\".", options);
    get->callback([options, status] { *status = run_get(*options); });
}

void add_set_command(CLI::App &app, int *status)
{
    auto options = std::make_shared<ControlOptions>();
    CLI::App *set = add_control_command(
        app, "set",
        "Set one control of a camera and print \"NAME: VALUE\" as read back. Values are decimal, 0x hexadecimal, "
        "or on/off.",
        options);
    set->add_option("values", options->values, "The control's values, as listed above.");
    set->callback([options, status] { *status = run_set(*options); });
}

} // namespace zcam
