#include "model/Settings.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "model/SettingsTable.h"

namespace vexa::unit {

namespace {

// Reads a section from JSON.
class SettingsReader {
  public:
    static constexpr bool kCoversAll = false;

    explicit SettingsReader(const CheckedJson& json_) : json(json_) {}

    [[nodiscard]] static bool Shows(bool) { return true; }
    [[nodiscard]] bool Applies(std::string_view key, bool applies, std::string_view when) const {
        if (!applies && json.Has(key)) {
            json.ComplainAbout(key, "is of no use here: it goes with " + std::string(when));
        }
        return applies;
    }

    void Bool(std::string_view key, bool& value, std::string_view) const {
        if (json.Has(key)) value = json.Member(key).Bool();
    }
    void Bool(std::string_view key, std::optional<bool>& value, std::string_view) const {
        if (json.Has(key)) value = json.Member(key).Bool();
    }
    template <typename Milliseconds>
    void Duration(std::string_view key, Milliseconds& ms, std::uint32_t least, std::string_view,
                  Need need = Need::kOptional) const {
        if (IsGiven(key, need)) ms = json.Member(key).DurationMs(least);
    }
    void Unsigned(std::string_view key, std::uint32_t& value, Limits limits, std::string_view,
                  Need need = Need::kOptional) const {
        if (IsGiven(key, need)) value = json.Member(key).Unsigned(limits.least, limits.most);
    }
    void Unsigned(std::string_view key, std::optional<std::uint32_t>& value, Limits limits,
                  std::string_view) const {
        if (json.Has(key)) value = json.Member(key).Unsigned(limits.least, limits.most);
    }
    void Except(std::string_view key, std::uint32_t value, std::uint32_t refused,
                std::string_view expected) const {
        if (value == refused) json.Member(key).Complain(expected);
    }
    void Fits(bool fits, std::string_view expected) const {
        if (!fits) json.Complain(expected);
    }
    void Signed(std::string_view key, std::int32_t& value, std::string_view, Need need) const {
        if (IsGiven(key, need)) value = json.Member(key).Signed32();
    }
    void Rate(std::string_view key, double& value, std::string_view) const {
        if (json.Has(key)) value = json.Member(key).Rate();
    }
    void Name(std::string_view key, std::string& value, std::string_view,
              Need need = Need::kOptional) const {
        if (IsGiven(key, need)) value = json.Member(key).Name();
    }
    void Number(std::string_view key, double& value, double most, std::string_view) const {
        if (json.Has(key)) value = json.Member(key).Number(most);
    }
    void String(std::string_view key, std::string& value, std::string_view expected,
                std::string_view) const {
        if (json.Has(key)) value = json.Member(key).String(expected);
    }
    void Strings(std::string_view key, std::vector<std::string>& value, std::string_view expected,
                 std::string_view) const {
        if (!json.Has(key)) return;
        value.clear();
        const CheckedJson member = json.Member(key);
        if (!member.Value().is_array()) member.Complain(expected);
        member.EachElement(
            [&](const CheckedJson& text) { value.push_back(text.String("a text")); });
        if (value.empty()) member.Complain(expected);
    }
    void Text(std::string_view key, std::string* value, std::string_view) const {
        if (value != nullptr && json.Has(key)) *value = json.Member(key).Text("a line of text");
    }
    template <typename Value>
    void Choice(std::string_view key, Value& value, const Words<Value>& words, std::string_view,
                Need need = Need::kOptional) const {
        if (IsGiven(key, need)) value = words[json.Member(key).Choice(TextsOf(words))].second;
    }
    void CallName(std::string_view key, Call& value, std::string_view) const {
        value = ReadCall(json, key);
    }
    void CallName(std::string_view key, std::optional<Call>& value, std::string_view) const {
        if (json.Has(key)) value = ReadCall(json, key);
    }
    void Numbers(std::string_view key, std::set<std::uint32_t>& value, std::string_view) const {
        if (!json.Has(key)) return;
        value.clear();
        json.Member(key).EachElement(
            [&](const CheckedJson& number) { value.insert(number.Unsigned(0, kMaxUnsigned)); });
    }
    void Responses(std::string_view key, std::map<std::uint32_t, std::int32_t>& value,
                   std::string_view) const {
        if (!json.Has(key)) return;
        value.clear();
        json.Member(key).EachMember([&](const std::string& name, const CheckedJson& response) {
            std::uint32_t command = 0;
            const char* const end = name.data() + name.size();
            const auto [stopped, error] = std::from_chars(name.data(), end, command);
            if (error != std::errc() || stopped != end) {
                response.Complain("a command number as its key");
            }
            value[command] = response.Signed32();
        });
    }
    void Version(std::string_view key, std::uint16_t& major, std::uint16_t& minor,
                 std::string_view) const {
        if (!json.Has(key)) return;
        std::vector<std::uint16_t> numbers;
        json.Member(key).EachElement([&](const CheckedJson& number) {
            numbers.push_back(static_cast<std::uint16_t>(number.Unsigned(0, UINT16_MAX)));
        });
        if (numbers.size() != 2)
            json.Member(key).Complain("a list of two numbers, major and minor");
        major = numbers[0];
        minor = numbers[1];
    }
    template <typename Section>
    void Object(std::string_view key, Section& section, std::string_view) const {
        if (json.Has(key)) ReadSettings(json.Member(key), section);
    }
    template <typename Section>
    void Object(std::string_view key, std::optional<Section>& section, std::string_view) const {
        if (json.Has(key)) ReadSettings(json.Member(key), section.emplace());
    }
    template <typename Section>
    void List(std::string_view key, std::vector<Section>& list, std::string_view) const {
        if (!json.Has(key)) return;
        list.clear();
        json.Member(key).EachElement(
            [&](const CheckedJson& item) { ReadSettings(item, list.emplace_back()); });
    }
    void Members(std::string_view key, ApplicationMap& members, std::string_view) const {
        if (!json.Has(key)) return;
        const CheckedJson member = json.Member(key);
        std::vector<std::string_view> names;
        for (const auto& [name, settings] : members) names.push_back(name);
        member.RequireKeys(names);
        member.EachMember([&](const std::string& name, const CheckedJson& application) {
            ReadSettings(application, members[name]);
        });
    }

