#include "TQLib/core/TQWin32Exception.h"

#include "TQLib/core/TQEventLog.h"
#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/core/internal/ModuleLookup.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/text/memory/TQHandle.h"
#include "TQLib/text/memory/internal/Translated.h"
#include "TQLib/text/memory/internal/UniqueHandle.h"

#include <array>
#include <cstring>
#include <string_view>

namespace Quellan::Corvel {

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

// By hand: behind the unwinder the formatter's code is cold, and would take a quarter of the time of
// rendering a message.
void AppendCode(unsigned int code, STLString& out) {
    std::array<wchar_t, CodeText.size()> text;
    CodeText.copy(text.data(), text.size());
    for (auto digit = text.end() - 2; code != 0; --digit, code >>= 4)
        *digit = L"0123456789abcdef"[code & 15];
    out.Append(std::wstring_view(text.data(), text.size()));
}

// Appends the system's text for a message number, with room for a code behind it; false where there is none.
bool AppendSystemText(DWORD number, STLString& out) {
    constexpr DWORD flags = FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_MAX_WIDTH_MASK;
    constexpr DWORD userDefaultLanguage = 0x400;
    std::array<wchar_t, 512> buffer;
    DWORD length =
        FormatMessageW(flags, nullptr, number, userDefaultLanguage, buffer.data(), buffer.size(), nullptr);
    const wchar_t* text = buffer.data();
    // Nearly all texts fit into the buffer.
    UniqueHandle<_TQLocalMemClose> allocated;
    if (length == 0 && GetLastError() == ERROR_INSUFFICIENT_BUFFER) {
        wchar_t* whole = nullptr;
        length = FormatMessageW(flags | FORMAT_MESSAGE_ALLOCATE_BUFFER, nullptr, number, userDefaultLanguage,
                                reinterpret_cast<wchar_t*>(&whole), 0, nullptr);
        allocated = UniqueHandle<_TQLocalMemClose>(whole);
        text = whole;
    }
    if (length == 0) return false;
    out.Reserve(out.Length() + length + CodeText.size());
    out.Append(std::wstring_view(text, length));
    return true;
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
    if (inner) m_inner.reset(inner->AllocCopy());
}

template <class T>
_TQExceptionBase<T>::_TQExceptionBase(const _TQExceptionBase& other)
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
      m_cache(other.m_cache) {
    if (other.m_files) m_files.reset(NewCopy(*other.m_files));
    if (other.m_inner) m_inner.reset(other.m_inner->AllocCopy());
}

template <class T>
_TQExceptionBase<T>& _TQExceptionBase<T>::operator=(const _TQExceptionBase& other) {
    if (this == &other) return *this;
    // All that may fail is done before anything changes.
    ExceptionText text(other.m_text);
    STLString action(other.m_action);
    MessageCache cache(other.m_cache);
    std::unique_ptr<TQStringArray> files(other.m_files ? NewCopy(*other.m_files) : nullptr);
    std::unique_ptr<T> inner(other.m_inner ? other.m_inner->AllocCopy() : nullptr);
    m_code = other.m_code;
    m_level = other.m_level;
    m_source = other.m_source;
    m_subsystem = other.m_subsystem;
    m_process = other.m_process;
    m_thread = other.m_thread;
    m_text = std::move(text);
    m_resource = other.m_resource;
    m_action = std::move(action);
    m_record = other.m_record;
    m_cache.Swap(cache);
    m_files = std::move(files);
    m_inner.swap(inner);
    m_formerInner.reset();
    for (const _TQExceptionBase* within = inner.get(); within; within = within->m_inner.get())
        if (within == &other) m_formerInner = std::move(inner);
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
    STLString text;
    try {
        const unsigned short facility = CodeFacility(m_code);
        const DWORD number = facility == FACILITY_WIN32 || facility == 0 ? m_code & 0xFFFF : m_code;
        if (number == 0) return text;
        const bool isFound =
            AppendSystemText(number, text) ||
            (facility == FacilityInterface && AppendSystemText((m_code & 0x8007FFFF) | 0x70000, text)) ||
            ((facility == FacilityMessageFile || facility == FacilityMessageFileOther) &&
             AppendSystemText(m_code & 0xFFFF, text));
        if (!isFound) text.Append(L"unknown");
        AppendCode(m_code, text);
    } catch (...) {
        // Telling of a failure must not fail: what has been found so far has to do.
    }
    return text;
}

template <class T>
const wchar_t* _TQExceptionBase<T>::ExcSubSysName() const {
    return FacilityName(m_subsystem);
}

template <class T>
void _TQExceptionBase<T>::SetAction(const wchar_t* action) {
    STLString text(action);
    // Only the first action empties the cache. Lines that were rendered with it keep it when a later one is
    // set.
    if (m_action.IsEmpty()) m_cache.Drop();
    m_action = std::move(text);
}

template <class T>
unsigned int _TQExceptionBase<T>::ErrCode() const noexcept {
    return m_code;
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
    return m_action.c_str();
}

template <class T>
bool _TQExceptionBase<T>::HasResMsg() const noexcept {
    return m_resource.has_value();
}

template <class T>
const T* _TQExceptionBase<T>::Inner() const noexcept {
    return m_inner.get();
}

template <class T>
const TQOSExceptionRecord* _TQExceptionBase<T>::OSException() const noexcept {
    return m_record ? &*m_record : nullptr;
}

template <class T>
TQStringArray _TQExceptionBase<T>::ErrFileList() const {
    return m_files ? *m_files : TQStringArray();
}

template <class T>
void _TQExceptionBase<T>::AddErrFile(const wchar_t* file) const {
    TQString added(file);
    if (!m_files) m_files.reset(NewCopy(TQStringArray()));
    m_files->Add(std::move(added));
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
    if (const STLString* kept = m_cache.Find(destination)) return *kept;

    const STLString codeString = static_cast<const T*>(this)->ExcCodeString();
    STLString line;
    line.Reserve(m_text.Length() + codeString.Length() + m_action.Length() + std::size(L" () Action="));
    try {
        line.Append(m_resource ? MessageFor(destination, args).View() : m_text.View());
    } catch (const _TQWin32Exception& e) {
        // Whoever reports this failure must not lose it because its text is missing.
        if (!m_resource || e.ErrCode() == ERROR_OUTOFMEMORY) throw;
        line.Append(e.ExcMsg(destination).View());
    }
    if (!codeString.IsEmpty()) line.Append(L" (").Append(codeString.View()).Append(L")");
    if (!m_action.IsEmpty()) line.Append(L" Action=").Append(m_action.View());
    return m_cache.Keep(destination, std::move(line));
}

template <class T>
bool _TQExceptionBase<T>::SaysTheSame(const _TQExceptionBase& other) const noexcept {
    if (m_code != other.m_code || m_level != other.m_level || m_source != other.m_source ||
        m_subsystem != other.m_subsystem || m_resource != other.m_resource || m_record != other.m_record ||
        m_action != other.m_action || !(m_text == other.m_text))
        return false;
    if (!m_inner || !other.m_inner) return !m_inner && !other.m_inner;
    return *m_inner == *other.m_inner;
}

template class _TQExceptionBase<_TQWin32Exception>;

_TQWin32Exception::_TQWin32Exception(const _TQWin32Exception* inner, const _TQExceptionContent& content,
                                     bool isPreAllocated)
    : _TQExceptionBase(inner, content), m_isPreAllocated(isPreAllocated) {}

_TQWin32Exception::_TQWin32Exception(const _TQWin32Exception&) = default;
_TQWin32Exception& _TQWin32Exception::operator=(const _TQWin32Exception&) = default;
_TQWin32Exception::~_TQWin32Exception() = default;

_TQWin32Exception* _TQWin32Exception::AllocCopy() const {
    return NewCopy(*this);
}

void _TQWin32Exception::AssembleLogOutput(const wchar_t* where, STLString& out) const {
    out.Clear();
    out.AppendFormat(L"Exception[Prc:%lu:Thr:%lu]{%s} ", ExcProcess(), ExcThread(),
                     TQEventLog::CurrentAppName().c_str());
    out.Append(FullLine(TQStrResDestination::Log, {}).View());
    if (where && !IsBadStringPtrW(where, static_cast<std::uintptr_t>(-1)) && *where)
        out.Append(L" in ").Append(where);
    out.Append(L"\r\n");
    if (OSException()) {
        AppendOSExceptionLine(out);
        out.Append(L"\r\n");
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

void _TQWin32Exception::DebugReport() const noexcept {
    try {
        STLString block;
        AssembleLogOutput(nullptr, block);
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
