#include "sources/Inventory.h"

#include <grp.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "sources/Source.h"

namespace vexa::unit {

namespace {

namespace fs = std::filesystem;

// The first line of a file; empty when there is none.
std::string LineOf(const fs::path& path) {
    std::string line;
    std::getline(std::ifstream(path), line);
    return line;
}

// The entries of a folder whose names begin with `start`, sorted by their numbers.
std::vector<fs::path> EntriesOf(const fs::path& folder, const std::string& start) {
    std::vector<fs::path> entries;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
        if (entry->path().filename().string().starts_with(start)) entries.push_back(entry->path());
    }
    std::ranges::sort(entries, [](const fs::path& one, const fs::path& other) {
        const auto lengthOf = [](const fs::path& path) { return path.string().size(); };
        return lengthOf(one) != lengthOf(other) ? lengthOf(one) < lengthOf(other) : one < other;
    });
    return entries;
}

// The lines KEY=VALUE of a device of the kernel.
std::map<std::string, std::string> UeventOf(const fs::path& device) {
    std::map<std::string, std::string> values;
    std::ifstream file(device / "uevent");
    for (std::string line; std::getline(file, line);) {
        const auto sign = line.find('=');
        if (sign != std::string::npos) values[line.substr(0, sign)] = line.substr(sign + 1);
    }
    return values;
}

std::string LowerCase(std::string text) {
    std::ranges::transform(text, text.begin(), [](unsigned char letter) {
        return static_cast<char>(std::tolower(letter));
    });
    return text;
}

bool Exists(const std::string& path) {
    std::error_code error;
    return fs::exists(path, error);
}

std::string ListOf(const std::vector<std::string>& names) {
    std::string text;
    for (const auto& name : names) text += (text.empty() ? "" : ", ") + name;
    return names.empty() ? "; there is none" : "; there are " + text;
}

template <typename Entry, typename Text>
std::vector<std::string> TextsOf(const std::vector<Entry>& entries, Text text) {
    std::vector<std::string> texts;
    std::ranges::transform(entries, std::back_inserter(texts), text);
    return texts;
}

std::string NumbersOf(const HidrawEntry& entry) {
    return entry.vendor + ":" + entry.product + (entry.serial.empty() ? "" : ":" + entry.serial);
}

}  // namespace

std::vector<HidrawEntry> HidrawEntries() {
    std::vector<HidrawEntry> entries;
    for (const auto& path : EntriesOf("/sys/class/hidraw", "hidraw")) {
        auto values = UeventOf(path / "device");
        // Bus, vendor and product: 0003:00001234:0000ABCD.
        const std::string id = LowerCase(values["HID_ID"]);
        if (id.size() != 22) continue;
        entries.push_back({"/dev/" + path.filename().string(), id.substr(9, 4), id.substr(18, 4),
                           values["HID_NAME"], values["HID_UNIQ"]});
    }
    return entries;
}

std::vector<IioEntry> IioEntries() {
    std::vector<IioEntry> entries;
    for (const auto& path : EntriesOf("/sys/bus/iio/devices", "iio:device")) {
        entries.push_back({path.filename(), LineOf(path / "name"), LineOf(path / "label")});
    }
    return entries;
}

std::vector<std::string> SerialLines() {
    std::vector<std::string> lines;
    std::vector<fs::path> named;
    for (const auto& link : EntriesOf("/dev/serial/by-id", "")) {
        std::error_code error;
        named.push_back(fs::canonical(link, error));
        lines.push_back(link);
    }
    for (const auto& path : EntriesOf("/sys/class/tty", "tty")) {
        const std::string name = path.filename();
        // Ports of the platform that have no hardware are of type 0; others have no such file.
        if (!Exists(path / "device") || LineOf(path / "type") == "0") continue;
        if (std::ranges::count(named, fs::path("/dev/" + name)) == 0)
            lines.push_back("/dev/" + name);
    }
    return lines;
}

std::string FindHidraw(const std::string& wanted) {
    if (wanted.find('/') != std::string::npos) return Exists(wanted) ? wanted : "";
    std::istringstream words(wanted);
    std::array<std::string, 3> parts;
    for (auto& part : parts) std::getline(words, part, &part == &parts.back() ? '\0' : ':');
    for (const auto& entry : HidrawEntries()) {
        if (LowerCase(parts[0]) == entry.vendor && LowerCase(parts[1]) == entry.product &&
            (parts[2].empty() || parts[2] == entry.serial) && Exists(entry.path)) {
            return entry.path;
        }
    }
    return "";
}

std::optional<std::string> WhatIsMissing(const SourceSettings& source) {
    if (!source.hidraw.empty()) {
        if (!FindHidraw(source.hidraw).empty()) return std::nullopt;
        return "no HID device " + source.hidraw + ListOf(TextsOf(HidrawEntries(), NumbersOf));
    }
    if (!source.iio.empty()) {
        const auto entries = IioEntries();
        const auto fits = [&](const IioEntry& entry) {
            return source.iio == entry.name || source.iio == entry.label || source.iio == entry.id;
        };
        if (std::ranges::any_of(entries, fits)) return std::nullopt;
        return "no IIO device " + source.iio +
               ListOf(TextsOf(entries, [](const IioEntry& entry) { return entry.name; }));
    }
    const std::string& path = source.serial.empty() ? source.file : source.serial;
    if (Exists(path)) return std::nullopt;
    if (source.serial.empty()) return "no file " + path;
    return "no serial line " + path + ListOf(SerialLines());
}

std::string WhyNotOpened(const std::string& path, int error) {
    std::string text = "cannot open " + path + ": " + std::strerror(error);
    struct stat status {};
    if ((error != EACCES && error != EPERM) || ::stat(path.c_str(), &status) != 0) return text;
    std::array<char, 1024> names;
    group entry{};
    group* found = nullptr;
    ::getgrgid_r(status.st_gid, &entry, names.data(), names.size(), &found);
    const bool forGroup = (status.st_mode & (S_IRGRP | S_IWGRP)) == (S_IRGRP | S_IWGRP);
    const bool named = forGroup && found != nullptr && status.st_gid != 0;
    return text + (named ? "; only group " + std::string(entry.gr_name) + " may open it"
                         : "; only root may open it: a udev rule can give it to a group");
}

std::string NameOf(const SourceSettings& source) {
    if (!source.iio.empty()) return "iio " + source.iio;
    if (!source.hidraw.empty()) return "hidraw " + source.hidraw;
    if (!source.serial.empty()) return "serial " + source.serial;
    return "file " + source.file;
}

}  // namespace vexa::unit