    // The requests of a timeline are only put together here; CheckTimeline reads them.
    template <typename Section>
    void Request(std::string_view key, std::string_view verb, TimelineStep& step,
                 std::string_view) const {
        if (!json.Has(key)) return;
        json.Member(key).RequireKeys(KeysOf<Section>());
        AddRequest(step, std::string(key), verb, json.Member(key).Value());
    }
    void NamedRequest(std::string_view key, std::string_view verb, std::string_view member,
                      TimelineStep& step, std::string_view) const {
        if (!json.Has(key)) return;
        const std::string name = json.Member(key).Name();
        Json request = Json::object();
        if (member != "call" || name != "all") request[std::string(member)] = name;
        AddRequest(step, std::string(key), verb, std::move(request));
    }
    void ApplicationRequests(std::string_view key, TimelineStep& step, std::string_view) const {
        if (!json.Has(key)) return;
        json.Member(key).EachMember([&](const std::string& name, const CheckedJson& settings) {
            settings.RequireKeys(KeysOf<ApplicationSettings>());
            Json request = settings.Value();
            request["name"] = name;
            AddRequest(step, std::string(key) + "." + name, "app", std::move(request));
        });
    }

  private:
    static void AddRequest(TimelineStep& step, std::string key, std::string_view verb,
                           Json request) {
        request["request"] = verb;
        step.requests.push_back({std::move(key), ToLine(request)});
    }
    [[nodiscard]] bool IsGiven(std::string_view key, Need need) const {
        return need == Need::kRequired || json.Has(key);
    }

    const CheckedJson& json;
};

// Writes a section as JSON.
class SettingsWriter {
  public:
    static constexpr bool kCoversAll = false;

    Json json = Json::object();

    [[nodiscard]] static bool Shows(bool shown) { return shown; }
    [[nodiscard]] static bool Applies(std::string_view, bool applies, std::string_view) {
        return applies;
    }

