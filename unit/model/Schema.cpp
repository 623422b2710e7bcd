// The settings as a JSON schema and as help.
#include <cmath>
#include <functional>
#include <nlohmann/json.hpp>

#include "model/Settings.h"
#include "model/SettingsTable.h"

namespace vexa::unit {

namespace {

// Describes a section in a JSON schema.
class SchemaMaker {
  public:
    static constexpr bool kCoversAll = true;

    [[nodiscard]] Json Schema() const {
        Json schema = {{"type", "object"}, {"additionalProperties", false}};
        if (!required.empty()) schema["required"] = required;
        schema["properties"] = properties;
        return schema;
    }

    // The schema of a section with its default values. Never destroyed, as threads of the unit use
    // it until the process has ended.
    template <typename Section>
    static const Json& Of() {
        static const Json& schema = [] {
            SchemaMaker maker;
            Section section;
            Describe(maker, section);
            return std::ref(*new Json(maker.Schema()));
        }();
        return schema;
    }

    [[nodiscard]] static bool Shows(bool) { return true; }
    bool Applies(std::string_view, bool, std::string_view) { return conditional = true; }

    void Bool(std::string_view key, bool value, std::string_view meaning) {
        Add(key, {{"type", "boolean"}, {"default", value}}, meaning);
    }
    void Bool(std::string_view key, const std::optional<bool>&, std::string_view meaning) {
        Add(key, {{"type", "boolean"}}, meaning);
    }
    template <typename Milliseconds>
    void Duration(std::string_view key, const Milliseconds&, std::uint32_t,
                  std::string_view meaning, Need need = Need::kOptional) {
        Add(key, {{"type", "string"}, {"pattern", "^[0-9.]+(ms|s|m|h)?$"}}, meaning, need);
    }
    void Unsigned(std::string_view key, std::uint32_t value, Limits limits,
                  std::string_view meaning, Need need = Need::kOptional) {
        Json schema = Number(limits.least, limits.most);
        if (need == Need::kOptional) schema["default"] = value;
        Add(key, std::move(schema), meaning, need);
    }
    void Unsigned(std::string_view key, const std::optional<std::uint32_t>&, Limits limits,
                  std::string_view meaning) {
        Add(key, Number(limits.least, limits.most), meaning);
    }
    void Except(std::string_view key, std::uint32_t, std::uint32_t value, std::string_view) {
        properties[std::string(key)]["not"] = {{"const", value}};
    }
    static void Fits(bool, std::string_view) {}
    void Number(std::string_view key, double value, double most, std::string_view meaning) {
        Json schema = {
            {"type", "number"}, {"exclusiveMinimum", 0}, {"maximum", std::llround(most)}};
        if (value > 0) schema["default"] = std::llround(value);
        Add(key, std::move(schema), meaning);
    }
    void String(std::string_view key, const std::string&, std::string_view,
                std::string_view meaning) {
        Add(key, {{"type", "string"}, {"minLength", 1}}, meaning);
    }
    void Strings(std::string_view key, const std::vector<std::string>&, std::string_view,
                 std::string_view meaning) {
        Add(key,
            {{"type", "array"}, {"items", {{"type", "string"}, {"minLength", 1}}}, {"minItems", 1}},
            meaning);
    }
    void Signed(std::string_view key, std::int32_t, std::string_view meaning, Need need) {
        Add(key, Number(INT32_MIN, INT32_MAX), meaning, need);
    }
    void Rate(std::string_view key, double value, std::string_view meaning) {
        const auto whole = [](double number) { return std::llround(number); };
        Add(key,
            {{"type", "number"},
             {"minimum", 0},
             {"maximum", whole(kMaxRate)},
             {"default", whole(value)}},
            meaning);
    }
    void Name(std::string_view key, const std::string& value, std::string_view meaning,
              Need need = Need::kOptional) {
        Json schema = {{"type", "string"}, {"minLength", 1}, {"maxLength", kMaxDeviceName}};
        if (!value.empty()) schema["default"] = value;
        Add(key, std::move(schema), meaning, need);
    }
    void Text(std::string_view key, const std::string*, std::string_view meaning) {
        Add(key, {{"type", "string"}}, meaning);
    }
    template <typename Value>
    void Choice(std::string_view key, Value value, const Words<Value>& words,
                std::string_view meaning, Need need = Need::kOptional) {
        Json schema = {{"enum", TextsOf(words)}};
        if (need == Need::kOptional) schema["default"] = WordFor(words, value);
        Add(key, std::move(schema), meaning, need);
    }
    void CallName(std::string_view key, Call, std::string_view meaning) {
        Json names = Json::array();
        for (const auto& call : kCalls) names.push_back(call.name);
        Add(key, {{"enum", names}}, meaning, Need::kRequired);
    }
    void CallName(std::string_view key, const std::optional<Call>&, std::string_view meaning) {
        Add(key, {{"type", "string"}}, meaning);
    }
    void Numbers(std::string_view key, const std::set<std::uint32_t>&, std::string_view meaning) {
        Add(key, {{"type", "array"}, {"items", Number(0, kMaxUnsigned)}}, meaning);
    }
    void Responses(std::string_view key, const std::map<std::uint32_t, std::int32_t>&,
                   std::string_view meaning) {
        Add(key,
            {{"type", "object"},
             {"propertyNames", {{"pattern", "^[0-9]+$"}}},
             {"additionalProperties", Number(INT32_MIN, INT32_MAX)}},
            meaning);
    }
    void Version(std::string_view key, std::uint16_t major, std::uint16_t minor,
                 std::string_view meaning) {
        Add(key,
            {{"type", "array"},
             {"items", Number(0, UINT16_MAX)},
             {"minItems", 2},
             {"maxItems", 2},
             {"default", {major, minor}}},
            meaning);
    }
    template <typename Section>
    void Object(std::string_view key, const Section&, std::string_view meaning) {
        Add(key, Of<Section>(), meaning);
    }
    template <typename Section>
    void Object(std::string_view key, const std::optional<Section>&, std::string_view meaning) {
        Add(key, Of<Section>(), meaning);
    }
    template <typename Section>
    void List(std::string_view key, const std::vector<Section>&, std::string_view meaning) {
        Add(key, {{"type", "array"}, {"items", Of<Section>()}}, meaning);
    }
    void Members(std::string_view key, const ApplicationMap& members, std::string_view meaning) {
        Json names = Json::array();
        for (const auto& [name, settings] : members) names.push_back(name);
        Add(key,
            {{"type", "object"},
             {"propertyNames", {{"enum", names}}},
             {"additionalProperties", Of<ApplicationSettings>()}},
            meaning);
    }

