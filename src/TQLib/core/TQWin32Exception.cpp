#include "TQLib/core/TQWin32Exception.h"

#include "TQLib/core/TQEventLog.h"
#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/core/internal/ModuleLookup.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/platform/SystemCodes.h"
#include "TQLib/text/TQNumber.h"
#include "TQLib/text/memory/TQHandle.h"
#include "TQLib/text/memory/TQUniqueHandle.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

namespace Quellan::Corvel {

using namespace std::string_view_literals;

namespace {

constexpr const wchar_t* LevelNames[] = {L"Success", L"Information", L"Warning", L"Error", L"Unknown"};
constexpr const wchar_t* SourceNames[] = {L"Unknown", L"App", L"OS", L"SubSystem"};

struct Facility {
    unsigned short code;
    const wchar_t* name;
};

constexpr Facility Facilities[] = {
    {FACILITY_DISPATCH, L"Dispatch"},
    {FACILITY_STORAGE, L"Storage"},
    {FACILITY_ITF, L"Interface"},
    {FACILITY_WIN32, L"Win32"},
    {FACILITY_WINDOWS, L"Windows"},
    {FACILITY_SECURITY, L"Security"},
    {FACILITY_CONTROL, L"Control"},
    {FACILITY_CERT, L"Certificate"},
    {FACILITY_INTERNET, L"Internet"},
    {FACILITY_MEDIASERVER, L"Media Server"},
    {FACILITY_MSMQ, L"MSMQ"},
    {FACILITY_SETUPAPI, L"Setup API"},
    {FACILITY_SCARD, L"SCARD"},
    {FACILITY_COMPLUS, L"COM+"},
    {FACILITY_DPLAY, L"DPLAY"},
    {FACILITY_HTTP, L"HTTP"},
    {FACILITY_BACKGROUNDCOPY, L"Background Copy"},
    {FACILITY_CONFIGURATION, L"Configuration"},
    {FACILITY_STATE_MANAGEMENT, L"State Management"},
    {FACILITY_METADIRECTORY, L"MetaDirectory"},
    {FACILITY_WINDOWSUPDATE, L"Windows Update"},
    {FACILITY_DIRECTORYSERVICE, L"Directory Service"},
};

// The facility in which applications define codes of their own, and the two that message files use by
// convention.
constexpr unsigned short FacilityInterface = FACILITY_ITF;
constexpr unsigned short FacilityMessageFile = 0xFFF;
constexpr unsigned short FacilityMessageFileOther = 0xFFE;

constexpr std::wstring_view CodeText = L"[0x00000000]";
constexpr std::wstring_view LineBreak = L"\r\n";

// By hand: behind the unwinder the formatter's code is cold, and would take a quarter of the time of
// rendering a message.
std::array<wchar_t, CodeText.size()> CodeTextOf(unsigned int code) {
    std::array<wchar_t, CodeText.size()> text;
    CodeText.copy(text.data(), text.size());
    for (auto digit = text.end() - 2; code != 0; --digit, code >>= 4)
        *digit = L"0123456789abcdef"[code & 15];
    return text;
}

template <std::size_t Length>
std::wstring_view ViewOf(const std::array<wchar_t, Length>& text) {
    return {text.data(), Length};
}

// The pieces one behind the other, in memory that is taken once.
STLString Joined(std::initializer_list<std::wstring_view> pieces) {
    std::size_t length = 0;
    for (const std::wstring_view piece : pieces)
        length += piece.size();
    return Translated(L"TQString::Append", [&] {
        std::wstring text(length, L'\0');
        wchar_t* at = text.data();
        for (const std::wstring_view piece : pieces)
            at = std::copy(piece.begin(), piece.end(), at);
        return STLString(std::move(text));
    });
}

// The system's text for a message number with `end` behind it; empty where there is none.
STLString SystemTextWith(DWORD number, std::wstring_view end) {
    constexpr DWORD flags = FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_MAX_WIDTH_MASK;
    constexpr DWORD userDefaultLanguage = 0x400;
    std::array<wchar_t, 512> buffer;
    DWORD length =
        FormatMessageW(flags, nullptr, number, userDefaultLanguage, buffer.data(), buffer.size(), nullptr);
    const wchar_t* text = buffer.data();
    // Nearly all texts fit into the buffer.
    TQUniqueHandle<_TQLocalMemClose> allocated;
    if (length == 0 && GetLastError() == ERROR_INSUFFICIENT_BUFFER) {
        wchar_t* whole = nullptr;
        length = FormatMessageW(flags | FORMAT_MESSAGE_ALLOCATE_BUFFER, nullptr, number, userDefaultLanguage,
                                reinterpret_cast<wchar_t*>(&whole), 0, nullptr);
        allocated = TQUniqueHandle<_TQLocalMemClose>(whole);
        text = whole;
    }
    if (length == 0) return {};
    return Joined({{text, length}, end});
}

STLString CodeStringOf(unsigned int code) noexcept {
    try {
        const unsigned short facility = _TQExceptionRoot::CodeFacility(code);
        const DWORD number = facility == FACILITY_WIN32 || facility == 0 ? code & 0xFFFF : code;
        if (number == 0) return {};
        const auto codeText = CodeTextOf(code);
        STLString text = SystemTextWith(number, ViewOf(codeText));
        if (text.IsEmpty() && facility == FacilityInterface)
            text = SystemTextWith((code & 0x8007FFFF) | 0x70000, ViewOf(codeText));
        if (text.IsEmpty() && (facility == FacilityMessageFile || facility == FacilityMessageFileOther))
            text = SystemTextWith(code & 0xFFFF, ViewOf(codeText));
        if (text.IsEmpty()) text = Joined({L"unknown"sv, ViewOf(codeText)});
        return text;
    } catch (...) {
        // Telling of a failure must not fail.
        return {};
    }
}

// The name of a code that is an NTSTATUS and nothing else; null for all others.
const wchar_t* StatusName(unsigned int code) {
    const wchar_t* name = code >> 30 == 3 ? L"NTSTATUS " : nullptr;
    for (const Platform::SystemCode& known : Platform::SystemCodesOf(code)) {
        if (known.family == Platform::SystemCodeFamily::HResult) return nullptr;
        if (known.family == Platform::SystemCodeFamily::NtStatus) name = known.Name();
    }
    return code >> 30 >= 2 ? name : nullptr;
}

// What means the same, the code that stands for an errno value first.
constexpr struct {
    DWORD code;
    std::errc condition;
} Conditions[] = {
    {ERROR_FILE_NOT_FOUND, std::errc::no_such_file_or_directory},
    {ERROR_PATH_NOT_FOUND, std::errc::no_such_file_or_directory},
    {ERROR_TOO_MANY_OPEN_FILES, std::errc::too_many_files_open},
    {ERROR_ACCESS_DENIED, std::errc::permission_denied},
    {ERROR_INVALID_HANDLE, std::errc::bad_file_descriptor},
    {ERROR_OUTOFMEMORY, std::errc::not_enough_memory},
    {ERROR_NOT_ENOUGH_MEMORY, std::errc::not_enough_memory},
    {ERROR_NOT_SAME_DEVICE, std::errc::cross_device_link},
    {ERROR_WRITE_PROTECT, std::errc::read_only_file_system},
    {ERROR_BUSY, std::errc::device_or_resource_busy},
    {ERROR_SHARING_VIOLATION, std::errc::device_or_resource_busy},
    {ERROR_LOCK_VIOLATION, std::errc::no_lock_available},
    {ERROR_NOT_SUPPORTED, std::errc::not_supported},
    {ERROR_FILE_EXISTS, std::errc::file_exists},
    {ERROR_ALREADY_EXISTS, std::errc::file_exists},
    {ERROR_INVALID_PARAMETER, std::errc::invalid_argument},
    {ERROR_BROKEN_PIPE, std::errc::broken_pipe},
    {ERROR_DISK_FULL, std::errc::no_space_on_device},
    {ERROR_CALL_NOT_IMPLEMENTED, std::errc::function_not_supported},
    {ERROR_DIRECTORY, std::errc::not_a_directory},
    {ERROR_DIR_NOT_EMPTY, std::errc::directory_not_empty},
    {ERROR_FILENAME_EXCED_RANGE, std::errc::filename_too_long},
    {ERROR_OPERATION_ABORTED, std::errc::operation_canceled},
    {ERROR_CANCELLED, std::errc::operation_canceled},
    {ERROR_POSSIBLE_DEADLOCK, std::errc::resource_deadlock_would_occur},
    {ERROR_TIMEOUT, std::errc::timed_out},
    {WAIT_TIMEOUT, std::errc::timed_out},
    {ERROR_SEM_TIMEOUT, std::errc::timed_out},
    {ERROR_FILE_TOO_LARGE, std::errc::file_too_large},
    {ERROR_PRIVILEGE_NOT_HELD, std::errc::operation_not_permitted},
    {ERROR_IO_DEVICE, std::errc::io_error},
};

class ErrorCategory final : public std::error_category {
  public:
    const char* name() const noexcept override { return "TQLib"; }
    std::string message(int code) const override {
        return std::string(CodeStringOf(static_cast<unsigned int>(code)).ToUtf8().View());
    }
    std::error_condition default_error_condition(int code) const noexcept override {
        for (const auto& each : Conditions)
            if (each.code == static_cast<DWORD>(code)) return each.condition;
        return {code, *this};
    }
};

unsigned int CodeFrom(const std::error_code& failure) {
    const std::error_category& category = failure.category();
    if (failure.value() == 0) return ERROR_SUCCESS;
    if (category == TQErrorCategory()) return static_cast<unsigned int>(failure.value());
    if (category == std::system_category()) return Platform::CodeOfSystem(failure.value());
    if (category == std::generic_category())
        for (const auto& each : Conditions)
            if (static_cast<int>(each.condition) == failure.value()) return each.code;
    return static_cast<unsigned int>(E_FAIL);
}

const wchar_t* AccessVerb(std::uintptr_t access) {
    return access == 0 ? L"reading" : access == 1 ? L"writing" : L"accessing";
}

const wchar_t* AccessViolationKind(std::uintptr_t access) {
    return access == 0 ? L"Read Access" : access == 1 ? L"Write Access" : access == 8 ? L"DEP" : L"Access";
}

const wchar_t* InPageErrorKind(std::uintptr_t access) {
    return access == 0 ? L"Read " : access == 1 ? L"Write " : access == 8 ? L"DEP " : L"";
}

// The module that holds an address. Where its name can't be had, a failure is reported without it.
TQString OwnerOf(const void* address) {
    try {
        if (TQString owner = ModuleAt(address); !owner.IsEmpty()) return owner;
    } catch (const _TQWin32Exception& e) {
        if (e.ErrCode() == ERROR_OUTOFMEMORY) throw;
    }
    return L"unknown";
}

// The innermost traps of the threads whose ids come here. Threads share a list only where their ids collide.
struct ThreadTraps {
    TQThreadSynch lock;
    _TQWin32Exception::Trap_SEH* first TQ_GUARDED_BY(lock) = nullptr;
};

ThreadTraps& TrapsOf(DWORD thread) {
    // Never destroyed: a thread may have a trap at the very end. Ids are multiples of 4 on some platforms.
    static auto& all = *new std::array<ThreadTraps, 64>;
    return all[thread / 4 % all.size()];
}

// Made while the library is loaded: later there may be no memory for it.
[[maybe_unused]] const ThreadTraps& g_trapsMadeEarly = TrapsOf(0);

}  // namespace

const std::error_category& TQErrorCategory() noexcept {
    // Never destroyed: the codes of static objects may outlive it.
    static const ErrorCategory& category = *new ErrorCategory;
    return category;
}

_TQExceptionContent::_TQExceptionContent(const std::error_code& failure, const wchar_t* message)
    : _TQExceptionContent(CodeFrom(failure), message) {}

_TQExceptionRoot::Source _TQExceptionRoot::CodeSource(unsigned int code) noexcept {
    const unsigned short facility = CodeFacility(code);
    if (facility == 4) return Source::App;
    if (facility >= 7 && facility <= 9) return Source::SubSystem;
    if ((facility >= 1 && facility <= 3) || (facility >= 10 && facility <= 23) || facility == 25 ||
        (facility >= 32 && facility <= 37))
        return Source::Facility;
    return Source::Unknown;
}

const wchar_t* _TQExceptionRoot::LevelName(Level level) noexcept {
    const auto index = static_cast<std::size_t>(level);
    return index < std::size(LevelNames) ? LevelNames[index]
                                         : LevelNames[static_cast<std::size_t>(Level::Unknown)];
}

const wchar_t* _TQExceptionRoot::SourceName(Source source) noexcept {
    const auto index = static_cast<std::size_t>(source);
    if (index < std::size(SourceNames)) return SourceNames[index];
    return source == Source::Facility ? L"Facility" : SourceNames[static_cast<std::size_t>(Source::Unknown)];
}

const wchar_t* _TQExceptionRoot::FacilityName(unsigned short facility) noexcept {
    for (const Facility& known : Facilities)
        if (known.code == facility) return known.name;
    return L"Unknown";
}

template <class T>
_TQExceptionBase<T>::_TQExceptionBase(const T* inner, const _TQExceptionContent& content)
    : m_code(content.code),
      m_level(content.level.value_or(CodeLevel(content.code))),
      m_source(content.source.value_or(CodeSource(content.code))),
      m_subsystem(content.subsystem.value_or(CodeFacility(content.code))),
      m_process(GetCurrentProcessId()),
      m_thread(GetCurrentThreadId()),
      m_text(content.text),
      m_resource(content.resource),
      m_record(content.record) {
    if (inner) m_inner = CommonValue<std::unique_ptr<const T>>(std::unique_ptr<const T>(inner->AllocCopy()));
}

template <class T>
_TQExceptionBase<T>::_TQExceptionBase(const _TQExceptionBase& other) noexcept
    : _TQExceptionRoot(other),
      m_code(other.m_code),
      m_level(other.m_level),
      m_source(other.m_source),
      m_subsystem(other.m_subsystem),
      m_process(other.m_process),
      m_thread(other.m_thread),
      m_text(other.m_text),
      m_resource(other.m_resource),
      m_action(other.m_action),
      m_record(other.m_record),
      m_cache(other.m_cache),
      m_files(other.m_files),
      m_inner(other.m_inner) {}

template <class T>
_TQExceptionBase<T>& _TQExceptionBase<T>::operator=(const _TQExceptionBase& other) noexcept {
    if (this == &other) return *this;
    m_formerInner = m_inner;
    m_code = other.m_code;
    m_level = other.m_level;
    m_source = other.m_source;
    m_subsystem = other.m_subsystem;
    m_process = other.m_process;
    m_thread = other.m_thread;
    m_text = other.m_text;
    m_resource = other.m_resource;
    m_action = other.m_action;
    m_record = other.m_record;
    m_cache = other.m_cache;
    m_files = other.m_files;
    m_inner = other.m_inner;
    return *this;
}

template <class T>
void _TQExceptionBase<T>::SetArisen() noexcept {
    m_process = GetCurrentProcessId();
    m_thread = GetCurrentThreadId();
}

template <class T>
_TQExceptionBase<T>::~_TQExceptionBase() = default;

template <class T>
bool _TQExceptionBase<T>::IsSysException() const {
    return m_record.has_value();
}

template <class T>
STLString _TQExceptionBase<T>::ExcCodeString() const {
    return CodeStringOf(m_code);
}

template <class T>
const wchar_t* _TQExceptionBase<T>::ExcSubSysName() const {
    return FacilityName(m_subsystem);
}

template <class T>
void _TQExceptionBase<T>::SetAction(const wchar_t* action) {
    CommonValue<STLString> text{STLString(action)};
    // Only the first action empties the cache. Lines that were rendered with it keep it when a later one is
    // set.
    if (!*Action()) m_cache.Drop();
    m_action = text;
}

template <class T>
const char* _TQExceptionBase<T>::what() const noexcept {
    try {
        if (const _TQaString* kept = m_cache.utf8.Find()) return kept->c_str();
        const STLString& line = FullLine(TQStrResDestination::User, {});
        if (line.IsEmpty()) return "A failure without a code and without a message.";
        return m_cache.utf8.Keep(line.ToUtf8()).c_str();
    } catch (...) {
        return "A failure whose message can't be rendered.";
    }
}

template <class T>
unsigned int _TQExceptionBase<T>::ErrCode() const noexcept {
    return m_code;
}

template <class T>
std::error_code _TQExceptionBase<T>::ErrorCode() const noexcept {
    return {COMErrCode(), TQErrorCategory()};
}

template <class T>
LONG _TQExceptionBase<T>::COMErrCode() const noexcept {
    return static_cast<LONG>(m_code);
}

template <class T>
typename _TQExceptionBase<T>::Level _TQExceptionBase<T>::ExcLevel() const noexcept {
    return m_level;
}

template <class T>
typename _TQExceptionBase<T>::Source _TQExceptionBase<T>::ExcSource() const noexcept {
    return m_source;
}

template <class T>
const wchar_t* _TQExceptionBase<T>::ExcLevelName() const noexcept {
    return LevelName(m_level);
}

template <class T>
const wchar_t* _TQExceptionBase<T>::ExcSourceName() const noexcept {
    return SourceName(m_source);
}

template <class T>
unsigned short _TQExceptionBase<T>::ExcSubSys() const noexcept {
    return m_subsystem;
}

template <class T>
DWORD _TQExceptionBase<T>::ExcProcess() const noexcept {
    return m_process;
}

template <class T>
DWORD _TQExceptionBase<T>::ExcThread() const noexcept {
    return m_thread;
}

template <class T>
const wchar_t* _TQExceptionBase<T>::Action() const noexcept {
    return m_action.Get() ? m_action.Get()->c_str() : L"";
}

template <class T>
bool _TQExceptionBase<T>::HasResMsg() const noexcept {
    return m_resource.has_value();
}

template <class T>
const T* _TQExceptionBase<T>::Inner() const noexcept {
    return m_inner.Get() ? m_inner.Get()->get() : nullptr;
}

template <class T>
const TQOSExceptionRecord* _TQExceptionBase<T>::OSException() const noexcept {
    return m_record ? &*m_record : nullptr;
}

template <class T>
TQStringArray _TQExceptionBase<T>::ErrFileList() const {
    return m_files.Get() ? *m_files.Get() : TQStringArray();
}

template <class T>
void _TQExceptionBase<T>::AddErrFile(const wchar_t* file) const {
    TQStringArray files = ErrFileList();
    files.Add(file);
    m_files = CommonValue<TQStringArray>(std::move(files));
}

template <class T>
STLString _TQExceptionBase<T>::MessageFor(TQStrResDestination destination,
                                          std::span<const TQMsgArg> args) const {
    return m_resource ? m_resource->TextWith(destination, args) : STLString(m_text.View());
}

template <class T>
const STLString& _TQExceptionBase<T>::FullLine(TQStrResDestination destination,
                                               std::span<const TQMsgArg> args) const {
    if (static_cast<std::size_t>(destination) >= TQStrResDestinationCount)
        TQStdExceptions::ThrowParameterInvalidError(L"TQCoreException::FullMsg");
    KeptLine<STLString>& cached = m_cache.For(destination);
    if (const STLString* kept = cached.Find()) return *kept;

    return cached.Keep(LineWith(static_cast<const T*>(this)->ExcCodeString(), destination, args));
}

template <class T>
STLString _TQExceptionBase<T>::LineWith(const STLString& codeString, TQStrResDestination destination,
                                        std::span<const TQMsgArg> args) const {
    STLString looked;
    std::wstring_view message = m_text.View();
    if (m_resource) {
        try {
            looked = MessageFor(destination, args);
        } catch (const _TQWin32Exception& e) {
            // Whoever reports this failure must not lose it because its text is missing.
            if (e.ErrCode() == ERROR_OUTOFMEMORY) throw;
            looked = e.ExcMsg(destination);
        }
        message = looked.View();
    }
    const std::wstring_view code = codeString.View();
    const std::wstring_view action = Action();
    return Joined({message, code.empty() ? L""sv : L" ("sv, code, code.empty() ? L""sv : L")"sv,
                   action.empty() ? L""sv : L" Action="sv, action});
}

template <class T>
bool _TQExceptionBase<T>::SaysTheSame(const _TQExceptionBase& other) const noexcept {
    if (m_code != other.m_code || m_level != other.m_level || m_source != other.m_source ||
        m_subsystem != other.m_subsystem || m_resource != other.m_resource || m_record != other.m_record ||
        std::wstring_view(Action()) != other.Action() || !(m_text == other.m_text))
        return false;
    const T* const inner = Inner();
    const T* const otherInner = other.Inner();
    return inner && otherInner ? *inner == *otherInner : inner == otherInner;
}

template class _TQExceptionBase<_TQWin32Exception>;

_TQWin32Exception::_TQWin32Exception(const _TQWin32Exception* inner, const _TQExceptionContent& content,
                                     bool isPreAllocated)
    : _TQExceptionBase(inner, content), m_isPreAllocated(isPreAllocated) {}

_TQWin32Exception::_TQWin32Exception(const _TQWin32Exception&) noexcept = default;
_TQWin32Exception& _TQWin32Exception::operator=(const _TQWin32Exception&) noexcept = default;
_TQWin32Exception::~_TQWin32Exception() = default;

_TQWin32Exception* _TQWin32Exception::AllocCopy() const {
    return NewCopy(*this);
}

void _TQWin32Exception::AssembleLogOutput(const wchar_t* where, STLString& out) const {
    const TQString application = TQEventLog::CurrentAppName();
    const std::wstring_view line = FullLine(TQStrResDestination::Log, {}).View();
    const bool hasPlace = where && !IsBadStringPtrW(where, static_cast<std::uintptr_t>(-1)) && *where;
    out = Joined({L"Exception[Prc:"sv, TQNumberText(ExcProcess()), L":Thr:"sv, TQNumberText(ExcThread()),
                  L"]{"sv, application.View(), L"} "sv, line, hasPlace ? L" in "sv : L""sv,
                  hasPlace ? std::wstring_view(where) : L""sv, LineBreak});
    if (OSException()) {
        AppendOSExceptionLine(out);
        out.Append(LineBreak);
    }
}

void _TQWin32Exception::AppendOSExceptionLine(STLString& out) const {
    const TQOSExceptionRecord& record = *OSException();
    // Only the low half of an address shows: the readers of these lines know them so.
    const auto address = static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(record.address));
    const auto flags = record.flags;
    const void* const target = reinterpret_cast<const void*>(record.target);
    const TQString owner = OwnerOf(record.address);
    if (record.code == STATUS_ACCESS_VIOLATION && record.parameterCount == 0)
        out.AppendFormat(L"OS Exception-Access Violation @ 0x%08x. Flags = 0x%08x; Owner=%s", address, flags,
                         owner.c_str());
    else if (record.code == STATUS_ACCESS_VIOLATION)
        out.AppendFormat(L"OS Exception-%s Violation @ 0x%08x %s %p. Flags = 0x%08x; Owner=%s",
                         AccessViolationKind(record.access), address, AccessVerb(record.access), target,
                         flags, owner.c_str());
    else if (record.code == STATUS_IN_PAGE_ERROR)
        out.AppendFormat(
            L"OS Exception-%sIn-Page Error @ 0x%08x %s %p. Flags = 0x%08x - Status=0x%08x; Owner=%s",
            InPageErrorKind(record.access), address, AccessVerb(record.access), target, flags,
            static_cast<unsigned int>(record.status), owner.c_str());
    else
        out.AppendFormat(L"OS Exception (0x%08x) @ 0x%08x. Flags = 0x%08x; Owner=%s", record.code, address,
                         flags, owner.c_str());
}

