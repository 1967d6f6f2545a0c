#include "Samples.h"

#include <TQLib/TQLib.h>
#include <TQLib/platform/Win32.h>

using namespace Quellan::Corvel;

namespace {

void WriteTo(const wchar_t* name, const TQTextFile& file) {
    const TQLogPtr log = TQLog::GetLog(name, 0);
    log->AddMsg(L"The disk is nearly full.", TQLogLevel::Warning);
    log->AddMsg(L"Begins.", TQLogLevel::State, L"Worker");
    log->AddMsg(L"Could not be read.", TQLogLevel::Error,
                &file);  // any TQObject: its description and address
    Expect(log->Size() > 0 && log->Lost() == 0, L"The records are on the disk.");
}

void WriteToTheApplicationsLog() {
    TQLib::SetAppName(L"Monitor");
    TQLib::GetAppLog(false)->AddMsg(L"Started.", TQLogLevel::Information);
}

}  // namespace

void LoggingSample() {
    const TQTextFile file(TQFileName(L"logging-sample.txt"), GENERIC_READ | GENERIC_WRITE, CREATE_ALWAYS, 0,
                          TQTextFile::FileShare::Read, {});
    WriteTo(L"logging-sample", file);
    WriteToTheApplicationsLog();
}
