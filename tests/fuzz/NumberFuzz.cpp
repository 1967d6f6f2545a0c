// Numbers from outside. The first byte is the base, the rest the text, once narrow and once wide.
#include "Require.h"
#include "TQLib/text/TQNumber.h"

#include <charconv>
#include <cstdint>
#include <memory>
#include <string>
#include <system_error>

using namespace Quellan::Corvel;

namespace {

// Without a terminator, so that the address sanitizer knows its end.
template <class C>
struct Exact {
    explicit Exact(std::basic_string_view<C> text) : characters(new C[text.size()]), length(text.size()) {
        text.copy(characters.get(), length);
    }
    std::basic_string_view<C> View() const { return {characters.get(), length}; }

    std::unique_ptr<C[]> characters;
    std::size_t length;
};

template <class T>
bool IsSame(T a, T b) {
    return a == b || (a != a && b != b);
}

template <class T, class... Base>
void Check(std::wstring_view wide, std::string_view narrow, Base... base) {
    const TQParsed<T> a = TQTryParse<T>(wide, base...);
    const TQParsed<T> b = TQTryParse<T>(narrow, base...);
    Require(IsSame(a.value, b.value) && a.length == b.length && a.fault == b.fault &&
            a.length <= wide.size());
    // The standard library knows no plus.
    const std::size_t plus = !narrow.empty() && narrow[0] == '+' && narrow.substr(1, 1) != "-" ? 1 : 0;
    T value{};
    std::from_chars_result peer{};
    const char* const end = narrow.data() + narrow.size();
    if constexpr (sizeof...(base) != 0)
        peer = std::from_chars(narrow.data() + plus, end, value, static_cast<int>(base)...);
    else
        peer = std::from_chars(narrow.data() + plus, end, value);
    const bool isNone = peer.ec == std::errc::invalid_argument;
    Require(isNone == (b.fault == TQNumberFault::NoNumber));
    if (isNone) return Require(b.length == 0);
    Require(b.length == static_cast<std::size_t>(peer.ptr - narrow.data()));
    Require(bool(b) == (peer.ec == std::errc()));
    Require(!b || IsSame(b.value, value));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const Exact<char> narrow({reinterpret_cast<const char*>(data + 1), size - 1});
    // Each byte a character, so that both have the same length; those beyond ASCII are no digits in either.
    const Exact<wchar_t> wide(std::wstring(data + 1, data + size));
    const unsigned base = 2 + data[0] % 35;
    Check<signed char>(wide.View(), narrow.View(), base);
    Check<unsigned short>(wide.View(), narrow.View(), base);
    Check<long long>(wide.View(), narrow.View(), base);
    Check<unsigned long long>(wide.View(), narrow.View(), 10u);
    Check<double>(wide.View(), narrow.View());
    Check<float>(wide.View(), narrow.View());
    (void)TQTryParse<int>(wide.View(), 0);
    // What is written is read again.
    if (const auto real = TQTryParse<double>(narrow.View()); real && real.value == real.value)
        Require(TQParse<double>(TQNumberText(real.value).View()) == real.value);
    const auto whole = TQTryParse<long long>(narrow.View(), base);
    Require(TQParse<long long>(TQNumberText(whole.value, base).View(), base) == whole.value);
    return 0;
}
