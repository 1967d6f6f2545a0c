#include "Store.h"

#include "TQLib/platform/linux/base/Wide.h"
#include "TQLib/platform/linux/registry/RegistryRecord.h"

#include <array>
#include <cstring>
#include <iterator>
#include <optional>

namespace tqscm {

using namespace Quellan::Platform;

namespace {

constexpr const wchar_t* ServicesPath = L"SYSTEM\\CurrentControlSet\\Services";
constexpr const wchar_t* MarkName = L"DeleteFlag";
// A key without it is none of a service.
constexpr const wchar_t* TypeName = L"Type";
// A subkey with the values that a change gives to the record. It counts once it is marked as whole.
constexpr const wchar_t* ChangeName = L"Change";
constexpr const wchar_t* WholeName = L"Whole";
constexpr std::size_t LongestKeyName = 255;

class Key {
  public:
    Key() = default;
    ~Key() {
        if (m_key) RegCloseKey(m_key);
    }
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;

    HKEY* Place() { return &m_key; }
    operator HKEY() const { return m_key; }

  private:
    HKEY m_key = nullptr;
};

std::wstring PathOf(const std::string& name) {
    return std::wstring(ServicesPath) + L'\\' + ToWide(name);
}

// Values: what a field looks like in the registry, and back.

struct Data {
    DWORD type = REG_NONE;
    std::string bytes;
};

std::string BytesOf(std::wstring_view text) {
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)};
}

std::wstring TextOf(const std::string& bytes) {
    std::wstring text(bytes.size() / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), bytes.data(), text.size() * sizeof(wchar_t));
    return text;
}

Data ToData(DWORD number) {
    return {REG_DWORD, {reinterpret_cast<const char*>(&number), sizeof number}};
}
void FromData(const Data& data, DWORD& number) {
    if (data.bytes.size() == sizeof number) std::memcpy(&number, data.bytes.data(), sizeof number);
}

Data ToData(const std::string& text) {
    return {REG_SZ, BytesOf(ToWide(text) + L'\0')};
}
void FromData(const Data& data, std::string& text) {
    const std::wstring wide = TextOf(data.bytes);
    text = ToUtf8(wide.c_str());
}

Data ToData(const std::vector<std::string>& texts) {
    std::wstring all;
    for (const std::string& text : texts)
        all += ToWide(text) + L'\0';
    return {REG_MULTI_SZ, BytesOf(all + L'\0')};
}
void FromData(const Data& data, std::vector<std::string>& texts) {
    const std::wstring all = TextOf(data.bytes);
    for (std::size_t begin = 0; begin < all.size() && all[begin];) {
        const std::wstring text(all.c_str() + begin);
        texts.push_back(ToUtf8(text));
        begin += text.size() + 1;
    }
}

// The reset period, three numbers that the platform has there, the number of actions, and five numbers' size
// as the place of the actions: type and delay of each.
constexpr std::size_t ActionsBegin = 5 * sizeof(DWORD);

Data ToData(const FailureActions& failure) {
    std::vector<DWORD> numbers = {failure.resetPeriod, 0, 0, static_cast<DWORD>(failure.actions.size()),
                                  ActionsBegin};
    for (const FailureAction& action : failure.actions)
        numbers.insert(numbers.end(), {action.type, action.delay});
    return {REG_BINARY, {reinterpret_cast<const char*>(numbers.data()), numbers.size() * sizeof(DWORD)}};
}
void FromData(const Data& data, FailureActions& failure) {
    std::vector<DWORD> numbers(data.bytes.size() / sizeof(DWORD));
    std::memcpy(numbers.data(), data.bytes.data(), numbers.size() * sizeof(DWORD));
    if (numbers.size() < 5 || (numbers.size() - 5) / 2 < numbers[3]) return;
    failure.resetPeriod = numbers[0];
    for (std::size_t i = 0; i < numbers[3]; ++i)
        failure.actions.push_back({numbers[5 + 2 * i], numbers[6 + 2 * i]});
}

// Calls `use` with each value's name and its field in all of `configs`.
template <class Use, class... Configs>
void ForEachValue(Use use, Configs&&... configs) {
    use(L"Start", configs.start...);
    use(L"ErrorControl", configs.errorControl...);
    use(L"ImagePath", configs.commandLine...);
    use(L"Group", configs.group...);
    use(L"DependOnService", configs.dependencies...);
    use(L"ObjectName", configs.account...);
    use(L"DisplayName", configs.displayName...);
    use(L"Description", configs.description...);
    use(L"RebootMessage", configs.rebootMessage...);
    use(L"FailureCommand", configs.failureCommand...);
    use(L"FailureActions", configs.failure...);
    use(L"FailureActionsOnNonCrashFailures", configs.failsWithoutCrash...);
    use(L"DelayedAutostart", configs.delayed...);
    use(TypeName, configs.type...);
}

