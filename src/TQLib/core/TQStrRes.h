// Text resources: messages and strings that live in the resource modules of a registered store, one module a
// language.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/text/STLString.h"

#include <cstdint>
#include <functional>
#include <ranges>
#include <span>
#include <string_view>
#include <type_traits>

namespace Quellan::Corvel {

// Who is going to read a text; decides the languages in which it is looked for
// (`TQLib::DestinationLocaleIDs`).
enum class TQStrResDestination : LONG {
    User = 0,      // somebody at this process: the user's language, then the system's, then English
    System = 1,    // everybody on this machine: the system's language, then English
    EventLog = 2,  // the system event log: the system's language, then English
    Log = 3,       // the diagnostic log: English
};

constexpr std::size_t TQStrResDestinationCount = 4;

// The name of a destination, as in failure messages; "Unknown" for a value that is none of the four.
TQLIB_API const wchar_t* TQStrResDestinationName(TQStrResDestination destination) noexcept;

template <class T>
concept _TQNumber = std::is_integral_v<T> || std::is_enum_v<T>;

// Wide text that lives on behind the expression in which it is named: a view, or a string that is no
// temporary.
template <class T>
concept _TQBorrowedText = _TQShowsView<std::remove_cvref_t<T>, wchar_t> &&
    (std::is_lvalue_reference_v<T> || std::ranges::enable_borrowed_range<std::remove_cvref_t<T>>);

// One argument for the inserts of a message: a number or a wide text, up to its first zero. A text is
// borrowed and must outlive the argument; a null one is "(null)".
class TQMsgArg {
  public:
    template <_TQNumber T>
    TQMsgArg(T number) noexcept : m_number(static_cast<std::uintptr_t>(number)), m_isText(false) {}
    TQMsgArg(const wchar_t* text) noexcept : m_text(text ? text : L"(null)"), m_isText(true) {}
    template <_TQBorrowedText T>
    TQMsgArg(T&& text) noexcept : m_text(text), m_isText(true) {}

    // 0 for a text, empty for a number.
    [[nodiscard]] std::uintptr_t Number() const noexcept { return m_number; }
    [[nodiscard]] std::wstring_view Text() const noexcept { return m_text; }
    [[nodiscard]] bool IsText() const noexcept { return m_isText; }

  private:
    std::uintptr_t m_number = 0;
    std::wstring_view m_text;
    bool m_isText;
};

// A reference to one text resource: a store and an identifier in it. A small value without a resource of its
// own; two references are equal when they name the same text. Reading a text is safe from several threads.
class TQLIB_API TQBaseStrRes {
  public:
    enum class Kind : unsigned char { String, Message };

    TQBaseStrRes(Kind kind, unsigned int storeId, unsigned int resourceId) noexcept
        : m_storeId(storeId), m_resourceId(resourceId), m_kind(kind) {}

    [[nodiscard]] Kind ResourceKind() const noexcept { return m_kind; }
    [[nodiscard]] unsigned int StoreID() const noexcept { return m_storeId; }
    [[nodiscard]] unsigned int ResourceID() const noexcept { return m_resourceId; }

    // The text in the first language of the destination that has it: for each locale the module of its full
    // name, then that of its base language. Inserts of a message (`%1`, `%2!lu!`) take the arguments; an
    // insert without an argument, or with one of the wrong kind, becomes "<?>", and a text that can't be
    // expanded (an insert is malformed, the result too long for the platform) is given as it stands. Throws
    // `TQException`: 1168 (ERROR_NOT_FOUND) for a store that is not registered, 317 (ERROR_MR_MID_NOT_FOUND)
    // for a message and 1814 (ERROR_RESOURCE_NAME_NOT_FOUND) for a string that no language has, or, with the
    // failure as inner exception, the code for which a language's module could not be loaded; 14
    // (ERROR_OUTOFMEMORY).
    template <class... Args>
    [[nodiscard]] STLString Text(TQStrResDestination destination, const Args&... args) const {
        if constexpr (sizeof...(Args) == 0) {
            return TextWith(destination, {});
        } else {
            const TQMsgArg array[] = {TQMsgArg(args)...};
            return TextWith(destination, array);
        }
    }
    [[nodiscard]] STLString TextWith(TQStrResDestination destination, std::span<const TQMsgArg> args) const;

    // A reference of the same kind to another resource of the same store.
    [[nodiscard]] TQBaseStrRes WithID(unsigned int resourceId) const noexcept {
        return {m_kind, m_storeId, resourceId};
    }

    bool operator==(const TQBaseStrRes&) const noexcept = default;

  private:
    unsigned int m_storeId;
    unsigned int m_resourceId;
    Kind m_kind;
};

// A string of a module's string table.
class TQStrRes : public TQBaseStrRes {
  public:
    explicit TQStrRes(unsigned int storeId, unsigned int resourceId = 0) noexcept
        : TQBaseStrRes(Kind::String, storeId, resourceId) {}
};

// A message of a module's message table.
class TQMsgRes : public TQBaseStrRes {
  public:
    explicit TQMsgRes(unsigned int storeId, unsigned int resourceId = 0) noexcept
        : TQBaseStrRes(Kind::Message, storeId, resourceId) {}
};

}  // namespace Quellan::Corvel

template <>
struct std::hash<Quellan::Corvel::TQBaseStrRes> {
    std::size_t operator()(const Quellan::Corvel::TQBaseStrRes& resource) const noexcept {
        return std::hash<std::uint64_t>{}(std::uint64_t{resource.StoreID()} << 32 | resource.ResourceID()) *
                   2 +
               static_cast<std::size_t>(resource.ResourceKind());
    }
};
template <>
struct std::hash<Quellan::Corvel::TQStrRes> : std::hash<Quellan::Corvel::TQBaseStrRes> {};
template <>
struct std::hash<Quellan::Corvel::TQMsgRes> : std::hash<Quellan::Corvel::TQBaseStrRes> {};
