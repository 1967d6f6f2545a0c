#include "TQLib/text/memory/TQDataBuf.h"

#include "TQLib/platform/Platform.h"
#include "TQLib/text/memory/internal/SecretArena.h"

#include <cstring>
#include <functional>
#include <limits>
#include <utility>

namespace Quellan::Corvel {

namespace {

constexpr std::size_t MaxBytes = std::numeric_limits<std::ptrdiff_t>::max();
constexpr std::size_t RoundedBytes = 4096;  // what a capacity in whole pages is rounded up to

void CopyBytes(BYTE* to, const void* from, std::size_t bytes) noexcept {
    if (bytes) std::memcpy(to, from, bytes);
}

void Wipe(BYTE* from, std::size_t bytes) noexcept {
    if (!bytes) return;
    std::memset(from, 0, bytes);
    Compiler::ShowMemory(from);  // or it would leave the zeros unwritten before a release
}

}  // namespace

_TQDataBufRoot::_TQDataBufRoot(const TQAllocator& allocator, std::pmr::memory_resource* resource,
                               _SecureLevel level) noexcept
    : m_allocator(&allocator), m_resource(resource), m_level(level) {}

_TQDataBufRoot::_TQDataBufRoot(const _TQDataBufRoot& other)
    : _TQDataBufRoot(*other.m_allocator, nullptr, other.m_level) {
    Splice(0, 0, other.m_block, other.m_bytes, L"TQDataBuf::TQDataBuf");
}

_TQDataBufRoot::_TQDataBufRoot(_TQDataBufRoot&& other) noexcept
    : _TQDataBufRoot(*other.m_allocator, other.m_resource, other.m_level) {
    Swap(other);
}

_TQDataBufRoot::~_TQDataBufRoot() {
    Clear();
}

_TQDataBufRoot& _TQDataBufRoot::operator=(const _TQDataBufRoot& other) {
    if (this == &other) return *this;
    constexpr const wchar_t* where = L"TQDataBuf::operator=";
    if (m_level >= other.m_level) {
        Splice(0, m_bytes, other.m_block, other.m_bytes, where);
    } else {
        _TQDataBufRoot copy(*m_allocator, m_resource, other.m_level);
        copy.Splice(0, 0, other.m_block, other.m_bytes, where);
        Swap(copy);
    }
    return *this;
}

_TQDataBufRoot& _TQDataBufRoot::operator=(_TQDataBufRoot&& other) noexcept(false) {
    if (this == &other) return *this;
    const _SecureLevel sourceLevel = other.m_level;
    // Memory for secrets comes from one place for all, whatever resource they were made with.
    const bool canTake = sourceLevel == _SecureLevel::WipeAndLock ||
                         (m_level != _SecureLevel::WipeAndLock && m_resource == other.m_resource);
    if (!canTake) {
        *this = std::as_const(other);
    } else {
        Clear();
        Swap(other);
        m_level = std::max(sourceLevel, other.m_level);
        other.m_level = sourceLevel;
    }
    other.Clear();
    return *this;
}

void _TQDataBufRoot::Swap(_TQDataBufRoot& other) noexcept {
    std::swap(m_resource, other.m_resource);
    std::swap(m_block, other.m_block);
    std::swap(m_bytes, other.m_bytes);
    std::swap(m_capacity, other.m_capacity);
    std::swap(m_level, other.m_level);
}

void _TQDataBufRoot::Clear() noexcept {
    ReplaceBlock(nullptr, 0);
    m_bytes = 0;
}

void _TQDataBufRoot::Splice(std::size_t at, std::size_t removed, const void* source, std::size_t added,
                            const wchar_t* where) {
    const std::size_t kept = m_bytes - removed;
    if (added > MaxBytes - kept) TQStdExceptions::ThrowOverflowError(where);
    const std::size_t bytes = kept + added;
    const std::size_t tail = kept - at;

    const auto* from = static_cast<const BYTE*>(source);
    const bool fromHere =
        added && source && std::less_equal<>()(m_block, from) && std::less<>()(from, m_block + m_capacity);
    BYTE* to = m_block;
    std::size_t capacity = m_capacity;
    if (bytes > m_capacity || fromHere) {
        if (bytes > m_capacity)
            capacity = Rounded(std::max(bytes, std::min(m_capacity + m_capacity / 2, MaxBytes)));
        to = NewBlock(capacity, where);
        CopyBytes(to, m_block, at);
        CopyBytes(to + at + added, m_block + at + removed, tail);
    } else if (tail && added != removed) {
        std::memmove(to + at + added, to + at + removed, tail);
    }
    if (source)
        CopyBytes(to + at, source, added);
    else if (added)
        std::memset(to + at, 0, added);

    if (to != m_block)
        ReplaceBlock(to, capacity);
    else if (bytes < m_bytes && m_level != _SecureLevel::Plain)
        Wipe(m_block + bytes, m_bytes - bytes);
    m_bytes = bytes;
    if (m_level == _SecureLevel::WipeAndLock) Compiler::ClearCopyRegisters();
}

void _TQDataBufRoot::ReserveBytes(std::size_t bytes, const wchar_t* where) {
    if (bytes <= m_capacity) return;
    const std::size_t capacity = Rounded(bytes);
    BYTE* block = NewBlock(capacity, where);
    CopyBytes(block, m_block, m_bytes);
    ReplaceBlock(block, capacity);
    if (m_level == _SecureLevel::WipeAndLock) Compiler::ClearCopyRegisters();
}

std::size_t _TQDataBufRoot::ByteCount(ULONGLONG count, std::size_t elementSize, const wchar_t* where) {
    if (count > MaxBytes / elementSize) TQStdExceptions::ThrowOverflowError(where);
    return static_cast<std::size_t>(count) * elementSize;
}

void _TQDataBufRoot::CheckRange(ULONGLONG first, ULONGLONG count, ULONGLONG size, const wchar_t* where) {
    if (first > size || count > size - first) TQStdExceptions::ThrowIndexError(where);
}

void _TQDataBufRoot::CheckSource(const void* source, ULONGLONG count, const wchar_t* where) {
    if (!source && count) TQStdExceptions::ThrowParameterInvalidError(where);
}

bool _TQDataBufRoot::EqualsSecret(const _TQDataBufRoot& other) const noexcept {
    return EqualsSecret(std::as_bytes(std::span(m_block, m_bytes)),
                        std::as_bytes(std::span(other.m_block, other.m_bytes)));
}

bool _TQDataBufRoot::EqualsSecret(std::span<const std::byte> left,
                                  std::span<const std::byte> right) noexcept {
    if (left.size() != right.size()) return false;
    BYTE difference = 0;
    for (std::size_t i = 0; i < left.size(); ++i) {
        difference |= static_cast<BYTE>(left[i] ^ right[i]);
        Compiler::Forget(difference);  // or it would stop at the first one
    }
    return difference == 0;
}

std::size_t _TQDataBufRoot::Rounded(std::size_t bytes) const noexcept {
    if (bytes == 0 || bytes > MaxBytes - RoundedBytes) return bytes;
    if (m_level == _SecureLevel::WipeAndLock) return SecretBlockSize(bytes);
    if (m_resource || !m_allocator->wholePages) return bytes;
    return (bytes + RoundedBytes - 1) / RoundedBytes * RoundedBytes;
}

void* _TQDataBufRoot::Allocate(std::size_t bytes) const noexcept {
    if (m_level == _SecureLevel::WipeAndLock) return SecretMemory().Allocate(bytes);
    if (!m_resource) return m_allocator->Allocate(bytes);
    try {
        return m_resource->allocate(bytes);
    } catch (...) {
        return nullptr;
    }
}

void _TQDataBufRoot::Release(void* block, std::size_t bytes) const noexcept {
    if (m_level == _SecureLevel::WipeAndLock)
        SecretMemory().Release(block, bytes);
    else if (m_resource)
        m_resource->deallocate(block, bytes);
    else
        m_allocator->Release(block, bytes);
}

BYTE* _TQDataBufRoot::NewBlock(std::size_t capacity, const wchar_t* where) const {
    void* block = Allocate(capacity);
    if (!block && m_level == _SecureLevel::WipeAndLock && GetLastError() != ERROR_NOT_ENOUGH_MEMORY)
        TQStdExceptions::ThrowLastError(where);
    if (!block) TQStdExceptions::ThrowMemAllocError(where);
    return static_cast<BYTE*>(block);
}

// Gives the present block back as the level asks and leaves the last error as it was.
void _TQDataBufRoot::ReplaceBlock(BYTE* block, std::size_t capacity) noexcept {
    if (m_block) {
        const DWORD lastError = GetLastError();
        if (m_level != _SecureLevel::Plain) Wipe(m_block, m_capacity);
        Release(m_block, m_capacity);
        SetLastError(lastError);
    }
    m_block = block;
    m_capacity = capacity;
}

template class TQDataBuf<BYTE, TQMemory::Heap>;
template class TQDataBuf<BYTE, TQMemory::Local>;
template class TQDataBuf<BYTE, TQMemory::Pages>;
template class TQDataBuf<wchar_t, TQMemory::Heap>;

}  // namespace Quellan::Corvel
