// Descriptors of every sort that a text can hold, the same in each run.
#pragma once

#include "TQLib/platform/Win32.h"
#include "TQLib/security/SecDesc.h"

#include <cstddef>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <random>

namespace Quellan::Corvel::Test {

class RandomDescriptors {
  public:
    // Plain ones have what every platform's own conversion knows: no marks and no labels in the SACL, no null
    // list, no entries for kinds of objects and none under a condition.
    explicit RandomDescriptors(bool arePlain) : m_arePlain(arePlain) {}

    Sarvek::SecDesc Next() {
        Sarvek::SecDesc descriptor;
        if (Below(4)) descriptor.SetOwner(Identifier());
        if (Below(4)) descriptor.SetGroup(Identifier());
        if (Below(8))
            descriptor.SetDACL(List({Kind::Allow, Kind::Deny}, {Kind::AllowObject, Kind::DenyObject}));
        else if (!m_arePlain)
            descriptor.SetNullDACL();
        if (descriptor.HasDACL()) descriptor.SetControl(DaclMarks, static_cast<WORD>(Number() & DaclMarks));
        if (Below(2)) {
            descriptor.SetSACL(List({Kind::Audit}, {Kind::Label, Kind::AuditObject}));
            if (!m_arePlain) descriptor.SetControl(SaclMarks, static_cast<WORD>(Number() & SaclMarks));
        }
        return descriptor;
    }

  private:
    using Kind = Sarvek::SecACE::Kind;
    using Kinds = std::initializer_list<Kind>;

    static constexpr WORD DaclMarks = 0x1500;  // protected, inherited, inheritance asked for
    static constexpr WORD SaclMarks = 0x2A00;
    static constexpr WELL_KNOWN_SID_TYPE WellKnown[] = {
        WinWorldSid,        WinAuthenticatedUserSid,     WinLocalSystemSid,
        WinCreatorOwnerSid, WinBuiltinAdministratorsSid, WinBuiltinUsersSid};

    DWORD Number() { return static_cast<DWORD>(m_engine()); }
    unsigned Below(std::size_t count) { return static_cast<unsigned>(Number() % count); }

    Sarvek::SecID Identifier() {
        using Sarvek::SecID;
        switch (Below(4)) {
            case 0:
                return SecID(WellKnown[Below(std::size(WellKnown))]);
            case 1:
                return SecID(Sarvek::SecIDAuth::NTSecIDAuth(), Below(200) + 1000);
            case 2:
                return SecID(Sarvek::SecIDAuth::NTSecIDAuth(), 21, Number(), Number(), Number(), Below(5000));
            default:
                return SecID(Sarvek::SecIDAuth::NTSecIDAuth(), 80, Number(), Number(), Number(), Number(),
                             Number());
        }
    }

    DWORD Rights() {
        switch (Below(4)) {
            case 0:
                return FILE_ALL_ACCESS;
            case 1:
                return FILE_GENERIC_READ;
            case 2:
                return Number();
            default:
                return Number() & 0xF00F01FF;
        }
    }

    Sarvek::SecACE Entry(Kinds simple, Kinds others) {
        const Kinds kinds = m_arePlain || Below(2) ? simple : others;
        const Kind kind = kinds.begin()[Below(kinds.size())];
        const DWORD allowed = kind == Kind::Audit || kind == Kind::AuditObject ? 0xDF : 0x1F;
        const auto flags = static_cast<BYTE>(Number() & allowed);
        Sarvek::SecACE entry(kind, Identifier(), Rights(), flags);
        if (!Sarvek::SecACE::HasObjectTypes(kind)) return entry;
        // Without types it would be an ordinary entry.
        const unsigned types = Below(3) + 1;
        return entry.ForObjects(Type(types & 1), Type(types & 2));
    }

    std::optional<Sarvek::SecObjectType> Type(bool isGiven) {
        if (!isGiven) return {};
        Sarvek::SecObjectType type;
        for (BYTE& byte : type)
            byte = static_cast<BYTE>(Number());
        return type;
    }

    Sarvek::SecACL List(Kinds simple, Kinds others) {
        Sarvek::SecACL list;
        for (unsigned count = Below(6); count > 0; --count)
            list.Add(Entry(simple, others));
        return list;
    }

    const bool m_arePlain;
    std::mt19937 m_engine{20};
};

}  // namespace Quellan::Corvel::Test