STLString _TQWin32Exception::ChainLine(TQStrResDestination destination) const {
    const wchar_t* const name =
        Translated(L"TQCoreException::ChainMsg", [this] { return StatusName(ErrCode()); });
    if (!name) return FullLine(destination, {});
    return LineWith(Joined({name, ViewOf(CodeTextOf(ErrCode()))}), destination, {});
}

STLString _TQWin32Exception::ChainMsg(TQStrResDestination destination) const {
    STLString chain = ChainLine(destination);
    chain.Append(LineBreak);
    AppendCauses(destination, true, chain);
    return chain.Left(chain.Length() - LineBreak.size());
}

void _TQWin32Exception::AppendCauses(TQStrResDestination destination, bool withOwnFault,
                                     STLString& out) const {
    for (const _TQWin32Exception* each = this; each; each = each->Inner()) {
        if (each != this)
            out.Append(L"Caused by: ").Append(each->ChainLine(destination).View()).Append(LineBreak);
        for (const TQString& file : each->ErrFileList())
            out.Append(L"    File: ").Append(file.View()).Append(LineBreak);
        if (each->OSException() && (withOwnFault || each != this)) {
            out.Append(L"    ");
            each->AppendOSExceptionLine(out);
            out.Append(LineBreak);
        }
    }
}

