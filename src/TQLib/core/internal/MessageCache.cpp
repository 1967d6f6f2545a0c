#include "TQLib/core/internal/MessageCache.h"

#include "TQLib/text/memory/TQStdExceptions.h"

#include <memory>
#include <new>
#include <utility>

namespace Quellan::Corvel {

template <class Text>
struct KeptLine<Text>::Record {
    explicit Record(Text&& line) noexcept : text(std::move(line)) {}

    const Text text;
    _TQRefThrCount holders;
};

template <class Text>
void KeptLine<Text>::Share(const KeptLine& other) noexcept {
    Record* const record = other.m_record.load(std::memory_order_acquire);
    record->holders.Add();
    m_record.store(record, std::memory_order_relaxed);
}

template <class Text>
KeptLine<Text>& KeptLine<Text>::operator=(const KeptLine& other) noexcept {
    KeptLine copy(other);
    copy.m_record = m_record.exchange(copy.m_record);
    return *this;
}

template <class Text>
const Text* KeptLine<Text>::Find() const noexcept {
    const Record* const record = m_record.load(std::memory_order_acquire);
    return record ? &record->text : nullptr;
}

template <class Text>
const Text& KeptLine<Text>::Keep(Text&& line) {
    std::unique_ptr<Record> made(new (std::nothrow) Record(std::move(line)));
    if (!made) TQStdExceptions::ThrowReserved();
    Record* kept = nullptr;
    if (m_record.compare_exchange_strong(kept, made.get(), std::memory_order_acq_rel,
                                         std::memory_order_acquire))
        kept = made.release();
    return kept->text;
}

template <class Text>
void KeptLine<Text>::Release() noexcept {
    Record* const record = m_record.exchange(nullptr);
    if (record->holders.Drop()) delete record;
}

template class KeptLine<STLString>;
template class KeptLine<_TQaString>;

void MessageCache::Drop() noexcept {
    for (KeptLine<STLString>& line : lines)
        line.Drop();
    utf8.Drop();
}

}  // namespace Quellan::Corvel
