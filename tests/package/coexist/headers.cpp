// Compiled behind TQLib's headers and another library's, in either order: names of both mean what they say there.
// OTHER is one of the other library's names.
using namespace Quellan::Corvel;

static_assert(sizeof(OTHER) > 0);

unsigned Levels(const TQException& e, const TQServiceCtrl& service) {
    if (e.ExcLevel() == _TQExceptionRoot::Level::Succeeded) return 0;
    TQDataBuf<char, 0> plain(1, _TQDataBufRoot::_SecureLevel::Plain);
    const TQTimeSpan passed = TQTime::CurrentUTCTime() - TQTime();
    return service.QueryStatus().Record().exitCode +
           static_cast<unsigned>(TQSvcFailureAction::Kind::Nothing) +
           static_cast<unsigned>(_TQFile::FileShare::Nothing) + (passed < TQTimeSpan()) + plain.Size();
}