    template <typename Section>
    void Request(std::string_view key, std::string_view, const TimelineStep&,
                 std::string_view meaning) {
        Add(key, Of<Section>(), meaning);
    }
    void NamedRequest(std::string_view key, std::string_view, std::string_view, const TimelineStep&,
                      std::string_view meaning) {
        Add(key, {{"type", "string"}}, meaning);
    }
    void ApplicationRequests(std::string_view key, const TimelineStep&, std::string_view meaning) {
        Members(key, DefaultApplications(), meaning);
    }

  private:
    static Json Number(std::int64_t least, std::int64_t most) {
        return {{"type", "integer"}, {"minimum", least}, {"maximum", most}};
    }

    void Add(std::string_view key, Json schema, std::string_view meaning,
             Need need = Need::kOptional) {
        // A key that is required only in some cases is not required by the schema.
        if (need == Need::kRequired && !std::exchange(conditional, false)) required.push_back(key);
        conditional = false;
        schema["description"] = meaning;
        properties[std::string(key)] = std::move(schema);
    }

    Json properties = Json::object();
    Json required = Json::array();
    bool conditional = false;
};

// Indented, but with everything that fits on a line on one.
std::string Compact(const Json& json, std::size_t indent) {
    constexpr std::size_t kWidth = 110;
    std::string line = json.dump();
    if (!json.is_structured() || line.size() + indent <= kWidth) return line;
    std::string text;
    for (const auto& item : json.items()) {
        text += (text.empty() ? "\n" : ",\n") + std::string(indent + 2, ' ');
        if (json.is_object()) text += Json(item.key()).dump() + ": ";
        text += Compact(item.value(), indent + 2);
    }
    text += "\n" + std::string(indent, ' ');
    return json.is_object() ? "{" + text + "}" : "[" + text + "]";
}

const Json& SchemaNamed(const std::string& name) {
    if (name == "device") return SchemaMaker::Of<DeviceSettings>();
    if (name == "daq") return SchemaMaker::Of<DaqSettings>();
    if (name == "application") return SchemaMaker::Of<ApplicationSettings>();
    if (name == "fault") return SchemaMaker::Of<Fault>();
    if (name == "source") return SchemaMaker::Of<SourceSettings>();
    if (name == "wait") return SchemaMaker::Of<WaitSettings>();
    return SchemaMaker::Of<CableFlapping>();
}

// "1 to 255, default 3", or "sine, ramp; default sine".
std::string ValuesOf(const Json& schema) {
    std::string text;
    if (schema.contains("minimum")) {
        text = schema["minimum"].dump() + " to " + schema["maximum"].dump();
    }
    if (schema.contains("enum")) {
        for (const auto& word : schema["enum"]) {
            text += (text.empty() ? "" : ", ") + word.get<std::string>();
        }
    }
    if (!schema.contains("default")) return text;
    return text + (text.empty() ? "default " : "; default ") + schema["default"].dump();
}

}  // namespace

template <typename Section>
std::vector<std::string_view> KeysOf() {
    std::vector<std::string_view> keys;
    const Json& properties = SchemaMaker::Of<Section>().at("properties");
    for (const auto& item : properties.items()) keys.push_back(item.key());
    return keys;
}

template std::vector<std::string_view> KeysOf<DeviceSettings>();
template std::vector<std::string_view> KeysOf<SourceSettings>();
template std::vector<std::string_view> KeysOf<DaqSettings>();
template std::vector<std::string_view> KeysOf<Stray>();
template std::vector<std::string_view> KeysOf<ProgramSettings>();
template std::vector<std::string_view> KeysOf<ApplicationSettings>();
template std::vector<std::string_view> KeysOf<CableFlapping>();
template std::vector<std::string_view> KeysOf<CableSettings>();
template std::vector<std::string_view> KeysOf<Fault>();
template std::vector<std::string_view> KeysOf<TimelineStep>();
template std::vector<std::string_view> KeysOf<WaitSettings>();
template std::vector<std::string_view> KeysOf<NodeSettings>();
template std::vector<std::string_view> KeysOf<LibrarySettings>();
template std::vector<std::string_view> KeysOf<Scenario>();

std::string ScenarioSchemaText() {
    Json schema = {{"$schema", "http://json-schema.org/draft-07/schema#"},
                   {"title", "Scenario of a virtual unit"}};
    schema.update(SchemaMaker::Of<Scenario>());
    return Compact(schema, 0) + "\n";
}

std::string SettingsHelp(const std::string& of, std::string_view except) {
    constexpr std::size_t kKeyWidth = 20;
    std::string text;
    for (const auto& [key, schema] : SchemaNamed(of)["properties"].items()) {
        if (except.find(key) != std::string_view::npos) continue;
        text += "  " + key + std::string(kKeyWidth - key.size(), ' ');
        text += schema["description"].get<std::string>();
        const std::string values = ValuesOf(schema);
        text += values.empty() ? "\n" : " (" + values + ")\n";
    }
    return text;
}

}  // namespace vexa::unit
