// vexa-unit: runs the service, or any program, on a virtual unit, and controls such a unit.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "check/CheckCommand.h"
#include "model/Faults.h"
#include "model/Settings.h"
#include "run/ControlCommand.h"
#include "run/DevicesCommand.h"
#include "run/PlayCommand.h"
#include "run/RunCommand.h"
#include "run/UserError.h"
#include "testkit/Arguments.h"
#include "testkit/Completion.h"
#include "testkit/StandardOutput.h"

namespace {

using namespace vexa::unit;

int Refuse(const std::string& why) {
    std::fprintf(stderr, "vexa-unit: %s\n", why.c_str());
    return kUserErrorStatus;
}

// Each Add... function adds a command with its options. When the command is given, it runs and
// stores its exit status in `status`.

void AddRunCommand(CLI::App& app, RunOptions& options, int& status) {
    CLI::App* const run =
        app.add_subcommand("run", "Run the service, or another program, on a virtual unit");
    run->add_option("--scenario", options.scenario,
                    "Description of the unit: a name from vexa-unit scenarios, or a file")
        ->option_text("NAME|FILE");
    run->add_option(
           "--dir", options.folder,
           "Folder for the unit's sockets, host.sock and control.sock (default: a temporary "
           "one)")
        ->option_text("DIR");
    run->add_option(
           "--link", options.link,
           "How hosts reach the unit: socket, the stand-in of the node (default), or usb,\n"
           "/dev/zt-usb as vexa-usb serves it")
        ->check(CLI::IsMember({"socket", "usb"}))
        ->option_text("socket|usb");
    run->add_option("--vexa", options.vexa,
                    "A unit's own libVEXA.so, in place of the stand-in (with the stand-in node)")
        ->option_text("FILE");
    run->add_option("--vexcri", options.vexcri,
                    "A unit's own libvexcri.so, in place of the stand-in")
        ->option_text("FILE");
    run->add_option("--journal", options.callLog,
                    "Append a line to FILE for each library call (the call log)")
        ->option_text("FILE");
    run->add_flag("--describe", options.describes,
                  "Print the scenario, the devices and the sockets first");
    run->add_option("program", options.program,
                    "Program to run instead of VEXADevMgr, with its arguments, after --")
        ->option_text("PROGRAM ...");
    run->footer(
        "Examples: vexa-unit run --dir build/unit\n"
        "          vexa-unit run --dir /tmp/second --scenario flaky-cable --journal calls.txt\n"
        "          vexa-unit run --vexa ./libVEXA.so --vexcri ./libvexcri.so\n"
        "          vexa-unit run --link usb --scenario /etc/vexa/board.json\n"
        "Exit status: that of the program (128 + n if signal n ended it); 2 if an option\n"
        "cannot be used.");
    run->callback([&options, &status] { status = RunOnUnit(options); });
}

void AddPlayCommand(CLI::App& app, PlayOptions& options, int& status) {
    CLI::App* const play = app.add_subcommand(
        "play", "Play the unit's side of a recording to a host program that connects");
    play->add_option("recording", options.recording, "A recording made with vexa-host record")
        ->required()
        ->option_text("FILE");
    play->add_flag("--pace", options.atPace,
                   "Send frames at their recorded times (default: as fast as the host reads)");
    play->add_option("--patience", options.patience,
                     "Timeout for each request that the host has to send (default: 5s)")
        ->option_text("TIME");
    play->add_option("--dir", options.folder,
                     "Folder for the host socket, host.sock (default: a temporary one)")
        ->option_text("DIR");
    play->footer(
        "A frame is sent once the host has sent as much as it had sent before that frame in the\n"
        "recording. Ends when the host has left after the last record.\n"
        "Example: vexa-unit play failure.pcapng --pace --dir build/unit\n"
        "Exit status: 0 the host sent what is recorded; 1 it did not; 2 the recording cannot be\n"
        "read.");
    play->callback([&options, &status] { status = Play(options); });
}

void AddScenariosCommand(CLI::App& app, bool& schema) {
    CLI::App* const scenarios =
        app.add_subcommand("scenarios", "List the scenarios that come with vexa-unit");
    scenarios->add_flag("--schema", schema, "Print the JSON schema of scenario files instead");
    scenarios->footer("Example: vexa-unit scenarios");
    scenarios->callback([&schema] {
        if (schema) {
            std::fputs(ScenarioSchemaText().c_str(), stdout);
            return;
        }
        for (const auto& [name, description] : ShippedScenarios()) {
            std::printf("%-16s  %s\n", name.c_str(), description.c_str());
        }
    });
}

void AddDevicesCommand(CLI::App& app, DevicesOptions& options, int& status) {
    CLI::App* const devices =
        app.add_subcommand("devices", "List what this machine has that can be a unit's device");
    devices->add_flag("--json", options.json, "Print them as JSON");
    devices->add_flag("--scenario", options.scenario,
                      "Print a scenario with them instead, to start from");
    devices->footer(
        "Sensors of the kernel (IIO), HID devices and serial lines, with the settings that name\n"
        "them in a scenario.\n"
        "Example: vexa-unit devices --scenario >board.json");
    devices->callback([&options, &status] { status = ListDevices(options); });
}

// A subcommand that sends the request `verb`.
CLI::App* AddRequest(CLI::App& ctl, const std::string& name, const std::string& description,
                     ControlRequest& request, const std::string& verb) {
    CLI::App* const command = ctl.add_subcommand(name, description);
    command->callback([&request, verb] { request.verb = verb; });
    return command;
}

// A required argument that becomes the member `key` of the request.
CLI::Option* AddText(CLI::App* command, ControlRequest& request, const std::string& key,
                     const std::string& label, const std::string& description) {
    return command
        ->add_option_function<std::string>(
            label,
            [&request, key](const std::string& text) {
                request.texts.push_back({key, text});
            },
            description)
        ->required()
        ->option_text(" ");
}

CLI::Option* AddSettings(CLI::App* command, ControlRequest& request,
                         const std::string& description) {
    return command->add_option("KEY=VALUE", request.settings, description)->option_text("...");
}

void AddFaultRequests(CLI::App& ctl, ControlRequest& request) {
    CLI::App* const fault = ctl.add_subcommand("fault", "Make calls fail, block or return late");
    fault->require_subcommand(1);
    fault->footer(
        "Examples: vexa-unit ctl fault set VEXA_Device_Stream_Open fail count=1\n"
        "          vexa-unit ctl fault set VEXA_Device_Stream_Write block ms=1000 for=Microphone\n"
        "          vexa-unit ctl fault set node.read fail errno=ENODEV skip=10 count=3\n"
        "          vexa-unit ctl fault set data corrupt for=Accelerometer offset=1\n"
        "          vexa-unit ctl fault clear");
    CLI::App* const set = AddRequest(*fault, "set", "Set a fault", request, "fault.set");
    AddText(set, request, "call", "CALL", "the call; vexa-unit ctl calls lists them all");
    AddText(set, request, "action", "ACTION",
            "fail, block, late; short (node.read, node.write); data (VEXA_Device_Stream_Close);\n"
            "oversize, corrupt (data)");
    AddSettings(set, request, "settings of the fault:");
    set->footer(SettingsHelp("fault", "call action"));

    CLI::App* const clear = AddRequest(*fault, "clear", "Clear one fault, those of a call, or all",
                                       request, "fault.clear");
    clear
        ->add_option_function<std::string>(
            "ID|CALL",
            [&request](const std::string& text) {
                const bool isNumber = text.find_first_not_of("0123456789") == std::string::npos;
                if (isNumber) {
                    request.settings.push_back("id=" + text);
                } else {
                    request.texts.push_back({"call", text});
                }
            },
            "the fault or the call (default: all)")
        ->option_text(" ");
    AddRequest(*fault, "list", "List the faults and how often each hit", request, "fault.list");
}

void AddCableRequests(CLI::App& ctl, ControlRequest& request) {
    CLI::App* const cable = ctl.add_subcommand("cable", "Unplug and plug in the cable");
    cable->require_subcommand(1);
    cable->footer(
        "Examples: vexa-unit ctl cable out\n"
        "          vexa-unit ctl cable flap inMs=2000 outMs=500 times=10");
    for (const bool in : {true, false}) {
        cable
            ->add_subcommand(in ? "in" : "out", in ? "Let hosts plug in"
                                                   : "Disconnect the host and turn new ones away")
            ->callback([&request, in] {
                request.verb = "cable";
                request.settings.push_back(in ? "in=true" : "in=false");
            });
    }
    CLI::App* const flap = cable->add_subcommand("flap", "Let it go out and in by itself");
    AddSettings(flap, request, "settings of the cable:");
    flap->footer(SettingsHelp("cable"));
    flap->callback([&request] {
        request.verb = "cable";
        request.inside = "flap";
    });
}

void AddWaitRequest(CLI::App& ctl, ControlRequest& request) {
    CLI::App* const wait = AddRequest(ctl, "wait", "Wait until conditions hold", request, "wait");
    AddSettings(wait, request, "conditions; all must hold at the same time:")->required();
    AddText(wait, request, "for", "--for", "timeout: 500ms, 5s, 2m or 1h (default: 10s)")
        ->required(false)
        ->option_text("TIME");
    wait->footer(SettingsHelp("wait", "for") +
                 "Examples: vexa-unit ctl wait streaming=Microphone --for 5s\n"
                 "          vexa-unit ctl wait call=VEXA_Device_Stream_Open count=3\n"
                 "          vexa-unit ctl wait host=false closed=Microphone\n"
                 "Exit status: 0 the conditions hold; 3 timeout; 1 and 2 as for all of ctl.");
}

// The options of ctl may follow its commands; their help says so.
void MentionCommonOptions(CLI::App& of) {
    for (CLI::App* const command : of.get_subcommands([](const CLI::App*) { return true; })) {
        const std::string text = command->get_footer();
        command->footer(text + (text.empty() || text.ends_with('\n') ? "" : "\n") +
                        "--dir DIR and --json: as for all of ctl.");
        MentionCommonOptions(*command);
    }
}

void AddCtlCommand(CLI::App& app, ControlOptions& options, int& status) {
    CLI::App* const ctl =
        app.add_subcommand("ctl", "Show the state of a running unit, and change it");
    ctl->require_subcommand(0, 1);
    ctl->fallthrough();  // the options of ctl may follow its commands
    options.folder = DefaultUnitFolder();
    ctl->add_option("--dir", options.folder,
                    "Folder of the unit (default: $VEXA_UNIT_DIR, or else build/unit)")
        ->option_text("DIR");
    ctl->add_flag("--json", options.json, "Print the unit's answer as JSON");
    ctl->add_option("--raw", options.raw,
                    "Send a request in JSON, or with - each line of standard input, and print the\n"
                    "answers")
        ->option_text("JSON|-");
    ctl->footer(
        "Examples: vexa-unit ctl state\n"
        "          vexa-unit ctl --dir /tmp/second detach Microphone\n"
        "          vexa-unit ctl attach Thermocouple type=9 rate=100 blockSize=40\n"
        "          vexa-unit ctl app DAQ silent=true\n"
        "          vexa-unit ctl daq answersSync=false\n"
        "          vexa-unit ctl --raw '{\"request\": \"cable\", \"in\": false}'\n"
        "Exit status: 0 done; 1 the unit refused; 2 wrong usage or no unit; 3 timeout of\n"
        "wait; 6 standard output could not be written.");

    ControlRequest& request = options.request;
    AddRequest(*ctl, "state", "Show everything about the unit", request, "state");
    AddRequest(*ctl, "calls", "List all calls and how often each was made", request, "calls");
    CLI::App* const attach =
        AddRequest(*ctl, "attach", "Attach a device: a known one, perhaps changed, or a new one",
                   request, "attach");
    AddText(attach, request, "name", "NAME", "name of the device");
    AddSettings(attach, request, "settings of the device:");
    attach->footer(SettingsHelp("device", "name attached") +
                   "A new device needs a type. Streams that are open keep their settings.");
    CLI::App* const detach = AddRequest(*ctl, "detach", "Detach a device", request, "detach");
    AddText(detach, request, "name", "NAME", "name of the device");
    AddCableRequests(*ctl, request);
    CLI::App* const application =
        AddRequest(*ctl, "app", "Change the behaviour of an application", request, "app");
    AddText(application, request, "name", "NAME", "DAQ, SPLASH or FGEN");
    AddSettings(application, request, "settings of the application:")->required();
    application->footer(SettingsHelp("application"));
    CLI::App* const daq =
        AddRequest(*ctl, "daq", "Change the behaviour of the acquisition board", request, "daq");
    AddSettings(daq, request, "settings of the board:")->required();
    daq->footer(SettingsHelp("daq", "name"));
    AddFaultRequests(*ctl, request);
    AddWaitRequest(*ctl, request);
    AddRequest(*ctl, "events", "Print events as lines of JSON until the unit ends", request,
               "events")
        ->footer("Example: vexa-unit ctl events | grep --line-buffered '\"cable\"'");

    MentionCommonOptions(*ctl);
    ctl->final_callback([ctl, &options, &status] {
        const bool isRequest = !ctl->get_subcommands().empty();
        if (isRequest == !options.raw.empty()) {
            throw UserError(isRequest ? "ctl takes either a command or --raw"
                                      : "ctl: a command is required (vexa-unit ctl --help)");
        }
        status = ControlUnit(options);
    });
}

void AddCheckCommand(CLI::App& app, CheckOptions& options, int& status) {
    CLI::App* const check = app.add_subcommand(
        "check", "Check the libraries and the node of a real unit before the service runs");
    check
        ->add_option("--vexa", options.vexa,
                     "The unit's libVEXA.so (default: the one that the service would load)")
        ->option_text("FILE");
    check->add_option("--vexcri", options.vexcri, "The unit's libvexcri.so, likewise")
        ->option_text("FILE");
    check->add_option("--node", options.node, "The USB gadget node (default: /dev/zt-usb)")
        ->option_text("FILE");
    check->add_option("--device", options.devices, "Look a device up by name; can be repeated")
        ->option_text("NAME")
        ->allow_extra_args(false);
    check->add_flag("--sessions", options.sessions,
                    "Also open and end a session with each application on the unit");
    check->footer(
        "Opens no device and sends nothing. Stop the service first.\n"
        "Examples: vexa-unit check --device Accelerometer\n"
        "          vexa-unit check --vexa ./libVEXA.so --vexcri ./libvexcri.so --sessions\n"
        "          vexa-unit run -- vexa-unit check     (a virtual unit, to see a good result)\n"
        "Exit status: 0 all is well; 1 something is missing or odd.");
    check->callback([&options, &status] { status = CheckUnit(options); });
}

// `app` as testkit/Arguments.h needs it.
vexa::testkit::Command CommandOf(const CLI::App& app) {
    vexa::testkit::Command command{.name = app.get_name(), .help = app.get_description()};
    for (const CLI::Option* option : app.get_options()) {
        const bool takesValue = option->get_items_expected_min() > 0;
        const auto& value = option->get_option_text();
        if (option->get_positional()) {
            command.arguments.push_back(
                {option->get_name(true), true, value, option->get_description()});
        }
        for (const auto& name : option->get_lnames()) {
            if (name == "help") continue;
            command.options.push_back({"--" + name, takesValue, value, option->get_description()});
        }
    }
    for (const CLI::App* below : app.get_subcommands([](const CLI::App*) { return true; })) {
        command.commands.push_back(CommandOf(*below));
    }
    return command;
}

// The names that an option or an argument stands for; a running unit knows those of its devices.
std::vector<std::string> ValuesOf(const vexa::testkit::Command& command,
                                  const vexa::testkit::Command::Option& option,
                                  const std::vector<std::string>& words) {
    std::vector<std::string> names;
    if (option.name == "--scenario") {
        for (const auto& [name, description] : ShippedScenarios()) names.push_back(name);
    } else if (option.name == "CALL") {
        for (const auto& call : kCalls) names.emplace_back(call.name);
    } else if (command.name == "app") {
        names = {"DAQ", "SPLASH", "FGEN"};
    } else if (option.name == "NAME" || option.name == "--device") {
        const auto given = std::ranges::find(words, "--dir");
        const bool isGiven = given != words.end() && given + 1 != words.end();
        names = DeviceNames(isGiven ? *(given + 1) : "");
    }
    return names;
}

int Parse(CLI::App& app, const std::vector<std::string>& words) {
    const auto program = CommandOf(app);
    if (vexa::testkit::AnswerPackaging(program, words, ValuesOf)) return 0;
    auto arranged = vexa::testkit::Arranged(program, words);
    std::ranges::reverse(arranged);  // as the parser wants them
    try {
        app.parse(arranged);
        return 0;
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        const auto wrong = vexa::testkit::WhatIsWrong(program, words, app.remaining(true));
        return Refuse((wrong.empty() ? error.what() : wrong) + " (vexa-unit --help says more)");
    }
}

int Main(const std::vector<std::string>& words) {
    CLI::App app("Runs VEXADevMgr on a virtual unit: simulated devices, applications and USB link.",
                 "vexa-unit");
    app.set_version_flag("--version", "vexa-unit " VEXA_UNIT_VERSION, "Print the version");
    app.require_subcommand(1);
    app.footer(
        "Examples: vexa-unit run --dir build/unit       (then vexa-host from another terminal)\n"
        "          vexa-unit ctl cable out");
    RunOptions run;
    PlayOptions play;
    ControlOptions control;
    CheckOptions check;
    DevicesOptions devices;
    bool schema = false;
    int status = 0;
    AddRunCommand(app, run, status);
    AddScenariosCommand(app, schema);
    AddDevicesCommand(app, devices, status);
    AddCtlCommand(app, control, status);
    AddCheckCommand(app, check, status);
    AddPlayCommand(app, play, status);
    const int parsed = Parse(app, words);
    return parsed != 0 ? parsed : status;
}

}  // namespace

int main(int argc, char** argv) {
    vexa::testkit::KeepStandardNumbers();
    try {
        return vexa::testkit::CheckOutput("vexa-unit", Main({argv + 1, argv + argc}),
                                          kOutputStatus);
    } catch (const std::exception& error) {
        return Refuse(error.what());
    }
}
