// Runs all samples and says which did not do what its document says of it: 1 then, 0 otherwise.
#include "Samples.h"

#include <TQLib/TQLib.h>

using namespace Quellan::Corvel;

void Expect(bool isTrue, const wchar_t* what) {
    if (!isTrue) throw TQAppException(0xE0045000, what);
}

namespace {

struct Sample {
    const wchar_t* document;
    void (*run)();
};
constexpr Sample Samples[] = {
    {L"README", FirstProgramSample},
    {L"access-control", AccessControlSample},
    {L"exceptions", ExceptionsSample},
    {L"formatting", FormattingSample},
    {L"logging", LoggingSample},
    {L"memory", MemorySample},
    {L"messages", MessagesSample},
    {L"registry", RegistrySample},
    {L"secrets", SecretsSample},
    {L"security-identifiers", SecurityIdentifiersSample},
    {L"text", TextSample},
    {L"thread-pool", ThreadPoolSample},
    {L"threads", ThreadsSample},
    {L"tokens", TokensSample},
    {L"unicode", UnicodeSample},
    {L"services", ServicesSample},
};

}  // namespace

int main() {
    TQConsole console(TQConsole::Stream::Output);
    int result = 0;
    for (const Sample& sample : Samples) {
        try {
            sample.run();
            console.Write(TQString::Format(L"%s: ok\n", sample.document));
        } catch (const TQCoreException& e) {
            console.Write(
                TQString::Format(L"%s: %s\n", sample.document, e.FullMsg(TQStrResDestination::User)));
            result = 1;
        }
    }
    return result;
}
