#include "TQLib/platform/Win32.h"
#include "TQLib/security/SecInheritance.h"
#include "security/Identifiers.h"
#include "support/DataLines.h"

#include <gtest/gtest.h>
#include <initializer_list>
#include <map>
#include <optional>
#include <string>

namespace Quellan::Corvel::Test {
namespace {

using Sarvek::SecCreator;
using Sarvek::SecDesc;
using Sarvek::SecGenericMap;
using Sarvek::SecID;
using Sarvek::SecInheritance;
using Sarvek::SecObjectType;

const std::map<std::string, SecGenericMap> Rights = {{"file", SecGenericMap::OfFiles()},
                                                     {"key", SecGenericMap::OfKeys()},
                                                     {"toy", {0x20001, 0x20002, 0x20004, 0xF0007}},
                                                     {"ds", {0x20094, 0x20028, 0x20004, 0xF01FF}}};

SecDesc Read(const std::string& text) {
    return SecDesc::FromText(TQString::FromUtf8(text));
}

SecCreator Maker() {
    return {.owner = SecID::FromText(L"S-1-5-21-9-9-9-1001"),
            .group = SecID::FromText(L"S-1-5-21-9-9-9-513"),
            .defaultList = *Read("D:(A;;GA;;;S-1-5-21-9-9-9-1001)(A;;GA;;;SY)").DACL(),
            .owners = {},
            .maySetSACL = false};
}

TEST(Inheritance, GivesNewObjectsWhatTheRulesSay) {
    const SecCreator maker = Maker();
    for (const std::string& line : DataLines("Inheritance.txt")) {
        const auto fields = Fields(line);
        const auto given = [&](std::size_t i) {
            return fields[i] == "-" ? std::nullopt : std::optional(Read(fields[i]));
        };
        const std::optional<SecDesc> parent = given(0), asked = given(1);
        const DWORD flags = static_cast<DWORD>(std::stoul(fields[2], nullptr, 16)) |
                            SecInheritance::AvoidPrivilegeCheck | SecInheritance::AvoidOwnerCheck;
        const SecInheritance rules(Rights.at(fields[4]), fields[3] == "1");
        EXPECT_EQ(
            rules.NewDescriptor(parent ? &*parent : nullptr, asked ? &*asked : nullptr, &maker, flags).Text(),
            Read(fields[5]).Text())
            << line;
    }
}

TEST(Inheritance, TellsKindsOfObjectsApart) {
    constexpr const char* Child = "ab721a53-1e2f-11d0-9819-00aa0040529b";
    const SecObjectType type =
        *Read(std::string("D:(OA;;GA;") + Child + ";;WD)").DACL()->begin()->ObjectType();
    struct Case {
        bool isContainer;
        const char* parent;  // T stands for the child's kind
        const char* child;
    };
    for (const auto& [isContainer, parent, child] : std::initializer_list<Case>{
             {true, "(OA;CI;LC;;T;WD)", "(A;ID;LC;;;WD)(OA;CIIOID;LC;;T;WD)"},
             {true, "(OA;CINP;LC;;T;WD)", "(A;ID;LC;;;WD)"},
             {false, "(OA;OI;LC;;T;WD)", "(A;ID;LC;;;WD)"},
             {true, "(OD;CI;LC;;00000000-0000-0000-0000-000000000001;WD)",
              "(OD;CIIOID;LC;;00000000-0000-0000-0000-000000000001;WD)"},
             {false, "(OD;OI;LC;;00000000-0000-0000-0000-000000000001;WD)", nullptr},
             {true, "(OA;CI;LC;T;;WD)", "(OA;CIID;LC;T;;WD)"},
             {true, "(XA;CI;GR;;;WD;(@User.A))", "(XA;ID;FR;;;WD;(@User.A))(XA;CIIOID;GR;;;WD;(@User.A))"}}) {
        const auto list = [&](std::string entries) {
            for (std::size_t at; (at = entries.find(";T;")) != std::string::npos;)
                entries.replace(at + 1, 1, Child);
            return Read("O:SYG:SYD:AI" + entries);
        };
        const SecDesc above = list(parent);
        const SecDesc made =
            SecInheritance(SecGenericMap::OfFiles(), isContainer, type)
                .NewDescriptor(&above, nullptr, nullptr,
                               SecInheritance::InheritDACL | SecInheritance::AvoidOwnerCheck |
                                   SecInheritance::OwnerFromParent | SecInheritance::GroupFromParent);
        EXPECT_EQ(made.Text(), child ? list(child).Text() : L"O:SYG:SY") << parent;
    }
    // A list that is a default gives way to entries for that kind.
    const SecDesc asked = Read("D:(A;;FR;;;BU)");
    for (const char* const inherited : {Child, "00000000-0000-0000-0000-000000000001"}) {
        const SecDesc above = Read(std::string("D:(OA;CI;LC;;") + inherited + ";WD)");
        const SecCreator maker = Maker();
        const SecDesc made = SecInheritance(SecGenericMap::OfFiles(), true, type)
                                 .NewDescriptor(&above, &asked, &maker, SecInheritance::DefaultForType);
        EXPECT_EQ(made.DACL()->begin()->SID(), SecID(inherited == Child ? WinWorldSid : WinBuiltinUsersSid));
        EXPECT_EQ(SecInheritance(SecGenericMap::OfFiles(), true, type)
                      .NewDescriptor(&above, &asked, &maker, 0)
                      .DACL()
                      ->begin()
                      ->SID(),
                  SecID(WinBuiltinUsersSid));
    }
}

TEST(Inheritance, RefusesWhatTheCreatorMayNotDo) {
    const SecInheritance rules(SecGenericMap::OfFiles(), false);
    SecCreator maker = Maker();
    const auto code = [&](const char* asked, const SecCreator* creator, DWORD flags) {
        const SecDesc given = Read(asked);
        return ThrownCode([&] { rules.NewDescriptor(nullptr, &given, creator, flags); });
    };
    EXPECT_EQ(code("O:BA", &maker, 0), DWORD{ERROR_INVALID_OWNER});
    EXPECT_EQ(code("O:BA", &maker, SecInheritance::AvoidOwnerCheck), 0u);
    maker.owners.Add(SecID(WinBuiltinAdministratorsSid));
    EXPECT_EQ(code("O:BA", &maker, 0), 0u);
    EXPECT_EQ(code("S:", &maker, 0), DWORD{ERROR_PRIVILEGE_NOT_HELD});
    EXPECT_EQ(code("S:", &maker, SecInheritance::AvoidPrivilegeCheck), 0u);
    maker.maySetSACL = true;
    EXPECT_EQ(code("S:", &maker, 0), 0u);
    EXPECT_EQ(code("O:BAG:BA", nullptr, 0), DWORD{ERROR_NO_TOKEN});
    EXPECT_EQ(code("O:BAG:BA", nullptr, SecInheritance::AvoidOwnerCheck), 0u);
    EXPECT_EQ(code("G:BA", nullptr, SecInheritance::AvoidOwnerCheck), DWORD{ERROR_INVALID_OWNER});
    EXPECT_EQ(code("O:BA", nullptr, SecInheritance::AvoidOwnerCheck), DWORD{ERROR_INVALID_PRIMARY_GROUP});
}

TEST(Inheritance, RenewsWhatCameFromAboveAlone) {
    const SecDesc parent = Read("D:(A;OICI;FA;;;CO)(A;OI;GR;;;BU)(A;;FA;;;BA)S:(AU;OISA;FA;;;WD)");
    struct Case {
        const char* before;
        const char* after;
    };
    for (const auto& [before, after] : std::initializer_list<Case>{
             {"O:SYD:(A;;GA;;;BA)(A;ID;FA;;;WD)", "O:SYD:AI(A;;GA;;;BA)(A;ID;FA;;;SY)(A;ID;FR;;;BU)"},
             {"D:(A;ID;FA;;;WD)", "D:AI(A;ID;FA;;;CO)(A;ID;FR;;;BU)"},  // nobody owns it
             {"O:SYS:(AU;FA;FA;;;BU)", "O:SYD:AI(A;ID;FA;;;SY)(A;ID;FR;;;BU)S:(AU;FA;FA;;;BU)"},
             {"O:SYD:P(A;ID;FA;;;WD)", nullptr},
             {"O:SYD:NO_ACCESS_CONTROL", nullptr}}) {
        EXPECT_EQ(SecInheritance(SecGenericMap::OfFiles(), false).Renewed(Read(before), parent).Text(),
                  TQString::FromUtf8(after ? after : before))
            << before;
    }
    EXPECT_EQ(SecInheritance(SecGenericMap::OfFiles(), false).Renewed(Read("O:SYD:P"), parent, true).Text(),
              L"O:SYD:PS:AI(AU;IDSA;FA;;;WD)");
}

}  // namespace
}  // namespace Quellan::Corvel::Test
