#include "TQLib/platform/Win32.h"
#include "TQLib/text/TQEscape.h"
#include "TQLib/text/TQFields.h"
#include "TQLib/text/TQNumber.h"
#include "TQLib/text/TQSplit.h"
#include "TQLib/text/TQString.h"
#include "TQLib/text/TQStringArray.h"
#include "TQLib/text/memory/TQDataBuf.h"
#include "TQLib/text/memory/TQHandle.h"
#include "TQLib/text/memory/TQIntrusivePtr.h"
#include "TQLib/text/memory/TQSecret.h"
#include "TQLib/text/memory/TQSmartPtr.h"
#include "sweep/Rows.h"

#include <memory>
#include <memory_resource>
#include <utility>

namespace Quellan::Corvel::Test {

namespace {

const wchar_t LongText[] = L"a text that no string keeps within itself, whatever its class";

TQString Text() {
    return TQString(LongText);
}

TQStringArray Texts() {
    return TQStringArray{Text(), TQString(L"b"), Text()};
}

BYTEBuf Bytes() {
    return BYTEBuf(reinterpret_cast<const BYTE*>("01234567"), 8);
}

BYTEBuf Secret() {
    return BYTEBuf(8, BYTEBuf::_SecureLevel::WipeAndLock);
}

TQSecretString SecretText() {
    return TQSecretString(LongText);
}

using HeldEvent = TQHandle<_TQKernelHandleClose>;

HeldEvent::Unique FreshEvent() {
    return HeldEvent::Unique(CreateEventW(nullptr, TRUE, FALSE, nullptr));
}

struct SweptObject : TQRefObject<> {
    TQString text = Text();
};
using SweptPtr = TQSmartPtr<SweptObject, _TQRefThrPtr<SweptObject>>;
using SweptArray = TQSmartPtr<SweptObject, _TQRefThrPtr<SweptObject, 1, 1>>;

std::unique_ptr<SweptObject> OwnedObject() {
    return std::make_unique<SweptObject>();
}

}  // namespace

std::vector<SweptOperation> TextRows() {
    return {
        Swept("string copy", Text, [](TQString& text) { TQString{text}; }),
        Swept("string assign", Text, Unchanged, [](TQString& text) { text = TQString(LongText) + LongText; }),
        Swept("string append", Text, Unchanged, [](TQString& text) { text += LongText; }),
        Swept("string insert", Text, Unchanged, [](TQString& text) { text.Insert(3, LongText); }),
        Swept("string replace", Text, Unchanged, [](TQString& text) { text.Replace(L"a", LongText); }),
        Swept("string reserve", Text, Unchanged, [](TQString& text) { text.Reserve(4 * text.Length()); }),
        Swept("string trim", Text, Unchanged, [](TQString& text) { text.Trim(L"aw "); }),
        Swept("string parts", Text, [](TQString& text) { text.Left(40) + text.Mid(9) + text.Right(40); }),
        Swept("string case", Text, [](TQString& text) { TQString{text.ToUpper().ToLower()}; }),
        Swept("string no case", Text,
              [](TQString& text) {
                  EXPECT_EQ(text.FindNoCase(LongText), 0u);
                  EXPECT_TRUE(text.CompareNoCase(LongText) == 0 && text.StartsWithNoCase(LongText) &&
                              text.EndsWithNoCase(LongText));
              }),
        Swept("string format", Text, Unchanged,
              [](TQString& text) { text.AppendFormat(L"%s %80u", LongText, 3u); }),
        Swept("string UTF-8", Text,
              [](TQString& text) { EXPECT_EQ(TQString::FromUtf8(text.ToUtf8()), text); }),
        Swept("string ANSI", Text,
              [](TQString& text) { EXPECT_EQ(TQString::FromAnsi(text.ToAnsi()), text); }),
        Swept("string replace no case", Text, Unchanged,
              [](TQString& text) { text.ReplaceNoCase(L"A", LongText); }),
        Swept("string pad", Text, Unchanged, [](TQString& text) { text.PadLeft(200); }),
        Swept("string repeat", Text, Unchanged, [](TQString& text) { text.Repeat(3); }),
        Swept("string UTF-16", Text,
              [](TQString& text) {
                  EXPECT_EQ(TQString::FromUtf16(text.ToUtf16()), text);
                  EXPECT_EQ(TQString::FromUtf32(text.ToUtf32()), text);
              }),
        Swept("long number", Text,
              [](TQString& text) {
                  text = L"";
                  text.PadLeft(100, L'0');
                  EXPECT_EQ(TQParse<double>(text += L"1"), 1.0);
              }),
        Swept("pieces", Text,
              [](TQString& text) { EXPECT_EQ(TQJoin(TQStringArray(TQSplitAt(text, L' ')), L" "), text); }),
        Swept("fields", Text,
              [](TQString& text) {
                  const TQString record = TQJoinFields(TQStringArray{text + L"\"", text});
                  TQFieldReader reader(record);
                  EXPECT_TRUE(reader.NextRecord());
                  EXPECT_EQ(reader.NextField(), text + L"\"");
              }),
        Swept("escapes", Text,
              [](TQString& text) {
                  text += L"\"&\u00E9";
                  EXPECT_EQ(TQUnescapeJson(TQEscapeJson(text)), text);
                  EXPECT_EQ(TQUnescapeXml(TQEscapeXmlText(text)), text);
                  EXPECT_EQ(TQUnescapeUrl(TQEscapeUrl(text)), text);
                  EXPECT_EQ(TQUnescapeC(TQEscapeC(text)), text);
              }),
        Swept("command lines", Texts,
              [](TQStringArray& words) {
                  EXPECT_EQ(TQSplitShellCommandLine(TQShellCommandLine(words)), words);
                  EXPECT_EQ(TQSplitWindowsCommandLine(TQWindowsCommandLine(L"a", words)).Count(), 4u);
              }),
        Swept("array unique", Texts, Unchanged, [](TQStringArray& texts) { texts.UniqueNoCase(); }),
        Swept("array sort no case", Texts, "new", [](TQStringArray& texts) { texts.SortNoCase(); }),
        Swept("array copy", Texts, [](TQStringArray& texts) { TQStringArray{texts}; }),
        Swept("array assign", Texts, Unchanged,
              [](TQStringArray& texts) {
                  texts = TQStringArray{Text(), Text()};
              }),
        Swept("array add", Texts, Unchanged, [](TQStringArray& texts) { texts.Add(Text()); }),
        Swept("array insert", Texts, Unchanged, [](TQStringArray& texts) { texts.Insert(1, Text()); }),
        Swept("array set", Texts, Unchanged, [](TQStringArray& texts) { texts.SetAt(1, Text()); }),
        Swept("array join and split", Texts, Unchanged,
              [](TQStringArray& texts) { return TQStringArray::Split(texts.Join(Text()), TQString(L" ,")); }),
        Swept("buffer copy", Bytes, [](BYTEBuf& bytes) { BYTEBuf{bytes}; }),
        Swept("buffer assign", Bytes, Unchanged, [](BYTEBuf& bytes) { bytes = BYTEBuf(100); }),
        Swept("buffer resize", Bytes, Unchanged, [](BYTEBuf& bytes) { bytes.Resize(5000); }),
        Swept("buffer insert", Bytes, Unchanged, [](BYTEBuf& bytes) { bytes.Insert(4, Bytes().Data(), 8); }),
        Swept("secret", Bytes, [](BYTEBuf&) { Secret(); }),
        Swept("secret copy", Secret, [](BYTEBuf& bytes) { BYTEBuf{bytes}; }),
        Swept("secret resize", Secret, Unchanged, [](BYTEBuf& bytes) { bytes.Resize(5000); }),
        Swept("buffer of a resource", Bytes,
              [](BYTEBuf& bytes) {
                  BYTEBuf copy(*std::pmr::new_delete_resource());
                  copy.Append(bytes);
                  copy = BYTEBuf(100);
              }),
        Swept("secret text", SecretText,
              [](TQSecretString& text) {
                  TQSecretString other = TQSecretString::FromUtf8(text.ToUtf8().View());
                  other.Append(text.View());
                  EXPECT_EQ(other.Size(), 2 * text.Size());
              }),
        Swept("handle shared", FreshEvent,
              [](HeldEvent::Unique& event) {
                  HeldEvent shared = std::move(event);
                  event.Attach(shared.Detach());
                  EXPECT_TRUE(event);
              }),
        Swept("handle duplicate", FreshEvent,
              [](HeldEvent::Unique& event) { EXPECT_TRUE(event.Duplicate()); }),
        Swept("pointer make", Text,
              [](TQString&) {
                  SweptPtr::Make();
                  SweptArray::MakeArray(3);
                  TQIntrusivePtr<SweptObject>::Make();
              }),
        Swept("pointer take", OwnedObject,
              [](std::unique_ptr<SweptObject>& owner) {
                  const SweptPtr taken(std::move(owner));
                  EXPECT_TRUE(taken && !owner);
              }),
    };
}

}  // namespace Quellan::Corvel::Test
