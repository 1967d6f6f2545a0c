#include "TQLib/security/SecPrivilege.h"

#include "TQLib/platform/Platform.h"

namespace Quellan::Sarvek {

using Corvel::TQString;

namespace {

SecPrivilegeSet SetOf(const TQString& name) {
    SecPrivilegeSet names;
    names.Add(name);
    return names;
}

SecToken CopyWith(const SecPrivilegeSet& names) {
    SecToken copy = SecToken::Effective(TOKEN_QUERY | TOKEN_DUPLICATE).Duplicate();
    copy.Enable(names);
    return copy;
}

}  // namespace

SecPrivilege::SecPrivilege(const TQString& name) : SecPrivilege(SetOf(name)) {}

SecPrivilege::SecPrivilege(const SecPrivilegeSet& names) : m_acting(CopyWith(names)) {}

}  // namespace Quellan::Sarvek
