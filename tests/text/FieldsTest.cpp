#include "TQLib/platform/Win32.h"
#include "TQLib/text/TQFields.h"
#include "TQLib/text/TQStringArray.h"
#include "support/ThrownCode.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace Quellan::Corvel {
namespace {

using Test::Failure;
using Test::Thrown;

// Fields as [a][b], records ended by /.
template <class C>
std::string ShownRecords(std::basic_string_view<C> text) {
    std::string shown;
    _TQFieldReaderT<C> reader(text);
    while (reader.NextRecord()) {
        while (const auto field = reader.NextField())
            shown += "[" + std::string(field->begin(), field->end()) + "]";
        shown += "/";
    }
    return shown;
}

TEST(Fields, AreReadRecordByRecord) {
    constexpr const char* Rows[][2] = {
        {"", ""},
        {"a,b", "[a][b]/"},
        {"a,b\r\nc\n", "[a][b]/[c]/"},
        {"a\rb\n\nc", "[a]/[b]/[]/[c]/"},
        {",\n", "[][]/"},
        {",", "[][]/"},
        {"\"\"", "[]/"},
        {"\"a,b\",c", "[a,b][c]/"},
        {"\"a\r\nb\"\r\nc", "[a\r\nb]/[c]/"},
        {"\"say \"\"no\"\"\"", "[say \"no\"]/"},
        {"\"\"\"\",\"\"\"\"\"\"", "[\"][\"\"]/"},
        {" a , b", "[ a ][ b]/"},
    };
    for (const auto& [text, shown] : Rows) {
        EXPECT_EQ(ShownRecords<char>(text), shown) << text;
        const std::string_view narrow = text;
        EXPECT_EQ(ShownRecords<wchar_t>(std::wstring(narrow.begin(), narrow.end())), shown) << text;
    }
}

TEST(Fields, AreRefusedWithTheOffset) {
    const auto refused = [](std::string_view text) { return Thrown([&] { ShownRecords(text); }); };
    EXPECT_EQ(refused("a,b\"c"),
              Failure(ERROR_INVALID_DATA, L"TQFieldReader: quotation mark inside a field at offset 3."));
    EXPECT_EQ(refused("a,\"b"),
              Failure(ERROR_INVALID_DATA, L"TQFieldReader: quotation mark that is not closed at offset 2."));
    EXPECT_EQ(refused("\"b\"\"").first, DWORD{ERROR_INVALID_DATA});
    EXPECT_EQ(
        refused("\"a\" ,b"),
        Failure(ERROR_INVALID_DATA, L"TQFieldReader: text behind a closing quotation mark at offset 3."));
}

TEST(Fields, ComeBackAsTheyWereJoined) {
    const std::vector<std::wstring> fields = {L"plain",        L"",   L"a;b", L"say \"no\"", L"\"",
                                              L"two\r\nlines", L" x "};
    const TQFieldMarks marks{.separator = L';'};
    const TQString record = TQJoinFields(fields, marks);
    EXPECT_EQ(record, L"plain;;\"a;b\";\"say \"\"no\"\"\";\"\"\"\";\"two\r\nlines\"; x ");
    TQFieldReader reader(record, marks);
    ASSERT_TRUE(reader.NextRecord());
    for (const std::wstring& field : fields)
        EXPECT_EQ(reader.NextField(), field);
    EXPECT_EQ(reader.NextField(), std::nullopt);
    EXPECT_FALSE(reader.NextRecord());
    EXPECT_EQ(reader.Offset(), record.Length());
}

TEST(Fields, ThatAreLeftAreReadOver) {
    TQaFieldReader reader("a,\"b\nc\",d\ne");
    ASSERT_TRUE(reader.NextRecord());
    ASSERT_TRUE(reader.NextRecord());
    EXPECT_EQ(reader.NextField(), "e");
}

}  // namespace
}  // namespace Quellan::Corvel
