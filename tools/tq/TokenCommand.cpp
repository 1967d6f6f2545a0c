// tq token: who one is, and what one may.
#include "Command.h"

#include <utility>

using namespace Quellan::Corvel;
using namespace Quellan::Sarvek;

namespace tq {

namespace {

constexpr const wchar_t* TokenHelp =
    L"usage: tq token [--json]\n"
    L"\n"
    L"Tells who the caller is and what he may: user, groups, privileges, integrity level, and what new "
    L"descriptors\n"
    L"get from his token.\n"
    L"\n"
    L"  --json   print JSON in place of a table\n";

struct AttributeName {
    DWORD attribute;
    const wchar_t* name;
};

constexpr AttributeName AttributeNames[] = {
    {SE_GROUP_ENABLED, L"enabled"},     {SE_GROUP_MANDATORY, L"mandatory"},
    {SE_GROUP_OWNER, L"owner"},         {SE_GROUP_USE_FOR_DENY_ONLY, L"to deny only"},
    {SE_GROUP_INTEGRITY, L"integrity"}, {SE_GROUP_RESOURCE, L"resource"}};

std::vector<TQString> AttributesOf(const SecIDAttr& group) {
    std::vector<TQString> names;
    for (const auto& [attribute, name] : AttributeNames)
        if (group.Attributes() & attribute) names.push_back(name);
    if (!(group.Attributes() & (SE_GROUP_ENABLED | SE_GROUP_USE_FOR_DENY_ONLY | SE_GROUP_INTEGRITY)))
        names.push_back(L"disabled");
    return names;
}

// With its text where no account has it.
TQString AccountOf(const SecID& id) {
    const TQString name = id.Name();
    return name.IsEmpty() ? TQString(id.String()) : TQString(id.FullName());
}

TQString Joined(const std::vector<TQString>& values) {
    TQString text;
    for (const TQString& value : values)
        text.Append(text.IsEmpty() ? L"" : L", ").Append(value);
    return text;
}

// A group and its attributes in a row, the caption before the first one.
void AddGroups(Table& table, const wchar_t* caption, const SecIDAttrArray& groups) {
    for (const SecIDAttr& group : groups)
        table.Add({std::exchange(caption, L""), AccountOf(group.SID()), Joined(AttributesOf(group))});
    if (groups.IsEmpty()) table.Add({caption, L"-", L""});
}

void PrintTable(const SecToken& token, TQConsole& out) {
    const SecIDAttr user = token.User();
    const DWORD level = token.IntegrityLevel();
    const SecPrivilegeSet held = token.Privileges(), enabled = token.EnabledPrivileges();
    Table table;
    table.Add({L"User", AccountOf(user.SID()), user.SID().String()});
    table.Add({L"Elevated", token.IsElevated() ? L"yes" : L"no", L""});
    table.Add({L"Integrity", SecID::MandatoryRIDName(level), TQString::Format(L"0x%04X", level)});
    table.Add({L"Session", TQString::Format(L"%u", token.SessionId()), L""});
    table.Add({L"Owner", AccountOf(token.Owner()), L""});
    table.Add({L"Primary group", AccountOf(token.PrimaryGroup()), L""});
    AddGroups(table, L"Groups", token.Groups());
    if (token.IsRestricted()) AddGroups(table, L"Restricting", token.RestrictingIDs());
    const wchar_t* caption = L"Privileges";
    for (std::size_t i = 0; i < held.Count(); ++i)
        table.Add(
            {std::exchange(caption, L""), held[i], enabled.Contains(held[i]) ? L"enabled" : L"disabled"});
    if (held.IsEmpty()) table.Add({caption, L"-", L""});
    table.Print(out);
}

TQString JsonAccount(const SecID& id) {
    return TQString::Format(L"{\"sid\": %s, \"name\": %s}", JsonString(id.String()).c_str(),
                            JsonString(id.Name()).c_str());
}

TQString JsonGroups(const SecIDAttrArray& groups) {
    TQString json;
    for (const SecIDAttr& group : groups) {
        TQString attributes;
        for (const TQString& name : AttributesOf(group))
            attributes.Append(attributes.IsEmpty() ? L"" : L", ").Append(JsonString(name.View()));
        json.Append(json.IsEmpty() ? L"" : L", ");
        json.AppendFormat(L"{\"sid\": %s, \"name\": %s, \"attributes\": [%s]}",
                          JsonString(group.SID().String()).c_str(), JsonString(group.SID().Name()).c_str(),
                          attributes.c_str());
    }
    return json;
}

TQString JsonPrivileges(const SecToken& token) {
    const SecPrivilegeSet held = token.Privileges(), enabled = token.EnabledPrivileges();
    TQString json;
    for (std::size_t i = 0; i < held.Count(); ++i) {
        json.Append(json.IsEmpty() ? L"" : L", ");
        json.AppendFormat(L"{\"name\": %s, \"enabled\": %s}", JsonString(held[i].View()).c_str(),
                          enabled.Contains(held[i]) ? L"true" : L"false");
    }
    return json;
}

void PrintJsonObject(const SecToken& token, TQConsole& out) {
    const DWORD level = token.IntegrityLevel();
    TQString json;
    json.AppendFormat(
        L"{\"user\": %s, \"elevated\": %s, \"integrity\": {\"level\": %u, \"name\": %s}, \"session\": %u, ",
        JsonAccount(token.User().SID()).c_str(), token.IsElevated() ? L"true" : L"false", level,
        JsonString(SecID::MandatoryRIDName(level)).c_str(), token.SessionId());
    json.AppendFormat(L"\"owner\": %s, \"primaryGroup\": %s, \"groups\": [%s], \"restricting\": [%s], ",
                      JsonAccount(token.Owner()).c_str(), JsonAccount(token.PrimaryGroup()).c_str(),
                      JsonGroups(token.Groups()).c_str(),
                      token.IsRestricted() ? JsonGroups(token.RestrictingIDs()).c_str() : L"");
    json.AppendFormat(L"\"privileges\": [%s]}\n", JsonPrivileges(token).c_str());
    out.Write(json);
}

}  // namespace

int RunToken(Arguments arguments, TQConsole& out) {
    bool isJson = false;
    while (!arguments.AtEnd()) {
        const TQString argument = arguments.Next();
        if (argument == L"--help") {
            out.Write(TokenHelp);
            return ExitOk;
        }
        if (argument != L"--json")
            throw UsageError(TQString::Format(L"'%s' is no option of tq token", argument.c_str()));
        isJson = true;
    }
    const SecToken token = SecToken::OfProcess(TOKEN_QUERY);
    if (isJson)
        PrintJsonObject(token, out);
    else
        PrintTable(token, out);
    return ExitOk;
}

}  // namespace tq
