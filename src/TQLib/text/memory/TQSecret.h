// Text and bytes that nobody else is to see: passwords, keys.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/text/memory/TQDataBuf.h"

#include <span>
#include <string_view>
#include <type_traits>

namespace Quellan::Corvel {

// A secret text or secret bytes, in the memory that buffers of the level `WipeAndLock` have: locked, between
// guard pages, on Linux in no core dump and no forked child, and wiped wherever something is dropped. It is
// moved, never copied without a word (`Copy`), is printed by nothing and turns into nothing by itself: who
// needs what is in it borrows a view, and makes no copies from there. One thread at a time.
//
// What it was made from is the caller's to wipe; `Take` does that. docs/secrets.md says what is protected
// against whom, and how many secrets there can be.
//
// Failures: 14 (ERROR_OUTOFMEMORY) without memory, the platform's code where no more pages can be locked
// (1453, ERROR_WORKING_SET_QUOTA), 111 (ERROR_BUFFER_OVERFLOW) for a size beyond what an object can have. The
// secret is unchanged after each.
template <class C>
class _TQSecretT {
    static constexpr bool IsText = !std::is_same_v<C, BYTE>;

  public:
    using ViewType = std::conditional_t<IsText, std::basic_string_view<C>, std::span<const C>>;

    _TQSecretT() noexcept;
    explicit _TQSecretT(ViewType source);
    _TQSecretT(_TQSecretT&&) noexcept = default;
    _TQSecretT& operator=(_TQSecretT&& other) noexcept;
    ~_TQSecretT() = default;

    // A secret of what `source` holds, which is all zeros then; where this throws it is unchanged.
    [[nodiscard]] static _TQSecretT Take(std::span<C> source);
    [[nodiscard]] _TQSecretT Copy() const;

    // In characters or bytes.
    [[nodiscard]] std::size_t Size() const noexcept;
    [[nodiscard]] bool IsEmpty() const noexcept;

    // Borrowed, until the secret changes.
    [[nodiscard]] ViewType View() const noexcept;
    // The same, to be changed in place: for calls that write a secret.
    [[nodiscard]] std::span<C> Span() noexcept;
    // The same with a terminator, for calls that read one; what lies behind a zero in it they do not see.
    [[nodiscard]] const C* c_str() const noexcept requires(!std::is_same_v<C, BYTE>);

    // Cuts the end off or adds zeros.
    void Resize(std::size_t size);
    // `source` may be part of this secret.
    void Assign(ViewType source);
    void Append(ViewType source);
    void Append(C element);
    // Empties it and gives its memory back.
    void Clear() noexcept;

    // Whether both are the same, in a time that depends on their sizes alone. Sizes that differ are told at
    // once: who must not tell the size compares digests.
    [[nodiscard]] bool EqualsSecret(const _TQSecretT& other) const noexcept;
    [[nodiscard]] bool EqualsSecret(ViewType other) const noexcept;

    // To UTF-8 and back, from one secret straight into the other. Throws 1113 (ERROR_NO_UNICODE_TRANSLATION)
    // for what is no valid text: a character in its place would make different secrets equal.
    [[nodiscard]] _TQSecretT<char> ToUtf8() const requires std::is_same_v<C, wchar_t>;
    [[nodiscard]] static _TQSecretT FromUtf8(std::string_view text) requires std::is_same_v<C, wchar_t>;

  private:
    // A text with its terminator; nothing for an empty one, at times.
    TQDataBuf<C> m_contents;
};

using TQSecretString = _TQSecretT<wchar_t>;
using TQaSecretString = _TQSecretT<char>;
using TQSecretBuf = _TQSecretT<BYTE>;

extern template class TQLIB_API _TQSecretT<wchar_t>;
extern template class TQLIB_API _TQSecretT<char>;
extern template class TQLIB_API _TQSecretT<BYTE>;

}  // namespace Quellan::Corvel
