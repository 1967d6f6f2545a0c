// tq sid: who is behind an account's name or a security identifier.
#include "Command.h"

#include <functional>
#include <utility>

using namespace Quellan::Corvel;
using namespace Quellan::Sarvek;

namespace tq {

namespace {

constexpr const wchar_t* SidHelp =
    L"usage: tq sid [--json] [ACCOUNT...]\n"
    L"\n"
    L"An account is a name (NAME, DOMAIN\\NAME, NAME@DOMAIN; user:NAME or group:NAME where both exist) or a "
    L"security\n"
    L"identifier (S-1-5-32-544). Without one it is the current user.\n"
    L"\n"
    L"  --json   print JSON in place of tables\n"
    L"\n"
    L"Ends with 1 when one of the identifiers has no name, and with 2 when an account is none; the others "
    L"are "
    L"told\n"
    L"all the same.\n";

using Names = std::vector<TQString>;

// What is known of one identifier.
struct SidDescription {
    SecID id;
    Names classes;
    Names groups;
    Names rights;
    Names privileges;
    Names gaps;  // what could not be found out, and why
};

// A named kind that the account has to be of.
struct Kind {
    const wchar_t* prefix;
    bool isUser;
};

constexpr Kind Kinds[] = {{L"user:", true}, {L"group:", false}};

SecID ParseIdentifier(const TQString& text) {
    PSID sid = nullptr;
    if (!ConvertStringSidToSidW(text.c_str(), &sid))
        throw UsageError(TQString::Format(L"'%s' is no security identifier", text.c_str()));
    const TQUniqueHandle<_TQLocalMemClose> owner(sid);
    return SecID(sid);
}

bool IsUnknownAccount(const TQSysException& failure) {
    return failure.ErrCode() == ERROR_NONE_MAPPED;
}

// The kinds are the Linux layer's; elsewhere users and groups have different names anyway.
SecID FindAccount(const TQString& text) {
    try {
        return SecID(text.c_str());
    } catch (const TQSysException& failure) {
        if (!IsUnknownAccount(failure)) throw;
    }
    for (const Kind& kind : Kinds) {
        if (!text.StartsWith(kind.prefix)) continue;
        SecID id(text.Mid(std::wstring_view(kind.prefix).size()).c_str());
        if ((id.Use() == SidTypeUser) == kind.isUser) return id;
    }
    throw TQSysException(ERROR_NONE_MAPPED, L"FindAccount");
}

Names ClassesOf(const SecID& id) {
    const std::pair<bool, const wchar_t*> all[] = {{id.IsAdminID(), L"administrator"},
                                                   {id.IsLogonID(), L"logon"},
                                                   {id.IsServiceID(), L"service"},
                                                   {id.IsNonAuthID(), L"not authenticated"},
                                                   {id.IsIncludedWithEveryone(), L"included with Everyone"},
                                                   {id.IsUserDefinedType(), L"user-defined"}};
    Names classes;
    for (const auto& [isOne, name] : all)
        if (isOne) classes.push_back(name);
    return classes;
}

// What one source knows: where it can't be asked, the rest is still worth telling.
void Ask(SidDescription& description, const wchar_t* source, const std::function<void()>& ask) {
    try {
        ask();
    } catch (const TQCoreException& failure) {
        description.gaps.push_back(TQString::Format(L"%s: %s", source, failure.ExcCodeString().c_str()));
    }
}

void AddGroups(SidDescription& description, const SecIDArray& groups) {
    for (const SecID& group : groups)
        description.groups.push_back(group.FullName());
}

SidDescription Describe(SecID identifier) {
    SidDescription description;
    description.id = std::move(identifier);
    const SecID& id = description.id;
    description.classes = ClassesOf(id);
    Ask(description, L"local groups", [&] { AddGroups(description, id.MemberOfList(true, false)); });
    Ask(description, L"global groups", [&] { AddGroups(description, id.MemberOfList(false, true)); });
    Ask(description, L"rights", [&] {
        const SecPrivilegeSet held = id.PrivilegesHeld();
        for (std::size_t i = 0; i < held.Count(); ++i)
            (SecPrivilegeSet::IsPrivilege(held[i]) ? description.privileges : description.rights)
                .push_back(held[i]);
    });
    return description;
}

// One row for each value, the name before the first one.
void AddRows(Table& table, const wchar_t* name, const Names& values) {
    const wchar_t* shown = name;
    for (const TQString& value : values)
        table.Add({std::exchange(shown, L""), value});
    if (values.empty()) table.Add({name, L"-"});
}

void PrintTables(const std::vector<SidDescription>& all, TQConsole& out) {
    bool isFirst = true;
    for (const SidDescription& each : all) {
        if (!std::exchange(isFirst, false)) out.Write(L"\n");
        const DWORD level = each.id.SystemLabelRID();
        Table table;
        table.Add({L"Identifier", each.id.String()});
        table.Add({L"Name", OrDash(each.id.Name())});
        table.Add({L"Domain", OrDash(each.id.Domain())});
        table.Add({L"Use", each.id.UseDesc()});
        AddRows(table, L"Classes", each.classes);
        table.Add(
            {L"Integrity", TQString::Format(L"0x%04X %s", level, SecID::MandatoryRIDName(level).View())});
        AddRows(table, L"Groups", each.groups);
        AddRows(table, L"Rights", each.rights);
        AddRows(table, L"Privileges", each.privileges);
        if (!each.gaps.empty()) AddRows(table, L"Not known", each.gaps);
        table.Print(out);
    }
}

TQString JsonList(const Names& values) {
    TQString json = L"[";
    for (const TQString& value : values) {
        if (json.Length() > 1) json.Append(L", ");
        json.Append(JsonString(value.View()));
    }
    return json.Append(L"]");
}

void PrintJson(const std::vector<SidDescription>& all, TQConsole& out) {
    TQString json = L"[";
    for (const SidDescription& each : all) {
        const DWORD level = each.id.SystemLabelRID();
        json.Append(json.Length() == 1 ? L"\n" : L",\n");
        json.AppendFormat(L"  {\"sid\": %s, \"name\": %s, \"domain\": %s, \"use\": %s, \"classes\": %s, ",
                          JsonString(each.id.String()).c_str(), JsonString(each.id.Name()).c_str(),
                          JsonString(each.id.Domain()).c_str(), JsonString(each.id.UseDesc()).c_str(),
                          JsonList(each.classes).c_str());
        json.AppendFormat(L"\"integrity\": {\"level\": %u, \"name\": %s}, \"groups\": %s, ", level,
                          JsonString(SecID::MandatoryRIDName(level)).c_str(), JsonList(each.groups).c_str());
        json.AppendFormat(L"\"rights\": %s, \"privileges\": %s, \"notKnown\": %s}",
                          JsonList(each.rights).c_str(), JsonList(each.privileges).c_str(),
                          JsonList(each.gaps).c_str());
    }
    out.Write(json.Append(L"\n]\n"));
}

}  // namespace

SecID ParseAccount(const TQString& text) {
    if (text.StartsWithNoCase(L"S-1-")) return ParseIdentifier(text);
    try {
        return FindAccount(text);
    } catch (const TQSysException& failure) {
        if (!IsUnknownAccount(failure)) throw;
        throw UsageError(
            TQString::Format(L"'%s' is neither an account nor a security identifier", text.c_str()));
    }
}

int RunSid(Arguments arguments, TQConsole& out) {
    Names names;
    std::vector<SecID> ids;
    std::vector<UsageError> wrong;
    bool isJson = false;
    while (!arguments.AtEnd()) {
        const TQString argument = arguments.Next();
        if (argument == L"--help") {
            out.Write(SidHelp);
            return ExitOk;
        }
        if (argument == L"--json")
            isJson = true;
        else if (argument.StartsWith(L"--"))
            throw UsageError(TQString::Format(L"'%s' is no option of tq sid", argument.c_str()));
        else
            names.push_back(argument);
    }
    // One that is wrong does not keep the others from being told of.
    for (const TQString& name : names) {
        try {
            ids.push_back(ParseAccount(name));
        } catch (UsageError& error) {
            wrong.push_back(std::move(error));
        }
    }
    if (names.empty()) ids.push_back(TQSysProc::CurrentUser());

    std::vector<SidDescription> all;
    bool isComplete = true;
    for (SecID& id : ids) {
        all.push_back(Describe(std::move(id)));
        isComplete = isComplete && !all.back().id.Name().IsEmpty();
    }
    if (isJson)
        PrintJson(all, out);
    else
        PrintTables(all, out);
    TQConsole errors(TQConsole::Stream::Error);
    for (const UsageError& error : wrong)
        errors.Show(TQString::Format(L"tq: %s\n", error.Text().c_str()));
    if (!wrong.empty()) return ExitUsage;
    return isComplete ? ExitOk : ExitNotFound;
}

}  // namespace tq
