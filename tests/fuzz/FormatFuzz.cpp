// Formats from outside. The first byte chooses the arguments, the second the size of the buffer, the rest is
// the format.
#include "TQLib/text/TQFormat.h"
#include "TQLib/text/memory/TQStdExceptions.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

using namespace Quellan::Corvel;

namespace {

struct Overflow {};

// Text without a terminator, whose end the address sanitizer knows.
template <class C>
class ExactText {
  public:
    explicit ExactText(std::basic_string_view<C> text) : m_text(new C[text.size()]), m_length(text.size()) {
        std::copy(text.begin(), text.end(), m_text.get());
    }
    std::basic_string_view<C> View() const { return {m_text.get(), m_length}; }

  private:
    std::unique_ptr<C[]> m_text;
    std::size_t m_length;
};

std::vector<TQFormatArg> ChooseArguments(unsigned choice) {
    static const ExactText<wchar_t> wide(L"wide \u00E9");
    static const ExactText<char> narrow("narrow \xC3\xA9\xE2\x82");
    const std::array all = {
        TQFormatArg::From(-42),
        TQFormatArg::From(L"terminated"),
        TQFormatArg::From("terminated\xFF"),
        TQFormatArg::From(1.5e300),
        TQFormatArg::From(wide.View()),
        TQFormatArg::From(narrow.View()),
        TQFormatArg::From(&narrow),
        TQFormatArg::From(5),
    };
    std::vector<TQFormatArg> chosen;
    for (unsigned i = 0; i < choice / all.size() % all.size(); ++i)
        chosen.push_back(all[(choice + i) % all.size()]);
    return chosen;
}

template <class C>
std::size_t Print(std::basic_string<C>& out, const std::basic_string<C>& format,
                  const std::vector<TQFormatArg>& args) {
    // Exactly the buffer that the formatter is told of.
    const std::unique_ptr<C[]> buffer(new C[out.size()]);
    const std::size_t length = FormatArgsTo(std::span<C>(buffer.get(), out.size()), format.c_str(), args);
    out.assign(buffer.get(), std::min(length, out.empty() ? 0 : out.size() - 1));
    return length;
}

// What fits into a small buffer is the beginning of the whole, and both have the same length.
template <class C>
void Check(const std::basic_string<C>& format, const std::vector<TQFormatArg>& args, std::size_t size) {
    try {
        std::basic_string<C> whole;
        const std::size_t length = Print(whole, format, args);
        if (length > TQFormatMaxLength) std::abort();
        whole.resize(length + 1);
        if (Print(whole, format, args) != length || whole.size() != length) std::abort();
        std::basic_string<C> cut(size, C{});
        if (Print(cut, format, args) != length || !whole.starts_with(cut)) std::abort();
    } catch (const Overflow&) {
    }
}

}  // namespace

void TQStdExceptions::ThrowOverflowError(const wchar_t*) {
    throw Overflow();
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const std::vector<TQFormatArg> args = ChooseArguments(data[0]);
    const std::string format(reinterpret_cast<const char*>(data + 2), size - 2);
    Check<char>(format, args, data[1]);
    Check<wchar_t>(std::wstring(format.begin(), format.end()), args, data[1]);
    return 0;
}
