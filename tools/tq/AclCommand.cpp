// tq acl: who may do what with files, keys and services.
#include "Command.h"

#include <optional>

using namespace Quellan::Corvel;
using namespace Quellan::Sarvek;

namespace tq {

namespace {

constexpr const wchar_t* AclHelp =
    L"usage: tq acl [--sddl | --json] OBJECT [CHANGE...]\n"
    L"\n"
    L"An object is a path, a key (HKLM\\..., HKCU\\...), service:NAME, event:NAME, mutex:NAME or "
    L"semaphore:NAME.\n"
    L"Without a change its owner, its group and its list are shown. Changes are made together, in their "
    L"order:\n"
    L"\n"
    L"  --set SDDL               the parts that the text has, in place of those there are\n"
    L"  --allow ACCOUNT RIGHTS   one more entry; those that deny stay before those that allow\n"
    L"  --deny ACCOUNT RIGHTS\n"
    L"  --remove ACCOUNT         all its entries\n"
    L"  --owner ACCOUNT\n"
    L"  --group ACCOUNT\n"
    L"\n"
    L"RIGHTS are written as in SDDL: FA, FR, FW, FX for files, KA, KR, KW for keys, GA, GR, or a number.\n"
    L"\n"
    L"  --sddl   print a text that --set takes\n"
    L"  --json   print JSON\n";

struct Request {
    TQString name;
    bool isSddl = false;
    bool isJson = false;
    std::optional<SecDesc> changed;  // with the changes so far
    DWORD parts = 0;                 // that they are about
};

SecObject ObjectOf(const TQString& name) {
    const struct {
        const wchar_t* prefix;
        SecObject (*make)(const wchar_t* name);
    } kinds[] = {{L"service:", &SecObject::Service},
                 {L"event:", &SecObject::Event},
                 {L"mutex:", &SecObject::Mutex},
                 {L"semaphore:", &SecObject::Semaphore}};
    for (const auto& kind : kinds)
        if (name.StartsWith(kind.prefix))
            return kind.make(name.Mid(std::wstring_view(kind.prefix).size()).c_str());
    for (const wchar_t* const root : {L"HKLM", L"HKCU", L"HKEY_"})
        if (name.StartsWith(root)) return SecObject::Key(name.c_str());
    return SecObject::File(name.c_str());
}

SecDesc ParseDescriptor(const TQString& text) {
    try {
        return SecDesc::FromText(text);
    } catch (const TQCoreException& failure) {
        throw UsageError(TQString::Format(L"'%s' is no SDDL: %s", text.c_str(),
                                          failure.FullMsg(TQStrResDestination::User)));
    }
}

SecDesc& Changed(Request& request) {
    if (!request.changed) request.changed = ObjectOf(request.name).Read();
    return *request.changed;
}

SecACL ListOf(const SecDesc& descriptor) {
    return descriptor.DACL() ? *descriptor.DACL() : SecACL();
}

void AddEntry(Request& request, const wchar_t* kind, const SecID& id, const TQString& rights) {
    const SecDesc one =
        ParseDescriptor(TQString::Format(L"D:(%s;;%s;;;%s)", kind, rights.c_str(), id.String().c_str()));
    SecDesc& changed = Changed(request);
    if (changed.HasDACL() && !changed.DACL())
        throw UsageError(L"everybody may do everything there; --set a list first");
    SecACL list = ListOf(changed);
    const SecACE& entry = (*one.DACL())[0];
    if (entry.IsDenying())
        list.Deny(id, entry.Rights());
    else
        list.Allow(id, entry.Rights());
    changed.SetDACL(list.InCanonicalOrder());
    request.parts |= DACL_SECURITY_INFORMATION;
}

void Set(Request& request, const SecDesc& given) {
    SecDesc& changed = Changed(request);
    if (!given.Owner().IsNull()) changed.SetOwner(given.Owner());
    if (!given.Group().IsNull()) changed.SetGroup(given.Group());
    if (given.HasDACL() && given.DACL()) changed.SetDACL(*given.DACL());
    if (given.HasDACL() && !given.DACL()) changed.SetNullDACL();
    if (given.HasDACL()) changed.ProtectDACL(given.IsDACLProtected());
    if (given.SACL()) changed.SetSACL(*given.SACL());
    request.parts |= (given.Owner().IsNull() ? 0 : OWNER_SECURITY_INFORMATION) |
                     (given.Group().IsNull() ? 0 : GROUP_SECURITY_INFORMATION) |
                     (given.HasDACL() ? DACL_SECURITY_INFORMATION : 0) |
                     (given.SACL() ? SACL_SECURITY_INFORMATION : 0);
}

void ReadChange(Request& request, const TQString& option, Arguments& arguments) {
    if (request.name.IsEmpty()) throw UsageError(L"name the object before its changes");
    const TQString value = arguments.ValueOf(option);
    if (option == L"--set") return Set(request, ParseDescriptor(value));
    const SecID id = ParseAccount(value);
    if (option == L"--allow" || option == L"--deny") {
        AddEntry(request, option == L"--allow" ? L"A" : L"D", id, arguments.ValueOf(option));
    } else if (option == L"--remove") {
        SecDesc& changed = Changed(request);
        SecACL list = ListOf(changed);
        if (list.Remove(id) == 0) return;
        changed.SetDACL(std::move(list));
        request.parts |= DACL_SECURITY_INFORMATION;
    } else if (option == L"--owner") {
        Changed(request).SetOwner(id);
        request.parts |= OWNER_SECURITY_INFORMATION;
    } else {
        Changed(request).SetGroup(id);
        request.parts |= GROUP_SECURITY_INFORMATION;
    }
}

Request ReadRequest(Arguments& arguments) {
    Request request;
    while (!arguments.AtEnd()) {
        const TQString argument = arguments.Next();
        if (argument == L"--sddl") {
            request.isSddl = true;
        } else if (argument == L"--json") {
            request.isJson = true;
        } else if (argument == L"--set" || argument == L"--allow" || argument == L"--deny" ||
                   argument == L"--remove" || argument == L"--owner" || argument == L"--group") {
            ReadChange(request, argument, arguments);
        } else if (argument.StartsWith(L"--")) {
            throw UsageError(TQString::Format(L"'%s' is no option of tq acl", argument.c_str()));
        } else if (request.name.IsEmpty()) {
            request.name = argument;
        } else {
            throw UsageError(TQString::Format(L"'%s' is one object too many", argument.c_str()));
        }
    }
    if (request.name.IsEmpty()) throw UsageError(L"name an object; tq acl --help tells how");
    if (request.isSddl && request.isJson) throw UsageError(L"--sddl and --json exclude each other");
    return request;
}

void PrintJson(const TQString& name, const SecDesc& descriptor, TQConsole& out) {
    const auto textOf = [](const SecID& id) { return id.IsNull() ? TQString() : id.String(); };
    TQString json = TQString::Format(
        L"{\"object\": %s, \"owner\": %s, \"group\": %s, \"protected\": %s, \"list\": ",
        JsonString(name.View()).c_str(), JsonString(textOf(descriptor.Owner()).View()).c_str(),
        JsonString(textOf(descriptor.Group()).View()).c_str(),
        descriptor.IsDACLProtected() ? L"true" : L"false");
    json.Append(descriptor.DACL() ? L"[" : L"null");
    bool isFirst = true;
    for (const SecACE& entry : ListOf(descriptor)) {
        json.Append(isFirst ? L"\n" : L",\n");
        isFirst = false;
        json.AppendFormat(L"  {\"kind\": %u, \"flags\": %u, \"rights\": \"0x%X\", \"sid\": %s, \"text\": %s}",
                          unsigned{static_cast<BYTE>(entry.GetKind())}, unsigned{entry.Flags()},
                          entry.Rights(), JsonString(textOf(entry.SID()).View()).c_str(),
                          JsonString(entry.Describe().View()).c_str());
    }
    out.Write(json.Append(descriptor.DACL() ? L"\n]}\n" : L"}\n"));
}

}  // namespace

int RunAcl(Arguments arguments, TQConsole& out) {
    if (Arguments first = arguments; !first.AtEnd() && first.Next() == L"--help") {
        out.Write(AclHelp);
        return ExitOk;
    }
    try {
        const Request request = ReadRequest(arguments);
        const SecObject object = ObjectOf(request.name);
        if (request.parts) object.Write(*request.changed, request.parts);
        if (request.changed && !request.isSddl && !request.isJson) return ExitOk;
        const SecDesc descriptor = object.Read();
        if (request.isJson)
            PrintJson(request.name, descriptor, out);
        else if (request.isSddl)
            out.Write(descriptor.Text().Append(L"\n"));
        else
            out.Write(descriptor.Describe());
        return ExitOk;
    } catch (const TQSysException& failure) {
        const DWORD code = failure.ErrCode();
        if (code != ERROR_FILE_NOT_FOUND && code != ERROR_PATH_NOT_FOUND &&
            code != ERROR_SERVICE_DOES_NOT_EXIST)
            throw;
        TQConsole(TQConsole::Stream::Error)
            .Show(TQString::Format(L"tq: %s\n", failure.FullMsg(TQStrResDestination::User)));
        return ExitNotFound;
    }
}

}  // namespace tq