std::optional<Data> ReadValue(HKEY key, const wchar_t* name) {
    Data data;
    DWORD size = 0;
    if (RegQueryValueExW(key, name, nullptr, &data.type, nullptr, &size) != 0) return std::nullopt;
    data.bytes.resize(size);
    auto* const bytes = reinterpret_cast<BYTE*>(data.bytes.data());
    if (RegQueryValueExW(key, name, nullptr, &data.type, bytes, &size) != 0) return std::nullopt;
    return data;
}

DWORD WriteValue(HKEY key, const wchar_t* name, const Data& data) {
    return static_cast<DWORD>(RegSetValueExW(key, name, 0, data.type,
                                             reinterpret_cast<const BYTE*>(data.bytes.data()),
                                             static_cast<DWORD>(data.bytes.size())));
}

void Add(std::vector<RegistryValue>& values, const wchar_t* name, Data data) {
    values.push_back({name, data.type, std::move(data.bytes)});
}

DWORD OpenRecord(const std::string& name, Key& key) {
    return static_cast<DWORD>(RegOpenKeyExW(HKEY_LOCAL_MACHINE, PathOf(name).c_str(), 0,
                                            KEY_READ | KEY_SET_VALUE | DELETE, key.Place()));
}

// Opens the change of a record that was written and has not been carried out, if there is one.
bool OpenChange(HKEY record, Key& change) {
    return RegOpenKeyExW(record, ChangeName, 0, KEY_QUERY_VALUE, change.Place()) == 0 &&
           ReadValue(change, WholeName);
}

// Carries it out; a change that was not written to its end is dropped.
DWORD FinishChange(HKEY record) {
    Key change;
    DWORD code = 0;
    if (OpenChange(record, change))
        ForEachValue(
            [&](const wchar_t* name, const auto&) {
                const auto data = ReadValue(change, name);
                if (!code && data) code = WriteValue(record, name, *data);
            },
            ServiceConfig());
    if (!code) code = static_cast<DWORD>(RegDeleteTreeW(record, ChangeName));
    return code == ERROR_FILE_NOT_FOUND ? 0 : code;
}

bool ReadRecord(HKEY services, const wchar_t* name, StoredService& service) {
    Key key, change;
    if (RegOpenKeyExW(services, name, 0, KEY_QUERY_VALUE, key.Place()) != 0) return false;
    if (!ReadValue(key, TypeName) || !ReadValue(key, L"ImagePath")) return false;
    service.name = ToUtf8(name);
    service.isMarked = ReadValue(key, MarkName).has_value();
    const bool isChanged = OpenChange(key, change);
    ForEachValue(
        [&](const wchar_t* valueName, auto& field) {
            auto data = isChanged ? ReadValue(change, valueName) : std::nullopt;
            if (!data) data = ReadValue(key, valueName);
            if (data) FromData(*data, field);
        },
        service.config);
    return true;
}

}  // namespace

std::vector<StoredService> ReadServices() {
    std::vector<StoredService> services;
    Key key;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, ServicesPath, 0, KEY_READ, key.Place()) != 0) return services;
    wchar_t name[LongestKeyName + 1];
    DWORD size = std::size(name);
    for (DWORD index = 0; RegEnumKeyExW(key, index, name, &size, nullptr, nullptr, nullptr, nullptr) == 0;
         ++index, size = std::size(name)) {
        StoredService service;
        if (ReadRecord(key, name, service)) services.push_back(std::move(service));
    }
    return services;
}

DWORD CreateRecord(const std::string& name, const ServiceConfig& config) {
    std::vector<RegistryValue> values;
    ForEachValue(
        [&](const wchar_t* valueName, const auto& field, const auto& none) {
            if (field != none || valueName == TypeName) Add(values, valueName, ToData(field));
        },
        config, ServiceConfig());
    return PutRegistryKey(HKEY_LOCAL_MACHINE, PathOf(name), values);
}

DWORD ChangeRecord(const std::string& name, const ServiceConfig& before, const ServiceConfig& after) {
    std::vector<RegistryValue> values;
    ForEachValue(
        [&](const wchar_t* valueName, const auto& old, const auto& changed) {
            if (changed != old) Add(values, valueName, ToData(changed));
        },
        before, after);
    Key key;
    DWORD code = OpenRecord(name, key);
    if (!code) code = FinishChange(key);
    if (code || values.empty()) return code;
    // One value is changed in one step anyway.
    if (values.size() == 1) return WriteValue(key, values[0].name.c_str(), {values[0].type, values[0].data});
    Add(values, WholeName, ToData(DWORD{1}));
    code = PutRegistryKey(HKEY_LOCAL_MACHINE, PathOf(name) + L'\\' + ChangeName, values);
    if (!code) FinishChange(key);  // otherwise at the next change
    return code;
}

DWORD MarkRecord(const std::string& name) {
    Key key;
    const DWORD code = OpenRecord(name, key);
    return code ? code : WriteValue(key, MarkName, ToData(DWORD{1}));
}

DWORD DeleteRecord(const std::string& name) {
    return static_cast<DWORD>(RegDeleteTreeW(HKEY_LOCAL_MACHINE, PathOf(name).c_str()));
}

}  // namespace tqscm