void _TQWin32Exception::DebugReport() const noexcept {
    try {
        STLString block;
        AssembleLogOutput(nullptr, block);
        AppendCauses(TQStrResDestination::Log, false, block);
        OutputDebugStringW(block.c_str());
    } catch (...) {
        OutputDebugStringW(L"An exception could not be rendered.\r\n");
    }
}

unsigned int _TQWin32Exception::LastError() noexcept {
    return GetLastError();
}

_TQWin32Exception::Trap_SEH::Trap_SEH(const wchar_t* name)
    : m_name(name ? name : L""), m_thread(GetCurrentThreadId()) {
    RegisterHandler(*this);
}

_TQWin32Exception::Trap_SEH::~Trap_SEH() {
    UnregisterHandler(*this);
}

void _TQWin32Exception::RegisterHandler(Trap_SEH& trap) {
    trap.m_previousTranslator = Translated(
        L"Trap_SEH::Trap_SEH", [] { return Platform::SetStructuredExceptionTranslator(&_SEH_Trap); });
    ThreadTraps& traps = TrapsOf(trap.m_thread);
    const TQThreadSynch::TQSynchLock guard(traps.lock);
    Trap_SEH** const entry = EntryOf(trap.m_thread, traps.first);
    trap.m_outer = *entry;
    trap.m_next = *entry ? (*entry)->m_next : nullptr;
    *entry = &trap;
}

