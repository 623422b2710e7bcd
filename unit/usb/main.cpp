// vexa-usb: serves the node that the service opens, over the USB gadget of a stock kernel.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstdio>
#include <exception>
#include <fstream>
#include <map>
#include <set>
#include <string>

#include "testkit/StandardOutput.h"
#include "usb/StatusSocket.h"
#include "usb/UsbLink.h"

namespace {

using namespace vexa::usb;

constexpr int kFailed = 1;
constexpr int kMisused = 2;
constexpr int kOutputFailed = 6;

struct Options {
    LinkSettings link;
    bool status = false;
    bool json = false;
};

// The board's own, where the device tree has one, so that several units can be told apart.
std::string DefaultSerialNumber() {
    std::string text;
    std::ifstream file("/sys/firmware/devicetree/base/serial-number");
    std::getline(file, text, '\0');
    if (!text.empty()) return text;
    char name[64] = "";
    gethostname(name, sizeof name - 1);
    return name[0] != '\0' && name[0] != '(' ? name : "0001";  // "(none)" before one is set
}

// "VENDOR:PRODUCT" in hexadecimal digits.
std::string SetId(const std::string& text, GadgetSettings& gadget) {
    char end = '\0';
    const bool isId =
        text.size() == 9 &&
        text.find_first_not_of("0123456789abcdefABCDEF:") == std::string::npos &&
        std::sscanf(text.c_str(), "%4x:%4x%c", &gadget.vendor, &gadget.product, &end) == 2;
    return isId ? ""
                : "an id is VENDOR:PRODUCT, each of four hexadecimal digits, such as 1209:0001";
}

std::string CheckText(const std::string& text) {
    constexpr std::size_t kMaxText = 126;  // characters of a USB string descriptor
    return !text.empty() && text.size() <= kMaxText ? "" : "a text has 1 to 126 characters";
}

std::string CheckNode(const std::string& text) {
    constexpr std::size_t kMaxName = 31;  // a FunctionFS instance has up to 40
    const bool isName = !text.empty() && text.size() <= kMaxName && text.front() != '.' &&
                        std::ranges::all_of(text, [](unsigned char c) {
                            return std::isalnum(c) != 0 || c == '-' || c == '_' || c == '.';
                        });
    return isName ? "" : "a node is the name of a file in /dev, such as zt-usb";
}

// Accepts one of `values`, which `names` tells in words.
CLI::Validator OneOf(const std::set<std::string>& values, const std::string& names) {
    return CLI::Validator(
        [values, names](const std::string& value) {
            return values.contains(value) ? "" : "takes " + names + ", not " + value;
        },
        "");
}

void AddOptions(CLI::App& app, Options& options) {
    GadgetSettings& gadget = options.link.gadget;
    app.add_option("--udc", gadget.controller,
                   "USB device controller, of /sys/class/udc (default: the only one)")
        ->option_text("NAME");
    app.add_option_function<std::string>(
           "--id", [](const std::string&) {},
           "Numbers of vendor and product (default: 1209:0001, for tests)")
        ->option_text("VENDOR:PRODUCT")
        ->check([&gadget](const std::string& text) { return SetId(text, gadget); });
    app.add_option("--serial", gadget.serialNumber,
                   "Serial number (default: the board's, or the host name)")
        ->option_text("TEXT")
        ->check(CheckText);
    app.add_option("--manufacturer", gadget.manufacturer, "Name of the maker (default: VEXADevMgr)")
        ->option_text("TEXT")
        ->check(CheckText);
    app.add_option("--product", gadget.productName,
                   "Name of the unit (default: data-acquisition unit)")
        ->option_text("TEXT")
        ->check(CheckText);
    app.add_option("--node", options.link.node, "Name of the node in /dev (default: zt-usb)")
        ->option_text("NAME")
        ->check(CheckNode);
    const std::map<std::string, std::string> speeds{
        {"full", "full-speed"}, {"high", "high-speed"}, {"super", "super-speed"}};
    app.add_option("--speed", gadget.maxSpeed, "Highest speed (default: the controller's)")
        ->option_text("full|high|super")
        ->transform(CLI::Transformer(speeds))
        ->check(OneOf({"full-speed", "high-speed", "super-speed"}, "full, high or super"));
    app.add_option_function<std::string>(
           "--cable",
           [&options](const std::string& rule) {
               options.link.cable =
                   rule == "suspend" ? CableRule::kSuspend : CableRule::kConfigured;
           },
           "When the cable counts as out: no host has configured the unit, or also while the bus "
           "is\n"
           "suspended, which is all that some controllers report of a pulled cable "
           "(default: configured)")
        ->option_text("configured|suspend")
        ->check(OneOf({"configured", "suspend"}, "configured or suspend"));
    app.add_flag("--status", options.status,
                 "Print how the link stands, of the vexa-usb that runs, and end");
    app.add_flag("--json", options.json, "With --status: as JSON")->needs("--status");
    app.footer(
        "Needs root, a USB device controller, and the kernel's CUSE and FunctionFS (modprobe cuse\n"
        "libcomposite). Ends on SIGTERM, SIGINT and SIGHUP, and removes what it has made.");
}

void PrintStatus(const Options& options) {
    const std::string lines = AskStatus(options.link.node);
    const std::size_t end = lines.find('\n') + 1;
    std::fputs((options.json ? lines.substr(end) : lines.substr(0, end)).c_str(), stdout);
}

void Serve(const Options& options) {
    if (geteuid() != 0)
        throw SetupError("needs root, as the gadget and the node are made in the kernel");
    sigset_t ends;
    sigemptyset(&ends);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&ends, number);
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    UsbLink link(options.link);
    link.Run();
}

int Run(int count, char** arguments) {
    vexa::testkit::KeepStandardNumbers();
    Options options;
    options.link.gadget.serialNumber = DefaultSerialNumber();
    options.link.gadget.manufacturer = "VEXADevMgr";
    options.link.gadget.productName = "data-acquisition unit";
    CLI::App app(
        "Serves /dev/zt-usb, the node that VEXADevMgr opens, over the USB gadget of a stock "
        "kernel.",
        "vexa-usb");
    app.set_version_flag("--version", std::string("vexa-usb ") + VEXA_UNIT_VERSION);
    AddOptions(app, options);
    try {
        app.parse(count, arguments);
    } catch (const CLI::Success& asked) {
        return vexa::testkit::CheckOutput("vexa-usb", app.exit(asked), kOutputFailed);
    } catch (const CLI::ParseError& error) {
        std::fprintf(stderr, "vexa-usb: %s\n", error.what());
        return kMisused;
    }
    if (options.status) {
        PrintStatus(options);
    } else {
        Serve(options);
    }
    return vexa::testkit::CheckOutput("vexa-usb", 0, kOutputFailed);
}

}  // namespace

int main(int count, char** arguments) {
    try {
        return Run(count, arguments);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vexa-usb: %s\n", error.what());
        return kFailed;
    }
}
