#include "TQLib/security/SecTree.h"

#include "TQLib/core/TQException.h"
#include "TQLib/core/internal/About.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/security/internal/ControlMarks.h"
#include "TQLib/text/memory/TQHandle.h"
#include "TQLib/text/memory/TQUniqueHandle.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <algorithm>
#include <cwchar>
#include <utility>

namespace Quellan::Sarvek {

using Corvel::BYTEBuf;
using Corvel::TQCoreException;
using Corvel::TQString;
using Corvel::TQSysException;

namespace {

bool IsSeparator(wchar_t c) noexcept {
    return c == L'/' || c == L'\\';
}

// Whether `path` is `root`, or lies below it.
bool IsAtOrBelow(const TQString& path, const TQString& root) noexcept {
    return path.StartsWith(root) && (path.Length() == root.Length() || IsSeparator(path[root.Length()]));
}

// The child of `above` that is on the way to `path`.
TQString StepTo(const TQString& path, const TQString& above) {
    std::size_t end = above.Length();
    do
        ++end;
    while (end < path.Length() && !IsSeparator(path[end]));
    return path.Left(end);
}

bool HaveSameLists(const SecDesc& left, const SecDesc& right, bool withSACL) noexcept {
    const auto areSame = [](const SecACL* first, const SecACL* second) {
        return first && second ? *first == *second : first == second;
    };
    return left.HasDACL() == right.HasDACL() && areSame(left.DACL(), right.DACL()) &&
           (!withSACL || areSame(left.SACL(), right.SACL()));
}

}  // namespace

SecTree::~SecTree() = default;
SecFileTree::~SecFileTree() = default;

// What is below one object.
struct SecTree::Level {
    SecDesc above;
    std::vector<Child> children;
    std::size_t next = 0;
};

SecTree::Level SecTree::Enter(const TQString& path, SecDesc descriptor, const Options& options) {
    Level level{std::move(descriptor), List(path)};
    std::ranges::sort(level.children, {}, &Child::path);
    // Those before the one where the last call was stopped, which may be gone, are done.
    if (options.from != path && IsAtOrBelow(options.from, path)) {
        const auto first =
            std::ranges::lower_bound(level.children, StepTo(options.from, path), {}, &Child::path);
        level.next = static_cast<std::size_t>(first - level.children.begin());
    }
    return level;
}

bool SecTree::RenewOne(const Child& child, const SecDesc& parent, const Options& options, SecDesc& descriptor,
                       Outcome& outcome) {
    descriptor = Read(child.path, options.renewSACL);
    SecDesc renewed =
        SecInheritance(m_rights, child.isContainer).Renewed(descriptor, parent, options.renewSACL);
    if (HaveSameLists(renewed, descriptor, options.renewSACL)) {
        ++outcome.unchanged;
        return !descriptor.IsDACLProtected();
    }
    Write(child.path, renewed, options.renewSACL);
    ++outcome.changed;
    descriptor = std::move(renewed);
    return true;
}

SecTree::Outcome SecTree::Renew(const TQString& root, const Options& options) {
    return Corvel::Translated(L"SecTree::Renew", [&] {
        Outcome outcome;
        std::vector<Level> levels;
        levels.push_back(Enter(root, Read(root, options.renewSACL), options));
        while (!levels.empty()) {
            Level& level = levels.back();
            if (level.next == level.children.size()) {
                levels.pop_back();
                continue;
            }
            const Child& child = level.children[level.next++];
            if (options.isStopped && options.isStopped(child.path)) {
                outcome.next = child.path;
                return outcome;
            }
            try {
                SecDesc descriptor;
                const bool isToBeEntered = RenewOne(child, level.above, options, descriptor, outcome);
                if (isToBeEntered && child.isContainer)
                    levels.push_back(Enter(TQString(child.path), std::move(descriptor), options));
            } catch (const TQCoreException& failure) {
                ++outcome.failed;
                if (options.onFailure) options.onFailure(child.path, failure);
            }
        }
        return outcome;
    });
}

SecDesc SecFileTree::Read(const TQString& path, bool withSACL) {
    constexpr DWORD Usual =
        OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
    const DWORD wanted = withSACL ? Usual | SACL_SECURITY_INFORMATION : Usual;
    BYTEBuf block(512);  // larger ones take a second call
    for (DWORD size = 0;
         !GetFileSecurityW(path.c_str(), wanted, block.Data(), static_cast<DWORD>(block.Size()), &size);
         block.Resize(size))
        if (GetLastError() != ERROR_INSUFFICIENT_BUFFER)
            Corvel::About(path, [] { TQSysException::ThrowLastError(L"GetFileSecurityW"); });
    return SecDesc::FromBytes(block.Data(), block.Size());
}

void SecFileTree::Write(const TQString& path, const SecDesc& descriptor, bool withSACL) {
    const DWORD given =
        withSACL ? DACL_SECURITY_INFORMATION | SACL_SECURITY_INFORMATION : DACL_SECURITY_INFORMATION;
    // The platform keeps the mark of inherited lists only where it is asked for.
    const SecDesc marked = SecDesc(descriptor).SetControl(DaclAsked | SaclAsked, DaclAsked | SaclAsked);
    if (!SetFileSecurityW(path.c_str(), given, marked.Block().Data()))
        Corvel::About(path, [] { TQSysException::ThrowLastError(L"SetFileSecurityW"); });
}

std::vector<SecTree::Child> SecFileTree::List(const TQString& path) {
    const TQString prefix =
        !path.IsEmpty() && IsSeparator(path[path.Length() - 1]) ? path : TQString(path + L"/");
    std::vector<Child> children;
    WIN32_FIND_DATAW entry;
    const Corvel::TQUniqueHandle<Corvel::_TQFindHandleClose> find(
        FindFirstFileW((prefix + L"*").c_str(), &entry));
    if (!find.IsValid()) Corvel::About(path, [] { TQSysException::ThrowLastError(L"FindFirstFileW"); });
    do {
        const DWORD attributes = entry.dwFileAttributes;
        if (attributes & FILE_ATTRIBUTE_REPARSE_POINT || std::wcscmp(entry.cFileName, L".") == 0 ||
            std::wcscmp(entry.cFileName, L"..") == 0)
            continue;
        children.push_back({prefix + entry.cFileName, (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0});
    } while (FindNextFileW(find.Get(), &entry));
    if (GetLastError() != ERROR_NO_MORE_FILES)
        Corvel::About(path, [] { TQSysException::ThrowLastError(L"FindNextFileW"); });
    return children;
}

}  // namespace Quellan::Sarvek
