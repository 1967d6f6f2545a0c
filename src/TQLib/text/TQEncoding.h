// Bytes of other encodings to and from wide text, at once or piece by piece.
#pragma once

#include "TQLib/text/TQString.h"

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace Quellan::Corvel {

struct _TQEncodingFacts;

// How an encoding is applied. Strict refuses what is no character and characters that the encoding does not have:
// throws 1113 (ERROR_NO_UNICODE_TRANSLATION) with a message that tells its place from the beginning of all text. Else
// what is no character becomes U+FFFD, one for each longest part that could have begun a character, bytes 80 to 9F to
// which a code page gives no character are the controls of these numbers, and what the encoding does not have becomes
// "?"; no character becomes another that resembles it.
// With a mark, encoding writes U+FEFF first where the encoding is one of Unicode's, and decoding leaves it out there.
struct TQEncodingRules {
    bool isStrict = false;
    bool hasMark = false;
};

// UTF-8, UTF-16 and UTF-32 in both orders of bytes, the code pages 437, 850, 852, 866 and 1250 to 1258, and ISO 8859
// in its fifteen parts, as 28590 and the number of the part: by tables of the library, the same on both platforms. A
// small value.
//
// Failures besides those of the rules: 14 (ERROR_OUTOFMEMORY), 111 (ERROR_BUFFER_OVERFLOW). Threads: at will.
class TQLIB_API TQEncoding {
  public:
    // Throws 87 (ERROR_INVALID_PARAMETER) where there is none. Names are those of the Internet, or "cp" and the
    // number, and the parts of ISO 8859 "latin1" to "latin10" too; case, blanks, "-" and "_" count for nothing.
    explicit TQEncoding(UINT codePage);
    explicit TQEncoding(std::wstring_view name);
    [[nodiscard]] static std::optional<TQEncoding> Find(UINT codePage) noexcept;
    [[nodiscard]] static std::optional<TQEncoding> Find(std::wstring_view name) noexcept;
    // That of the mark which `bytes` begin with. Four bytes tell all marks, fewer only if there are no more.
    [[nodiscard]] static std::optional<TQEncoding> FindByMark(std::string_view bytes) noexcept;

    [[nodiscard]] UINT CodePage() const noexcept;
    [[nodiscard]] const wchar_t* Name() const noexcept;
    // The bytes of U+FEFF; none for code pages and ISO 8859.
    [[nodiscard]] std::string_view Mark() const noexcept;

    [[nodiscard]] TQString Decode(std::string_view bytes, TQEncodingRules rules = {}) const;
    [[nodiscard]] std::string Encode(std::wstring_view text, TQEncodingRules rules = {}) const;

    bool operator==(const TQEncoding&) const noexcept = default;

  private:
    friend class TQDecoder;
    friend class TQEncoder;

    explicit TQEncoding(const _TQEncodingFacts* facts) noexcept : m_facts(facts) {}

    const _TQEncodingFacts* m_facts;
};

// Decodes bytes that come in pieces, which may end within a character. A call that throws has taken nothing.
// Threads: one at a time.
class TQLIB_API TQDecoder {
  public:
    explicit TQDecoder(TQEncoding encoding, TQEncodingRules rules = {}) noexcept;

    [[nodiscard]] TQString Decode(std::string_view bytes);
    // What a character that was begun becomes now that all has been given; strict throws if there is one. The
    // decoder then begins anew.
    [[nodiscard]] TQString Finish();

  private:
    struct State {
        std::array<char, 4> cut{};  // what was given of a character that goes on
        std::size_t cutSize = 0;
        ULONGLONG taken = 0;  // bytes before it
        bool isAtBegin = true;
    };

    void Take(State& state, std::string_view& bytes, std::wstring& text) const;
    void SkipMark(State& state, std::wstring& text) const;

    TQEncoding m_encoding;
    TQEncodingRules m_rules;
    State m_state;
};

// Encodes text that comes in pieces, which may end within a pair of surrogates. A call that throws has taken nothing.
// Threads: one at a time.
class TQLIB_API TQEncoder {
  public:
    explicit TQEncoder(TQEncoding encoding, TQEncodingRules rules = {}) noexcept;

    [[nodiscard]] std::string Encode(std::wstring_view text);
    // What the first half of a pair becomes whose second half did not come; strict throws if there is one. The
    // encoder then begins anew. A mark is written even if there was no text.
    [[nodiscard]] std::string Finish();

  private:
    struct State {
        wchar_t cut = 0;      // the first half of a pair, or 0
        ULONGLONG taken = 0;  // units before it
        bool isAtBegin = true;
    };

    void Take(State& state, std::wstring_view text, std::string& bytes) const;

    TQEncoding m_encoding;
    TQEncodingRules m_rules;
    State m_state;
};

}  // namespace Quellan::Corvel
