#include "run/DevicesCommand.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>

#include "model/CheckedJson.h"
#include "model/Settings.h"
#include "run/RunCommand.h"
#include "run/UserError.h"
#include "sources/IioModule.h"
#include "sources/Inventory.h"
#include "sources/SourceDevice.h"

namespace vexa::unit {

namespace {

// What is there. `iioProblem`: why channels cannot be told; empty: they are.
struct Inventory {
    std::vector<IioDevice> iio;
    std::vector<HidrawEntry> hidraw;
    std::vector<std::string> serial;
    std::string iioProblem;
};

Inventory TakeInventory() {
    Inventory all{{}, HidrawEntries(), SerialLines(), ""};
    try {
        all.iio = ListIioDevices(StandInFolder());
    } catch (const SourceError& error) {
        for (const auto& [id, name, label] : IioEntries()) {
            all.iio.push_back({id, name, label, {}, "", false});
        }
        all.iioProblem = error.what();
    }
    return all;
}

const std::string& NameInScenario(const IioDevice& device) {
    return !device.label.empty() ? device.label : !device.name.empty() ? device.name : device.id;
}

std::string IdOf(const HidrawEntry& entry) { return entry.vendor + ":" + entry.product; }

Json ToJson(const Inventory& all) {
    Json json = {{"iio", Json::array()}, {"hidraw", Json::array()}, {"serial", all.serial}};
    for (const auto& device : all.iio) {
        Json entry = {{"id", device.id}, {"name", device.name}};
        if (!device.label.empty()) entry["label"] = device.label;
        entry["channels"] = Json::array();
        for (const auto& [id, format, scale] : device.channels) {
            entry["channels"].push_back({{"id", id}, {"format", format}, {"scale", scale}});
        }
        entry["rates"] = device.rates;
        entry["buffered"] = device.hasBuffer;
        json["iio"].push_back(std::move(entry));
    }
    for (const auto& entry : all.hidraw) {
        json["hidraw"].push_back({{"id", IdOf(entry)},
                                  {"path", entry.path},
                                  {"name", entry.name},
                                  {"serial", entry.serial}});
    }
    return json;
}

// A scenario in which each has a name and, as far as there are enough, a type of its own.
std::string ScenarioOf(const Inventory& all) {
    std::vector<DeviceSettings> devices;
    std::map<std::string, int> used;
    const auto add = [&](const std::string& name, bool hid, SourceSettings source) {
        constexpr std::array kTypes = {std::array{8U, 9U, 11U}, std::array{2U, 3U, 4U}};
        const auto& types = kTypes[hid ? 1 : 0];
        const auto index = static_cast<std::size_t>(used[hid ? "hid" : "stream"]++);
        const int same = ++used["name " + name];
        DeviceSettings device;
        device.name = same == 1 ? name : name + " " + std::to_string(same);
        device.type = types[std::min(index, types.size() - 1)];
        device.source = std::move(source);
        devices.push_back(std::move(device));
    };
    for (const auto& device : all.iio) {
        const std::string& known = NameInScenario(device);
        SourceSettings source;
        // A name that two have finds the first of them.
        const bool isUnique = std::ranges::count(all.iio, known, NameInScenario) == 1;
        source.iio = isUnique ? known : device.id;
        add(known, false, source);
    }
    for (const auto& path : all.serial) {
        SourceSettings source;
        source.serial = path;
        add("Serial line", false, source);
    }
    for (const auto& entry : all.hidraw) {
        SourceSettings source;
        source.hidraw = IdOf(entry) + (entry.serial.empty() ? "" : ":" + entry.serial);
        add(entry.name.empty() ? "HID" : entry.name.substr(0, kMaxDeviceName - 4), true, source);
    }
    std::string text = "{\n  \"description\": \"What this board has\",\n  \"devices\": [";
    for (const auto& device : devices) {
        text += (&device == devices.data() ? "\n    " : ",\n    ") + ToLine(SettingsToJson(device));
    }
    return text + "\n  ]\n}\n";
}

std::string TextOf(const Inventory& all) {
    std::string text = "sensors (\"iio\")\n";
    for (const auto& device : all.iio) {
        text += "  " + device.name + (device.label.empty() ? "" : ", labelled " + device.label) +
                "  " + device.id + (device.hasBuffer ? ", with a buffer" : "") +
                (device.rates.empty() ? "" : ", rates " + device.rates) + "\n";
        for (const auto& [id, format, scale] : device.channels) {
            std::array<char, 64> number;
            std::snprintf(number.data(), number.size(), ", scale %.9g", scale);
            text += "    " + id + (format.empty() ? "" : "  " + format) + number.data() + "\n";
        }
    }
    if (all.iio.empty()) text += "  none\n";
    if (!all.iioProblem.empty()) text += "  " + all.iioProblem + "\n";
    text += "HID devices (\"hidraw\")\n";
    for (const auto& entry : all.hidraw) {
        text += "  " + IdOf(entry) + (entry.serial.empty() ? "" : ":" + entry.serial) + "  " +
                entry.path + "  " + entry.name + "\n";
    }
    if (all.hidraw.empty()) text += "  none\n";
    text += "serial lines (\"serial\")\n";
    for (const auto& path : all.serial) text += "  " + path + "\n";
    if (all.serial.empty()) text += "  none\n";
    return text;
}

}  // namespace

int ListDevices(const DevicesOptions& options) {
    if (options.json && options.scenario) throw UserError("either --json or --scenario");
    const Inventory all = TakeInventory();
    const std::string text = options.json       ? ToLine(ToJson(all)) + "\n"
                             : options.scenario ? ScenarioOf(all)
                                                : TextOf(all);
    std::fputs(text.c_str(), stdout);
    return 0;
}

}  // namespace vexa::unit
