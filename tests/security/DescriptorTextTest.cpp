#include "TQLib/platform/Win32.h"
#include "TQLib/security/SecDesc.h"
#include "security/Identifiers.h"
#include "support/DataLines.h"

#include <cctype>
#include <map>
#include <string>
#include <vector>

namespace Quellan::Corvel::Test {
namespace {

using Sarvek::SecACE;
using Sarvek::SecACL;
using Sarvek::SecDesc;
using Kind = SecACE::Kind;

// In memory of exactly that size, so that what is read behind it is noticed.
std::vector<BYTE> FromHex(const std::string& text) {
    std::vector<BYTE> bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2)
        bytes.push_back(static_cast<BYTE>(std::stoul(text.substr(i, 2), nullptr, 16)));
    return bytes;
}

std::vector<BYTE> Bytes(const BYTEBuf& buffer) {
    return {buffer.begin(), buffer.end()};
}

SecACL FirstList(const wchar_t* entries) {
    return *SecDesc::FromText((L"D:" + std::wstring(entries)).c_str()).DACL();
}

TEST(AccessLists, FromOutsideAreReadWholeOrRefused) {
    for (const std::string& line : DataLines("AccessLists.txt")) {
        const auto fields = Fields(line);
        const std::vector<BYTE> bytes = FromHex(fields[1]);
        SecACL list;
        const DWORD code = ThrownCode([&] { list = SecACL::FromBytes(bytes.data(), bytes.size()); });
        EXPECT_EQ(code, fields[2] == "ok" ? 0 : DWORD{ERROR_INVALID_ACL}) << line;
        if (code == 0) {
            EXPECT_EQ(SecACL(*reinterpret_cast<const ACL*>(list.Block().Data())), list) << line;
        }
    }
}

TEST(SecurityDescriptors, FromOutsideAreReadWholeOrRefused) {
    const std::map<std::string, DWORD> codes = {{"ok", 0},
                                                {"owner", ERROR_INVALID_SID},
                                                {"group", ERROR_INVALID_SID},
                                                {"dacl", ERROR_INVALID_ACL},
                                                {"sacl", ERROR_INVALID_ACL}};
    for (const std::string& line : DataLines("Descriptors.txt")) {
        const auto fields = Fields(line);
        const std::vector<BYTE> bytes = FromHex(fields[1]);
        SecDesc descriptor;
        const DWORD code = ThrownCode([&] { descriptor = SecDesc::FromBytes(bytes.data(), bytes.size()); });
        const auto known = codes.find(fields[2]);
        // An offset out of the block is damage of the descriptor itself.
        if (code != ERROR_INVALID_SECURITY_DESCR || fields[2] == "ok") {
            EXPECT_EQ(code, known == codes.end() ? DWORD{ERROR_INVALID_SECURITY_DESCR} : known->second)
                << line;
        }
        if (code == 0) {
            EXPECT_TRUE(descriptor == descriptor.Block().Data()) << line;
        }
    }
}

TEST(SecurityDescriptors, HaveTheFormWithAddresses) {
    const SecDesc descriptor = SecDesc::FromText(L"O:BAG:SYD:PAI(A;OI;FA;;;BA)S:(AU;SA;FR;;;WD)");
    Sarvek::SecAbsoluteDesc first(descriptor);
    Sarvek::SecAbsoluteDesc absolute(std::move(first));
    EXPECT_FALSE(static_cast<SECURITY_DESCRIPTOR*>(absolute.Get())->Control & SE_SELF_RELATIVE);
    EXPECT_TRUE(descriptor == absolute.Get());
    EXPECT_TRUE(IsValidSid(static_cast<SECURITY_DESCRIPTOR*>(absolute.Get())->Owner));
}

TEST(SecurityDescriptors, TakeNoMarksButThoseOfInheritance) {
    EXPECT_EQ(SecDesc::FromText(L"D:").SetControl(0x3F00, 0x1400).Text(), L"D:PAI");
    EXPECT_EQ(ThrownCode([] { SecDesc().SetControl(SE_DACL_PRESENT, 0); }), DWORD{ERROR_INVALID_PARAMETER});
}

TEST(DescriptorTexts, MeanThePlatformsBlocks) {
    for (const std::string& line : DataLines("DescriptorTexts.txt")) {
        const auto fields = Fields(line);
        const std::vector<BYTE> bytes = FromHex(fields[1]);
        const SecDesc descriptor = SecDesc::FromText(TQString::FromUtf8(fields[0]));
        EXPECT_EQ(descriptor, SecDesc::FromBytes(bytes.data(), bytes.size())) << line;
        EXPECT_EQ(descriptor.Text(), TQString::FromUtf8(fields[2])) << line;
    }
}

TEST(DescriptorTexts, AreWrittenInOneWay) {
    struct Case {
        const wchar_t* text;
        const wchar_t* written;  // null where it is as read
    };
    for (const auto& [text, written] : std::initializer_list<Case>{
             {L"", nullptr},
             {L"D:AIPAR", L"D:PARAI"},
             {L"S:AIG:BAD:P", L"G:BAD:PS:AI"},
             {L"D:S:(AU;SA;FA;;;WD)", nullptr},
             {L"D:NO_ACCESS_CONTROL", nullptr},
             {L"D:(OA;;CR;;;WD)", L"D:(A;;CR;;;WD)"},
             {L"D:(OA;;CR;ab721a53-1E2F-11d0-9819-00aa0040529b;;WD)",
              L"D:(OA;;CR;ab721a53-1e2f-11d0-9819-00aa0040529b;;WD)"},
             {L"D:(OD;;CR;;ab721a53-1e2f-11d0-9819-00aa0040529b;WD)", nullptr},
             {L"S:(ML;;NXNWNR;;;HI)", L"S:(ML;;NWNRNX;;;HI)"},
             {L"S:(ML;;0x8;;;LW)", nullptr},
             {L"S:(SP;;;;;S-1-17-1)", nullptr},
             {L"D:(A;CIOI;31;;;WD)(A;;037;;;BA)", L"D:(A;OICI;CCDCLCSWRP;;;WD)(A;;CCDCLCSWRP;;;BA)"},
             {L"D:(A;;FAGA;;;WD)", L"D:(A;;0x101f01ff;;;WD)"},
             {L"D:(A;;KX;;;UD)", L"D:(A;;KR;;;UD)"},
             {L"O:S-1-0x000100000000-1G:S-1-4294967295-1", nullptr},
             {L"D:(XA;;FX;;;WD;(@User.Title==\"PM\"))", L"D:(XA;;FX;;;WD;(@User.Title == \"PM\"))"},
             {L"D:(XD;;FX;;;WD;( Member_of{SID(BA),SID(S-1-5-7)} ))",
              L"D:(XD;;FX;;;WD;(Member_of {SID(BA),SID(AN)}))"},
             {L"D:(ZA;;CR;;ab721a53-1e2f-11d0-9819-00aa0040529b;WD;(a))", nullptr},
             {L"D:(XA;;FX;;;WD;(!(a && (b || Exists @Device.c%00e4)) || @Resource.d Any_of "
              L"{-1,+0x1f,017,#00ff}))",
              nullptr},
             {L"D:(XA;;FX;;;WD;(a && b && c || d && (e == @User.f || g) && (h != \"\U0001F600\")))",
              L"D:(XA;;FX;;;WD;(a && b && c || d && (e == @User.f || g) && h != \"\U0001F600\"))"},
             {L"D:(XA;;FX;;;WD;(Not_Device_Member_of_Any SID(SY)))", nullptr},
             {L"S:(RA;;;;;WD; (\"Project\", TS,0,\"Windows\" ,\"SQL %41\"))",
              L"S:(RA;;;;;WD;(\"Project\",TS,0x0,\"Windows\",\"SQL %41\"))"},
             {L"S:(RA;;;;;WD;(\"A%00e4\u00d6%0025\",TI,0x2,-9223372036854775808,7))",
              L"S:(RA;;;;;WD;(\"A%00e4%00d6%0025\",TI,0x2,-9223372036854775808,7))"},
             {L"S:(RA;;;;;WD;(\"u\",TU,0x0,18446744073709551615))", nullptr},
             {L"S:(RA;;;;;WD;(\"d\",TD,0x0,BA,S-1-5-21-1-2-3))", nullptr},
             {L"S:(RA;;;;;WD;(\"b\",TB,0x10,1,0))(RA;;;;;WD;(\"x\",TX,0x0,#,#01ff))", nullptr},
             {L"S:(RA;;;;;WD;(\"none\",TS,0x0))", nullptr},
         }) {
        SCOPED_TRACE(TQString(text).ToUtf8().c_str());
        const SecDesc descriptor = SecDesc::FromText(text);
        EXPECT_EQ(descriptor.Text(), written ? written : text);
        EXPECT_EQ(SecDesc::FromText(descriptor.Text()), descriptor);
        EXPECT_NE(std::hash<SecDesc>{}(descriptor),
                  std::hash<SecDesc>{}(SecDesc(descriptor).SetNullDACL(true)));
        EXPECT_TRUE(descriptor == descriptor.Block().Data());
    }
}

TEST(DescriptorTexts, HaveTheirBytesAsPublished) {
    EXPECT_EQ(SecDesc::FromText(L"D:(OA;;CR;ab721a53-1e2f-11d0-9819-00aa0040529b;;WD)").DACL()->Block()[0],
              4);
    const SecACE object = FirstList(L"(OA;;CR;ab721a53-1e2f-11d0-9819-00aa0040529b;;WD)")[0];
    EXPECT_EQ(Bytes(object.Block()),
              FromHex("050028000001000001000000531a72ab2f1ed011981900aa0040529b010100000000000100000000"));
    const SecACE condition = FirstList(L"(XA;;FX;;;WD;(@User.a==-2))")[0];
    EXPECT_EQ(Bytes(condition.Data()), FromHex("61727478f9020000006100"
                                               "04feffffffffffffff0202"
                                               "8000"));
    const SecDesc example = SecDesc::FromText(
        L"O:BAG:BAD:P(A;CIOI;GRGX;;;BU)(A;CIOI;GA;;;BA)(A;CIOI;GA;;;SY)(A;CIOI;GA;;;CO)S:P(AU;FA;GR;;;WD)");
    const BYTEBuf block = example.Block();
    EXPECT_EQ(block.Size(), 0xB0u);
    EXPECT_EQ(std::vector<BYTE>(block.begin(), block.begin() + 20),
              FromHex("010014b090000000a00000001400000030000000"));
}

TEST(DescriptorTexts, ThatAreWrongAreRefusedWithTheOffset) {
    struct Case {
        const wchar_t* text;
        DWORD code;
        unsigned offset;
    };
    constexpr DWORD Id = ERROR_INVALID_SID, List = ERROR_INVALID_ACL, Whole = ERROR_INVALID_SECURITY_DESCR;
    for (const auto& [text, code, offset] : std::initializer_list<Case>{
             {L"d:(A;;FA;;;WD)", Whole, 0},
             {L"Q:", Whole, 0},
             {L"O", Whole, 0},
             {L"O:", Id, 2},
             {L"O:S-1", Id, 2},
             {L"O:S-1-5", Id, 7},
             {L"O:S-1-5-4294967296", Id, 8},
             {L"O:S-1-5-18-", Id, 11},
             {L"O:S-1-0x1000000000000-1", Id, 8},
             {L"O:BAO:SY", Whole, 4},
             {L"D:D:", Whole, 2},
             {L"D:(A;;fa;;;WD)", List, 6},
             {L"D:(A;;FA;;WD)", List, 10},
             {L"D:(A;;FA;;;WD", List, 13},
             {L"D:((A;;FA;;;WD))", List, 3},
             {L"D:(Z;;FA;;;WD)", List, 3},
             {L"D:(A;XX;FA;;;WD)", List, 5},
             {L"D:(A;;FA;;;XX)", Id, 11},
             {L"D:XX(A;;FA;;;WD)", Whole, 2},
             {L"D:(A;;FA ;;;WD)", List, 8},
             {L"D:(A;;0x1ffffffff;;;WD)", List, 8},
             {L"D:(A;;FA;{ab721a53-1e2f-11d0-9819-00aa0040529b};;WD)", List, 9},
             {L"D:(OA;;FA;ab721a53-1e2f-11d0-9819-00aa004052;;WD)", List, 44},
             {L"D:(A;;FA;ab721a53-1e2f-11d0-9819-00aa0040529b;;WD)", List, 9},
             {L"D:(A;;FA;;;WD)x", Whole, 14},
             {L"D:(A;;NW;;;WD)", List, 6},
             {L"S:(RA;;;;;WD)", List, 12},
             {L"S:(RA;;;;;WD;(\"\",TS,0))", List, 16},
             {L"S:(RA;;;;;WD;(\"P\",XX,0))", List, 18},
             {L"S:(RA;;;;;WD;(\"P\",TS,0,x))", List, 23},
             {L"S:(RA;;;;;WD;(\"P\",TS,0,\"x))", List, 27},
             {L"S:(RA;;;;;WD;(\"P\",TB,0,2))", List, 23},
             {L"S:(RA;;;;;WD;(\"P\",TX,0,#0))", List, 24},
             {L"S:(RA;;;;;WD;(\"P\",TI,0,9223372036854775808))", List, 23},
             {L"D:(XA;;FX;;;WD)", List, 14},
             {L"D:(XA;;FX;;;WD;(a ==))", List, 20},
             {L"D:(XA;;FX;;;WD;(a == \"x))", List, 25},
             {L"D:(XA;;FX;;;WD;(a == #0))", List, 22},
             {L"D:(XA;;FX;;;WD;(Member_of {a}))", List, 27},
             {L"D:(XA;;FX;;;WD;(a == 0x8000000000000000))", List, 23},
         }) {
        const auto [thrown, message] = Thrown([&, read = text] { SecDesc::FromText(read); });
        EXPECT_EQ(thrown, code) << TQString(text).ToUtf8().c_str();
        const std::wstring end = L" at offset " + std::to_wstring(offset) + L".";
        EXPECT_NE(message.find(end), message.npos)
            << TQString(text).ToUtf8().c_str() << ": " << TQString(message).ToUtf8().c_str();
    }
    // A negation and the parenthesis behind it are one level, as the parenthesis around the condition is.
    const auto nested = [](int negations) {
        std::wstring text = L"D:(XA;;FX;;;WD;(";
        for (int i = 0; i < negations; ++i)
            text += L"!(";
        return text + L"a" + std::wstring(static_cast<std::size_t>(negations), L')') + L"))";
    };
    EXPECT_EQ(SecDesc::FromText(nested(63)).Text(), nested(63));
    EXPECT_EQ(ThrownCode([&] { SecDesc::FromText(nested(64)); }), List);
    const std::wstring deep = L"D:(XA;;FX;;;WD;" + std::wstring(70'000, L'(');
    EXPECT_EQ(ThrownCode([&] { SecDesc::FromText(deep); }), List);
    const std::wstring negated = L"D:(XA;;FX;;;WD;(" + std::wstring(70'000, L'!');
    EXPECT_EQ(ThrownCode([&] { SecDesc::FromText(negated); }), List);
}

TEST(DescriptorTexts, EndWhereAListIsFull) {
    std::wstring text = L"D:";
    for (int i = 0; i < 1820; ++i)
        text += L"(A;;FA;;;S-1-5-21-1-2-3-1001)";
    EXPECT_EQ(SecDesc::FromText(text).DACL()->Block().Size(), 65'528u);
    text += L"(A;;FA;;;WD)";
    EXPECT_EQ(ThrownCode([&] { SecDesc::FromText(text); }), DWORD{ERROR_ALLOTTED_SPACE_EXCEEDED});
}

TEST(DescriptorTexts, AreRefusedForEntriesThatHaveNone) {
    const SecACE entry = SecACE::Allow(Id(L"S-1-1-0"), 1);
    const BYTE compound[] = {4, 0, 12, 0, 1, 2, 3, 4, 5, 6, 7, 8};
    for (const SecACE& other :
         {entry.WithData("data", 4), SecACE::Allow(Id(L"S-1-1-0"), 1, 0x20),
          SecACE(*reinterpret_cast<const ACE_HEADER*>(compound)), SecACE(Kind::AllowCallback, entry.SID(), 1),
          SecACE(Kind::AllowCallback, entry.SID(), 1).WithData("artx\x84", 5)}) {
        const SecDesc descriptor = SecDesc().SetDACL(SecACL{other});
        EXPECT_EQ(ThrownCode([&] { (void)descriptor.Text(); }), DWORD{ERROR_NOT_SUPPORTED});
        EXPECT_TRUE(descriptor == descriptor.Block().Data());
    }
}

// A number's sign may say something else than the number.
TEST(DescriptorTexts, TellTheSignOfNumbersOnce) {
    struct Case {
        BYTE value;  // -3 for 0xFD, 3 for 3
        BYTE sign;   // 1 plus, 2 minus, 3 none
        const wchar_t* text;
    };
    for (const auto& [value, sign, text] : std::initializer_list<Case>{{3, 1, L"+3"},
                                                                       {3, 2, L"-3"},
                                                                       {3, 3, L"3"},
                                                                       {0xFD, 1, L"-3"},
                                                                       {0xFD, 2, L"-3"},
                                                                       {0xFD, 3, L"-3"},
                                                                       {3, 0, nullptr},
                                                                       {0xFD, 4, nullptr}}) {
        const char rest = static_cast<char>(value == 3 ? 0 : 0xFF);
        std::string bytes("artx\xF8\x02\0\0\0a\0\x04", 12);
        (bytes += static_cast<char>(value)) += std::string(7, rest);
        (bytes += static_cast<char>(sign)) += "\x02\x82";
        const SecDesc descriptor = SecDesc().SetDACL(
            SecACL{SecACE(Kind::AllowCallback, Id(L"S-1-1-0"), 1).WithData(bytes.data(), bytes.size())});
        TQString written;
        EXPECT_EQ(ThrownCode([&] { written = descriptor.Text(); }), text ? 0 : DWORD{ERROR_NOT_SUPPORTED});
        EXPECT_EQ(written, text ? TQString(L"D:(XA;;CC;;;WD;(a < ") + text + L"))" : TQString()) << int{sign};
    }
}

TEST(AccessLists, AreMergedCutAndAsked) {
    const SecACL list = FirstList(L"(A;;0x1;;;BU)(A;ID;0x2;;;BU)(D;;0x4;;;WD)(A;IOOI;0x8;;;BU)");
    const SecACL merged = list.Merged(FirstList(L"(A;;0x10;;;BU)(D;;0x1;;;WD)(A;ID;0x2;;;BU)"));
    EXPECT_EQ(SecDesc().SetDACL(merged).Text(),
              L"D:(D;;CCLC;;;WD)(A;;CCRP;;;BU)(A;OIIO;SW;;;BU)(A;ID;DC;;;BU)(A;ID;DC;;;BU)");
    EXPECT_EQ(merged.Effective().Count(), 4u);
    SecACL cut = merged;
    EXPECT_EQ(cut.Remove(Id(L"S-1-5-32-545")), 4u);
    EXPECT_EQ(cut.Count(), 1u);

    struct Case {
        const wchar_t* entries;
        DWORD rights;
    };
    const Sarvek::SecIDArray ids{Id(L"S-1-1-0"), Id(L"S-1-5-32-545")};
    for (const auto& [entries, rights] : std::initializer_list<Case>{
             {L"(A;;0x3;;;BU)(D;;0x1;;;WD)", 3},
             {L"(D;;0x1;;;WD)(A;;0x3;;;BU)", 2},
             {L"(A;;0x3;;;BA)", 0},
             {L"(A;IO;0x3;;;BU)", 0},
             {L"(XA;;0x3;;;BU;(a))(XD;;0x1;;;BU;(a))(A;;0x5;;;BU)", 4},
             {L"(OA;;0x2;ab721a53-1e2f-11d0-9819-00aa0040529b;;BU)(OA;;0x1;;ab721a53-1e2f-11d0-9819-"
              L"00aa0040529b;BU)",
              1},
         })
        EXPECT_EQ(FirstList(entries).RightsOf(ids), rights) << TQString(entries).ToUtf8().c_str();
}

TEST(IdentifierTexts, AreReadAsThePlatformReadsThem) {
    for (const std::string& line : DataLines("SidTexts.txt")) {
        const auto fields = Fields(line);
        const bool isSmall = !fields[0].empty() && std::islower(static_cast<unsigned char>(fields[0][0]));
        SecID id;
        const DWORD code = ThrownCode([&] { id = SecID::FromText(TQString::FromUtf8(fields[0])); });
        EXPECT_EQ(code, isSmall || fields[1] == "none" ? DWORD{ERROR_INVALID_SID} : 0) << line;
        if (code == 0 && fields.size() < 3) {
            EXPECT_EQ(id.String(), TQString::FromUtf8(fields[1])) << line;
        }
    }
    const SecID administrator = SecID::FromText(L"LA");
    EXPECT_TRUE(administrator.IsMachineDomain());
    EXPECT_EQ(administrator.SubAuthorityValue(static_cast<BYTE>(administrator.SubAuthorityCount() - 1)),
              500u);
    EXPECT_EQ(Thrown([] { SecID::FromText(L"BAA"); }).second,
              L"SecID::FromText: more than an identifier at offset 2.");
}

TEST(SecurityDescriptors, AreToldInWords) {
    const SecDesc descriptor = SecDesc::FromText(
        L"O:S-1-9-1D:P(A;ID;FA;;;S-1-9-2)(D;OICI;FW;;;S-1-9-3)(A;;0x3;;;S-1-9-4)S:(ML;;NW;;;S-1-9-5)(AU;SAFA;"
        L"GR;;;S-1-9-6)");
    EXPECT_EQ(descriptor.Describe(),
              L"Owner: S-1-9-1\n"
              L"Access, protected:\n"
              L"  S-1-9-2: full control, inherited\n"
              L"  S-1-9-3: denied write, for objects below, for folders below\n"
              L"  S-1-9-4: CCDC\n"
              L"System:\n"
              L"  S-1-9-5: integrity level, policy NW\n"
              L"  S-1-9-6: audited read, on success, on failure\n");
    EXPECT_EQ(SecDesc().SetNullDACL().Describe(), L"Access: everybody, everything\n");
}

}  // namespace
}  // namespace Quellan::Corvel::Test
