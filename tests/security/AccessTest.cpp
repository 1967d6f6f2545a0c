#include "TQLib/platform/Win32.h"
#include "TQLib/security/SecAccess.h"
#include "security/Identifiers.h"
#include "support/DataLines.h"

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Quellan::Corvel::Test {
namespace {

using Sarvek::SecAccess;
using Sarvek::SecACE;
using Sarvek::SecDesc;
using Sarvek::SecGenericMap;
using Sarvek::SecIDArray;
using Sarvek::SecIDAttr;
using Sarvek::SecIDAttrArray;
using Sarvek::SecObjectType;
using Sarvek::SecPrivilegeSet;
using Sarvek::SecSubject;

constexpr SecGenericMap Toy(0x20001, 0x20002, 0x20004, 0xF0007);

SecDesc Described(const std::string& text) {
    return SecDesc::FromText(TQString::FromUtf8(text));
}

// S-1-... or a name of two letters.
SecID Named(const std::string& text) {
    return Described("O:" + text).Owner();
}

DWORD Number(const std::string& hexadecimal) {
    return static_cast<DWORD>(std::stoul(hexadecimal, nullptr, 16));
}

std::string Hex(DWORD number) {
    return TQString().AppendFormat(L"0x%x", number).ToUtf8().c_str();
}

class SubjectLine {
  public:
    explicit SubjectLine(const std::vector<std::string>& fields) : m_fields(fields) {}

    SecSubject Subject() const {
        const std::string user = Value("user");
        SecIDAttrArray groups;
        AddGroups(groups, "groups", SE_GROUP_ENABLED);
        AddGroups(groups, "denyonly", SE_GROUP_USE_FOR_DENY_ONLY);
        AddGroups(groups, "disabled", 0);
        const bool deniesUser = Value("denyonly") == user;
        SecSubject subject(SecIDAttr(Named(user), deniesUser ? SE_GROUP_USE_FOR_DENY_ONLY : 0), groups);
        SecPrivilegeSet privileges;
        for (const std::string& name : Values("privileges"))
            privileges.Add(TQString::FromUtf8(name));
        subject.SetPrivileges(privileges);
        if (!Value("level").empty()) subject.SetLevel(Number(Value("level")));
        SecIDArray restricting;
        for (const std::string& name : Values("restricting"))
            restricting.Add(Named(name));
        subject.Restrict(restricting, m_fields.back() == "writing");
        return subject;
    }

  private:
    std::string Value(std::string_view key) const {
        for (const std::string& field : m_fields)
            if (field.starts_with(std::string(key) + "=")) return field.substr(key.size() + 1);
        return {};
    }
    std::vector<std::string> Values(std::string_view key) const {
        return Value(key).empty() ? std::vector<std::string>() : Fields(Value(key), ',');
    }
    void AddGroups(SecIDAttrArray& groups, std::string_view key, DWORD attributes) const {
        for (const std::string& name : Values(key))
            groups.Add(SecIDAttr(Named(name), attributes));
    }

    const std::vector<std::string>& m_fields;
};

std::string Answered(const SecDesc& descriptor, const SecGenericMap& map, const SecSubject& subject,
                     DWORD wanted) {
    SecAccess::Answer answer;
    const DWORD code = ThrownCode([&] { answer = SecAccess(descriptor, map).Check(subject, wanted); });
    if (code != 0) return "fail:" + std::to_string(code);
    if (!answer.isGranted) return "no:" + std::to_string(answer.code) + ":" + Hex(answer.granted);
    return "yes:" + Hex(answer.granted) + ":" +
           std::to_string(answer.usedSecurityPrivilege + answer.usedTakeOwnershipPrivilege);
}

TEST(Access, FollowsTheRules) {
    const std::map<std::string, SecGenericMap> maps = {{"file", SecGenericMap::OfFiles()},
                                                       {"key", SecGenericMap::OfKeys()},
                                                       {"toy", Toy},
                                                       {"none", SecGenericMap()}};
    std::map<std::string, SecSubject> subjects;
    for (const std::string& line : DataLines("AccessChecks.txt")) {
        const auto fields = Fields(line);
        if (fields[0] == "T") {
            subjects.emplace(fields[1], SubjectLine(fields).Subject());
            continue;
        }
        const DWORD wanted = Number(fields[3]);
        EXPECT_EQ(Answered(Described(fields[4]), maps.at(fields[2]), subjects.at(fields[1]), wanted),
                  fields[5])
            << line;
    }
}

TEST(GenericMap, PutsRightsInPlaceOfGenericOnes) {
    const struct {
        DWORD rights;
        DWORD mapped;
    } cases[] = {{0, 0},
                 {GENERIC_READ, 0x20001},
                 {GENERIC_WRITE, 0x20002},
                 {GENERIC_EXECUTE, 0x20004},
                 {GENERIC_ALL, 0xF0007},
                 {GENERIC_READ | GENERIC_EXECUTE | 0x10, 0x20015},
                 {MAXIMUM_ALLOWED | ACCESS_SYSTEM_SECURITY | GENERIC_WRITE, 0x03020002}};
    for (const auto& [rights, mapped] : cases)
        EXPECT_EQ(Toy.Map(rights), mapped) << Hex(rights);
}

// Authenticated Users is for denying only.
SecSubject Somebody() {
    SecIDAttrArray groups;
    groups.Add(SecIDAttr(Named("WD"), SE_GROUP_ENABLED));
    groups.Add(SecIDAttr(Named("BU"), SE_GROUP_ENABLED));
    groups.Add(SecIDAttr(Named("AU"), SE_GROUP_USE_FOR_DENY_ONLY));
    return SecSubject(SecIDAttr(Named("S-1-5-21-1-2-3-1001")), groups);
}

SecObjectType TypeOf(char digit) {
    SecObjectType type{};
    type[0] = static_cast<BYTE>(digit - '0');
    return type;
}

// A type is written as gN.
std::string WithTypes(std::string text) {
    for (std::size_t at; (at = text.find(";g")) != std::string::npos;)
        text.replace(at + 1, 2, std::string("0000000") + text[at + 2] + "-0000-0000-0000-000000000000");
    return "O:SYG:SYD:" + text;
}

TEST(ObjectTypes, AreAnsweredByNodes) {
    const struct {
        DWORD wanted;
        const char* list;
        const char* granted;  // by nodes
    } cases[] = {
        {0x10, "(A;;0x10;;;WD)", "111111"},
        {0x10, "(OA;;0x10;g0;;WD)", "111111"},
        {0x10, "(OA;;0x10;;g1;WD)", "111111"},
        {0x10, "(OA;;0x10;g1;;WD)", "011100"},
        {0x10, "(OA;;0x10;g5;;WD)", "000001"},
        {0x10, "(OA;;0x10;g9;;WD)", "000000"},
        {0x10, "(OD;;0x10;g9;;WD)(A;;0x10;;;WD)", "111111"},
        {0x10, "(D;;0x10;;;WD)(OA;;0x10;g1;;WD)", "000000"},
        {0x10, "(OD;;0x10;g2;;WD)(A;;0x10;;;WD)", "000111"},
        {0x10, "(OD;;0x10;g5;;WD)(A;;0x10;;;WD)", "011100"},
        {0x10, "(A;;0x10;;;WD)(OD;;0x10;g2;;WD)", "111111"},
        {0x10, "(OA;;0x10;g1;;BA)", "000000"},
        {0x10, "(OA;IO;0x10;g0;;WD)", "000000"},
        {0x30, "(OA;;0x10;g0;;WD)(OA;;0x20;g1;;WD)", "011100"},
        {0x10, "(OA;;0x10;g1;;WD)(OA;;0x10;g4;;WD)", "011111"},
    };
    for (const auto& [wanted, list, granted] : cases) {
        std::vector<SecAccess::Node> nodes;
        for (const int level : {0, 1, 2, 2, 1, 2})
            nodes.push_back({static_cast<WORD>(level), TypeOf(static_cast<char>('0' + nodes.size()))});
        const SecAccess access(Described(WithTypes(list)), SecGenericMap::OfFiles());
        const SecAccess::Answer answer = access.Check(Somebody(), wanted, nodes);
        std::string told;
        for (const SecAccess::Node& node : nodes)
            told += node.granted == wanted ? '1' : node.granted == 0 ? '0' : '?';
        EXPECT_EQ(told, granted) << list;
        EXPECT_EQ(answer.isGranted, granted[0] == '1') << list;
    }
    for (const std::vector<WORD>& levels : {std::vector<WORD>{}, {1}, {0, 0}, {0, 2}, {0, 1, 2, 3, 4, 5}}) {
        std::vector<SecAccess::Node> nodes;
        for (const WORD level : levels)
            nodes.push_back({level, TypeOf('0')});
        const SecAccess access(Described(WithTypes("(A;;0x10;;;WD)")), SecGenericMap::OfFiles());
        EXPECT_EQ(ThrownCode([&] { access.Check(Somebody(), 0x10, nodes); }), DWORD{ERROR_INVALID_PARAMETER})
            << levels.size();
    }
}

TEST(ObjectTypes, DenyAndNeverAllowWhereNobodyTellsThem) {
    EXPECT_EQ(Answered(Described(WithTypes("(OA;;1;g1;;WD)")), Toy, Somebody(), 1), "no:5:0x0");
    EXPECT_EQ(Answered(Described(WithTypes("(OD;;1;g1;;WD)(A;;1;;;WD)")), Toy, Somebody(), 1), "no:5:0x0");
    EXPECT_EQ(Answered(Described(WithTypes("(OA;;1;;g1;WD)")), Toy, Somebody(), 1), "yes:0x1:0");
}

TEST(PrincipalSelf, IsWhomTheQuestionNames) {
    const SecID self = Named("S-1-5-21-1-2-3-1001");
    const SecID other = Named("S-1-5-21-1-2-3-1002");
    const SecAccess allows(Described("O:SYG:SYD:(A;;1;;;PS)"), Toy);
    const SecAccess denies(Described("O:SYG:SYD:(D;;1;;;PS)(A;;1;;;WD)"), Toy);
    EXPECT_TRUE(allows.Check(Somebody(), 1, {.self = &self, .attributes = {}}).isGranted);
    EXPECT_FALSE(allows.Check(Somebody(), 1, {.self = &other, .attributes = {}}).isGranted);
    EXPECT_FALSE(denies.Check(Somebody(), 1, {.self = &self, .attributes = {}}).isGranted);
    EXPECT_TRUE(denies.Check(Somebody(), 1, {.self = &other, .attributes = {}}).isGranted);
}

// The published block of an attribute.
class AttributeBlock {
  public:
    AttributeBlock(std::u16string_view name, WORD type, DWORD flags, std::size_t count) {
        Put(DWORD{0});
        Put(type);
        Put(WORD{0});
        Put(flags);
        Put(static_cast<DWORD>(count));
        m_next = m_bytes.size();
        m_bytes.resize(m_bytes.size() + count * sizeof(DWORD));
        PutOffset(0);
        PutText(name);
    }

    static BYTEBuf Number(std::u16string_view name, std::vector<LONGLONG> values, DWORD flags = 0) {
        AttributeBlock block(name, 1, flags, values.size());
        for (const LONGLONG value : values) {
            block.PutNextOffset();
            block.Put(value);
        }
        return block.Buffer();
    }
    static BYTEBuf Text(std::u16string_view name, std::vector<std::u16string> values, DWORD flags = 0) {
        AttributeBlock block(name, 3, flags, values.size());
        for (const std::u16string& value : values) {
            block.PutNextOffset();
            block.PutText(value);
        }
        return block.Buffer();
    }
    // Of type 5 an identifier, of 16 octets.
    static BYTEBuf Octets(std::u16string_view name, WORD type, std::span<const BYTE> value) {
        AttributeBlock block(name, type, 0, 1);
        block.PutNextOffset();
        block.Put(static_cast<DWORD>(value.size()));
        block.m_bytes.insert(block.m_bytes.end(), value.begin(), value.end());
        return block.Buffer();
    }

  private:
    template <class T>
    void Put(T value) {
        const auto* const bytes = reinterpret_cast<const BYTE*>(&value);
        m_bytes.insert(m_bytes.end(), bytes, bytes + sizeof value);
    }
    void PutText(std::u16string_view text) {
        for (const char16_t unit : text)
            Put(unit);
        Put(char16_t{0});
    }
    void PutOffset(std::size_t at) {
        const auto offset = static_cast<DWORD>(m_bytes.size());
        std::memcpy(&m_bytes[at], &offset, sizeof offset);
    }
    void PutNextOffset() {
        PutOffset(m_next);
        m_next += sizeof(DWORD);
    }
    BYTEBuf Buffer() const { return BYTEBuf(m_bytes.data(), m_bytes.size()); }

    std::vector<BYTE> m_bytes;
    std::size_t m_next = 0;
};

// As the allowing entry and the denying one show it: 1 true, 0 false, ? not to be told.
char TruthOf(const std::string& condition, const SecSubject& subject, const std::vector<BYTEBuf>& local,
             const SecACE* attribute = nullptr) {
    const auto isGranted = [&](const std::string& list) {
        SecDesc descriptor = Described("O:SYG:SYD:" + list);
        if (attribute) {
            Sarvek::SecACL attributes;
            attributes.Add(*attribute);
            descriptor.SetSACL(attributes);
        }
        return SecAccess(descriptor, Toy).Check(subject, 1, {.self = nullptr, .attributes = local}).isGranted;
    };
    const bool allows = isGranted("(XA;;1;;;WD;" + condition + ")");
    const bool denies = !isGranted("(XD;;1;;;WD;" + condition + ")(A;;1;;;WD)");
    return allows ? denies ? '1' : '!' : denies ? '?' : '0';
}

TEST(Conditions, AreTrueFalseOrNotToBeTold) {
    SecSubject subject = Somebody();
    SecIDAttrArray deviceGroups;
    deviceGroups.Add(SecIDAttr(Named("BG"), SE_GROUP_ENABLED));
    subject.SetDeviceGroups(deviceGroups);
    subject.SetUserAttributes({AttributeBlock::Number(u"age", {-5}),
                               AttributeBlock::Number(u"off", {1}, 0x10),
                               AttributeBlock::Text(u"Strict", {u"Ab"}, 2)});
    subject.SetDeviceAttributes({AttributeBlock::Text(u"place", {u"Köln", u"Bonn"})});
    const SecID admins = Named("BA");
    const BYTE octets[] = {1, 0xFF};
    const std::vector<BYTEBuf> local = {
        AttributeBlock::Number(u"zero", {0}),
        AttributeBlock::Number(u"some", {1, 2, 3}),
        AttributeBlock::Text(u"empty", {u""}),
        AttributeBlock::Number(u"none", {}),
        AttributeBlock::Octets(u"bytes", 16, octets),
        AttributeBlock::Octets(u"id", 5, {static_cast<const BYTE*>(admins.Address()), admins.Length()})};
    const SecDesc labelled = Described("S:(RA;;;;;WD;(\"Secret\",TI,0x0,7))");
    const struct {
        const char* condition;
        char truth;
    } cases[] = {
        {"(Member_of SID(BU))", '1'},
        {"(Member_of {SID(BU),SID(BA)})", '0'},
        {"(Member_of_Any {SID(BU),SID(BA)})", '1'},
        {"(Member_of SID(S-1-5-21-1-2-3-1001))", '1'},
        {"(Not_Member_of SID(BA))", '1'},
        {"(Not_Member_of_Any {SID(BU),SID(BA)})", '0'},
        {"(Device_Member_of SID(BG))", '1'},
        {"(Device_Member_of SID(BU))", '0'},
        {"(Not_Device_Member_of_Any {SID(BG)})", '0'},
        {"(@User.age == -5)", '1'},
        {"(@User.AGE < 3)", '1'},
        {"(@User.age >= -5 && @User.age <= -5)", '1'},
        {"(@User.age > -5)", '0'},
        {"(@User.age != -5)", '0'},
        {"(@User.age == \"x\")", '?'},
        {"(@User.age)", '1'},
        {"(@User.off)", '?'},
        {"(Exists @User.off)", '0'},
        {"(Exists @User.age)", '1'},
        {"(Not_Exists @Device.age)", '1'},
        {"(@User.Strict == \"ab\")", '0'},
        {"(@User.Strict == \"Ab\")", '1'},
        {"(@Device.place Contains \"KÖLN\")", '1'},
        {"(@Device.place Contains {\"Bonn\",\"Rom\"})", '0'},
        {"(@Device.place Any_of {\"Bonn\",\"Rom\"})", '1'},
        {"(@Device.place Not_Any_of {\"Ulm\",\"Rom\"})", '1'},
        {"(@Device.place Not_Contains \"Rom\")", '1'},
        {"(@Device.place == {\"bonn\",\"köln\"})", '1'},
        {"(@Device.place == {\"bonn\"})", '0'},
        {"(@Device.place < \"z\")", '?'},
        {"(zero)", '0'},
        {"(!zero)", '1'},
        {"(empty)", '0'},
        {"(some)", '?'},
        {"(some Contains 2)", '1'},
        {"(some Contains zero)", '0'},
        {"(none == 1)", '?'},
        {"(bytes == #01ff)", '1'},
        {"(bytes == #01fe)", '0'},
        {"(bytes < #01fe)", '?'},
        {"(id == SID(BA))", '1'},
        {"(id != SID(BU))", '1'},
        {"(@Resource.secret == 0x7)", '1'},
        {"(@Resource.other == 7)", '?'},
        {"(gone && zero)", '0'},
        {"(gone && !zero)", '?'},
        {"(gone || !zero)", '1'},
        {"(gone || zero)", '?'},
        {"(!gone)", '?'},
        {"(!(gone))", '?'},
        {"((zero || !zero) && (empty || Member_of SID(WD)))", '1'},
    };
    for (const auto& [condition, truth] : cases)
        EXPECT_EQ(TruthOf(condition, subject, local, &(*labelled.SACL())[0]), truth) << condition;
}

TEST(Conditions, CountWhatIsForDenyingOnlyWhereTheyDeny) {
    SecSubject subject = Somebody();
    subject.SetUserAttributes({AttributeBlock::Number(u"guest", {1}, 4)});
    for (const char* const condition : {"(Member_of SID(AU))", "(@User.guest == 1)"})
        EXPECT_EQ(TruthOf(condition, subject, {}), '?') << condition;
}

TEST(Conditions, ThatAreNoneAreNotToBeTold) {
    const SecACE allow(SecACE::Kind::AllowCallback, Named("WD"), 1);
    const SecACE deny(SecACE::Kind::DenyCallback, Named("WD"), 1);
    const std::string tooMany = "artx" + std::string("\xF8\x02\0\0\0a\0", 7);
    for (const std::string& data :
         {std::string(), std::string("none"), std::string("artx"), std::string("artx\xA0\0\0\0", 8),
          std::string("artx\x87\0\0\0", 8), std::string("artx\xF8\xFF\xFF\xFF\x7F", 9), tooMany + "\xA1"}) {
        const SecDesc head = Described("O:SYG:SY");
        const auto isGranted = [&](const SecACE& entry) {
            Sarvek::SecACL list;
            list.Add(entry.WithData(data.data(), data.size()));
            list.Allow(Named("BU"), entry.IsDenying() ? 1 : 0);
            return SecAccess(SecDesc(head).SetDACL(list), Toy).Check(Somebody(), 1).isGranted;
        };
        EXPECT_FALSE(isGranted(allow)) << data;
        EXPECT_FALSE(isGranted(deny)) << data;
    }
}

TEST(Conditions, FindNoAttributeInADamagedBlock) {
    const BYTEBuf whole = AttributeBlock::Text(u"n", {u"x"});
    const auto isTrue = [](const BYTEBuf& block) {
        return TruthOf("(n == \"x\")", Somebody(), {block}) == '1';
    };
    EXPECT_TRUE(isTrue(whole));
    for (std::size_t size = 0; size < whole.Size(); ++size)
        EXPECT_FALSE(isTrue(BYTEBuf(whole.Data(), size))) << size;
    for (const std::size_t at : {0u, 12u, 16u}) {  // the name's place, the count, the value's place
        BYTEBuf damaged = whole;
        damaged[at + 3] = 0x7F;
        EXPECT_FALSE(isTrue(damaged)) << at;
    }
}

TEST(ResourceAttributes, HaveNoTextWhereTheirValuesShareBytes) {
    BYTEBuf block = AttributeBlock::Text(u"n", {std::u16string(40, u'x'), u"", u"", u""});
    const auto textOf = [&] {
        const SecACE entry =
            SecACE(SecACE::Kind::ResourceAttribute, Named("WD"), 0).WithData(block.Data(), block.Size());
        return ThrownCode([&] { (void)SecDesc().SetSACL(Sarvek::SecACL{entry}).Text(); });
    };
    EXPECT_EQ(textOf(), 0u);
    for (std::size_t place = 20; place < 32; ++place)
        block[place] = block[place - 4];
    EXPECT_EQ(textOf(), DWORD{ERROR_NOT_SUPPORTED});
}

TEST(Conditions, EndWhereTheyCompareTooMuch) {
    std::string many = "{0";
    for (int i = 1; i < 400; ++i)
        many += "," + std::to_string(i);
    std::vector<LONGLONG> numbers(400, 1000);
    for (const auto& [values, truth] : {std::pair(numbers, '?'), std::pair(std::vector<LONGLONG>{1000}, '0')})
        EXPECT_EQ(TruthOf("(n Any_of " + many + "})", Somebody(), {AttributeBlock::Number(u"n", values)}),
                  truth);
}

TEST(Conditions, TakeANumberBehindAMinusAsItsMagnitude) {
    const std::string data("artx\xF8\x02\0\0\0n\0\x04\x02\0\0\0\0\0\0\0\x02\x02\x80\0\0\0", 26);
    const std::vector<BYTEBuf> local = {AttributeBlock::Number(u"n", {-2})};
    const SecACE entry =
        SecACE(SecACE::Kind::AllowCallback, Named("WD"), 1).WithData(data.data(), data.size());
    const SecAccess access(Described("O:SYG:SY").SetDACL(Sarvek::SecACL{entry}), Toy);
    EXPECT_TRUE(access.Check(Somebody(), 1, {.self = nullptr, .attributes = local}).isGranted);
}

TEST(Access, TellsTheRightsOfSomebody) {
    const SecAccess access(Described("O:S-1-5-21-1-2-3-1001G:SYD:(D;;2;;;AU)(A;;7;;;WD)(A;;0x10000;;;BA)"),
                           Toy);
    EXPECT_EQ(access.RightsOf(Somebody()), 0x60005u);
    EXPECT_EQ(access.RightsOf(Named("BA")), 0x10000u);
    EXPECT_EQ(access.RightsOf(Named("AU")), 0u);
    EXPECT_EQ(access.RightsOf(SecID()), 0u);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