void _TQWin32Exception::UnregisterHandler(Trap_SEH& trap) noexcept {
    Platform::SetStructuredExceptionTranslator(trap.m_previousTranslator);
    ThreadTraps& traps = TrapsOf(trap.m_thread);
    const TQThreadSynch::TQSynchLock guard(traps.lock);
    Trap_SEH** const entry = EntryOf(trap.m_thread, traps.first);
    if (trap.m_outer) trap.m_outer->m_next = trap.m_next;
    *entry = trap.m_outer ? trap.m_outer : trap.m_next;
}

_TQWin32Exception::Trap_SEH* _TQWin32Exception::ThreadHandler(DWORD threadId) noexcept {
    ThreadTraps& traps = TrapsOf(threadId);
    const TQThreadSynch::TQSynchLock guard(traps.lock);
    return *EntryOf(threadId, traps.first);
}

_TQWin32Exception::Trap_SEH** _TQWin32Exception::EntryOf(DWORD thread, Trap_SEH*& first) noexcept {
    Trap_SEH** entry = &first;
    while (*entry && (*entry)->m_thread != thread)
        entry = &(*entry)->m_next;
    return entry;
}

void _TQWin32Exception::_SEH_Trap(unsigned int, _EXCEPTION_POINTERS* pointers) {
    OutputDebugStringW(L"SEH exception!!\r\n");
    const EXCEPTION_RECORD& record = *pointers->ExceptionRecord;
    const auto parameter = [&](DWORD i) {
        return i < record.NumberParameters ? record.ExceptionInformation[i] : 0;
    };
    throw _TQWin32Exception(TQOSExceptionRecord{record.ExceptionCode, record.ExceptionFlags,
                                                record.ExceptionAddress, record.NumberParameters,
                                                parameter(0), parameter(1), parameter(2)});
}

}  // namespace Quellan::Corvel
