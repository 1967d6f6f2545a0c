// Message texts from outside: the first byte is the width, the second chooses the limit, the rest is the text
// in UTF-8.
#include "TQLib/platform/Utf.h"
#include "TQLib/platform/linux/texts/MessageFormat.h"

#include <cstdlib>
#include <string>

using namespace Quellan::Platform;

namespace {

constexpr unsigned ArgumentCount = 7;

// Every argument is the address of a text that is one in wide and in narrow characters.
class TextArguments : public MessageArguments {
  public:
    std::optional<std::uint64_t> Get(unsigned number) override {
        if (number > ArgumentCount) return std::nullopt;
        return reinterpret_cast<std::uintptr_t>(m_text);
    }

  private:
    wchar_t m_text[8] = L"%1 a\nbc";
};

struct Result {
    DWORD code;
    std::wstring text;
};

Result Expand(const std::wstring& text, const MessageLayout& layout) {
    TextArguments arguments;
    Result result{};
    result.code = FormatMessageText(text, layout, &arguments, result.text);
    if (result.text.size() > layout.limit) std::abort();
    return result;
}

// Text whose inserts were kept expands to what it would have given at once. A lone carriage return alone does
// not survive: the second time it is a line break of the text.
void CheckKeptInserts(const std::wstring& text, std::size_t limit) {
    if (text.find(L"%r") != std::wstring::npos) return;
    const Result kept = Expand(text, {.keepInserts = true, .limit = limit});
    const Result direct = Expand(text, {.limit = limit});
    if (kept.code || direct.code) return;
    const Result later = Expand(kept.text, {.limit = limit});
    if (later.code || later.text != direct.text) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const std::size_t limit = std::size_t{16} << (data[1] % 12);
    const std::string_view bytes(reinterpret_cast<const char*>(data + 2), size - 2);
    std::wstring text(WideLength(bytes), L'\0');
    Utf8ToWide(bytes, text);
    Expand(text, {.width = data[0], .limit = limit});
    Expand(text, {.width = data[0], .keepInserts = true, .limit = limit});
    CheckKeptInserts(text, limit);
    return 0;
}
