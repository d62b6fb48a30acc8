// control_commands.cpp - "zelisp-cam get|set -c N CONTROL [VALUE...]": one
// control of one camera by its readable name.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "camera_handle.h"
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
    std::string help = "Control name. Values:";
    for (const Control &control : controls())
        help += std::string("\n  ") + control.name + ": " + control.values;
    return help;
}

int run_get(const ControlOptions &options)
{
    const Control *control = find_control(options.control);
    if (control->read == nullptr)
        return report_usage(options.control + " can only be set: " + control->values);

    CameraHandle camera;
    int result = camera.open(options.camera, options.mode);
    if (result != ISP_OK)
        return report_failure("camera " + std::to_string(options.camera), result);

    std::string value;
    result = control->read(camera.get(), &value);
    if (result != ISP_OK)
        return report_failure("camera " + std::to_string(options.camera) + ": reading " + control->name, result);
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
        if (!parse_control_value(options.values[i], &values[i]))
            return report_usage("'" + options.values[i] + "' is not a value for " + control->name + ": " +
                                control->values);
    }

    CameraHandle camera;
    int result = camera.open(options.camera, options.mode);
    if (result != ISP_OK)
        return report_failure("camera " + std::to_string(options.camera), result);

    result = control->write(camera.get(), values.data());
    if (result != ISP_OK) {
        std::string context = "camera " + std::to_string(options.camera) + ": setting " + control->name;
        if (result == ISP_ERR_INVALID)
            context += " (" + std::string(control->values) + ")";
        return report_failure(context, result);
    }
    // Read the value back: the driver may keep something else than what
    // was sent, and this is what the camera now uses.
    if (control->read == nullptr)
        return kExitOk;
    std::string value;
    result = control->read(camera.get(), &value);
    if (result != ISP_OK)
        return report_failure("camera " + std::to_string(options.camera) + ": reading " + control->name + " back",
                              result);
    printf("%s: %s\n", control->name, value.c_str());
    return kExitOk;
}

CLI::App *add_control_command(CLI::App &app, const char *name, const char *description,
                              const std::shared_ptr<ControlOptions> &options)
{
    CLI::App *command = app.add_subcommand(name, description);
    command->add_option("-c,--camera", options->camera, "Camera number")->required()->check(CLI::Range(0, 11));
    command->add_option("--mode", options->mode, "Open mode: 1 (/dev/videoN) or 2 (/dev/video<N+12>)")
        ->check(CLI::IsMember({1, 2}))
        ->capture_default_str();
    command->add_option("control", options->control, control_help())
        ->required()
        ->check(CLI::IsMember(control_names()));
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
    set->add_option("values", options->values, "The control's value(s), as listed under CONTROL");
    set->callback([options, status] { *status = run_set(*options); });
}

} // namespace zcam
