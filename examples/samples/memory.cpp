#include "Samples.h"

#include <TQLib/TQLib.h>
#include <TQLib/platform/Win32.h>
#include <array>
#include <memory_resource>
#include <span>

using namespace Quellan::Corvel;

namespace {

struct Document {
    explicit Document(const wchar_t* name) : title(name) {}
    TQString title;
};

void UseBuffers() {
    constexpr std::array values = {3, 4};
    BYTEBuf header = {0x54, 0x51, 1, 0};
    header.Append(header);
    Expect(header.Size() == 8, L"The header is there twice.");

    std::pmr::monotonic_buffer_resource arena;
    TQDataBuf<int> numbers(arena);
    numbers.Append(std::span(values));
    Expect(numbers[1] == 4, L"The numbers are there.");

    TQDataBuf<wchar_t> digits(arena);
    digits.Append(std::wstring_view(L"4096"));
    const int number = TQParse<int>(std::wstring_view(digits.Data(), digits.Size()));
    Expect(number == 4096, L"A view of the text is read.");
}

void UsePointers() {
    using DocumentPtr = TQSmartPtr<Document, _TQRefThrPtr<Document>>;
    const DocumentPtr document = DocumentPtr::Make(L"letter");
    const TQSmartPtr<TQString, _TQRefThrPtr<TQString>> title(document, &document->title);
    const TQWeakPtr<Document, DocumentPtr::Policy> cached = document;
    Expect(cached.Lock() == document && *title == L"letter", L"All see the letter.");
}

void UseHandles() {
    TQUniqueHandle<_TQKernelHandleClose> token;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.Put()))
        TQSysException::ThrowLastError(L"OpenProcessToken");
    TQHandle<_TQKernelHandleClose> shared = std::move(token);
    Expect(shared.IsValid(), L"The handle can be shared now.");
}

}  // namespace

void MemorySample() {
    UseBuffers();
    UsePointers();
    UseHandles();
}