    void Bool(std::string_view key, bool value, std::string_view) { Put(key, value); }
    void Unsigned(std::string_view key, std::uint32_t value, Limits, std::string_view,
                  Need = Need::kOptional) {
        Put(key, value);
    }
    void Unsigned(std::string_view key, const std::optional<std::uint32_t>& value, Limits,
                  std::string_view) {
        if (value) Put(key, *value);
    }
    static void Except(std::string_view, std::uint32_t, std::uint32_t, std::string_view) {}
    static void Fits(bool, std::string_view) {}
    void Number(std::string_view key, double value, double, std::string_view) { Put(key, value); }
    void String(std::string_view key, const std::string& value, std::string_view,
                std::string_view) {
        if (!value.empty()) Put(key, value);
    }
    void Strings(std::string_view key, const std::vector<std::string>& value, std::string_view,
                 std::string_view) {
        if (!value.empty()) Put(key, value);
    }
    void Signed(std::string_view key, std::int32_t value, std::string_view, Need) {
        Put(key, value);
    }
    void Rate(std::string_view key, double value, std::string_view) { Put(key, value); }
    void Name(std::string_view key, const std::string& value, std::string_view,
              Need = Need::kOptional) {
        if (!value.empty()) Put(key, value);
    }
    template <typename Value>
    void Choice(std::string_view key, Value value, const Words<Value>& words, std::string_view,
                Need = Need::kOptional) {
        Put(key, WordFor(words, value));
    }
    void CallName(std::string_view key, Call value, std::string_view) {
        Put(key, InfoOf(value).name);
    }
    void Numbers(std::string_view key, const std::set<std::uint32_t>& value, std::string_view) {
        Put(key, value);
    }
    void Responses(std::string_view key, const std::map<std::uint32_t, std::int32_t>& value,
                   std::string_view) {
        Json responses = Json::object();
        for (const auto& [command, response] : value) {
            responses[std::to_string(command)] = response;
        }
        Put(key, std::move(responses));
    }
    template <typename Section>
    void Object(std::string_view key, const std::optional<Section>& section, std::string_view) {
        if (section) Put(key, SettingsToJson(*section));
    }
    template <typename Section>
    void List(std::string_view key, const std::vector<Section>& list, std::string_view) {
        Json items = Json::array();
        for (const auto& item : list) items.push_back(SettingsToJson(item));
        Put(key, std::move(items));
    }

  private:
    void Put(std::string_view key, Json value) { json[std::string(key)] = std::move(value); }
};

void CheckTargets(const CheckedJson& json, const Scenario& scenario) {
    if (!json.Has("faults")) return;
    const UnitSettings settings{scenario.devices, scenario.daq, scenario.applications};
    auto fault = scenario.faults.begin();
    json.Member("faults").EachElement(
        [&](const CheckedJson& element) { CheckTarget(element, *fault++, settings); });
}

// Devices are opened by name, so no two may share one.
void RequireDistinctNames(const Scenario& scenario) {
    std::set<std::string> names{scenario.daq.name};
    for (std::size_t index = 0; index < scenario.devices.size(); ++index) {
        if (names.insert(scenario.devices[index].name).second) continue;
        throw JsonError("devices[" + std::to_string(index) +
                        "].name: expected a name that no other device has, not \"" +
                        scenario.devices[index].name + "\"");
    }
}

}  // namespace

template <typename Settings>
void ReadSettings(const CheckedJson& json, Settings& settings) {
    json.RequireKeys(KeysOf<Settings>());
    SettingsReader reader(json);
    Describe(reader, settings);
}

template <typename Settings>
Json SettingsToJson(const Settings& settings) {
    SettingsWriter writer;
    Settings copy = settings;
    Describe(writer, copy);
    return std::move(writer.json);
}

template void ReadSettings(const CheckedJson&, DeviceSettings&);
template void ReadSettings(const CheckedJson&, DaqSettings&);
template void ReadSettings(const CheckedJson&, ApplicationSettings&);
template void ReadSettings(const CheckedJson&, CableSettings&);
template void ReadSettings(const CheckedJson&, Fault&);
template void ReadSettings(const CheckedJson&, WaitSettings&);
template Json SettingsToJson(const DeviceSettings&);
template Json SettingsToJson(const DaqSettings&);
template Json SettingsToJson(const ApplicationSettings&);
template Json SettingsToJson(const CableSettings&);
template Json SettingsToJson(const Fault&);

Call ReadCall(const CheckedJson& json, std::string_view key) {
    const CheckedJson member = json.Member(key);
    const auto call = std::ranges::find(kCalls, member.Text("the name of a call"), &CallInfo::name);
    if (call == kCalls.end()) {
        member.Complain("the name of a call, such as \"VEXA_Init\" or \"node.read\"");
    }
    return static_cast<Call>(call - kCalls.begin());
}

std::variant<Scenario, ScenarioError> LoadScenario(const std::string& path,
                                                   const std::string& name) {
    errno = 0;
    std::ifstream file(path);
    std::ostringstream content;
    if (!file || (file.peek() != std::ifstream::traits_type::eof() && !(content << file.rdbuf())) ||
        file.bad() || errno == EISDIR) {
        return ScenarioError{name + ": cannot read it: " + std::strerror(errno)};
    }
    try {
        const auto json = ParseJson(content.str());
        Scenario scenario;
        ReadSettings(CheckedJson(json, ""), scenario);
        RequireDistinctNames(scenario);
        CheckTargets(CheckedJson(json, ""), scenario);
        CheckTimeline(scenario);
        return scenario;
    } catch (const JsonError& error) {
        return ScenarioError{name + ": " + error.what()};
    }
}

}  // namespace vexa::unit
