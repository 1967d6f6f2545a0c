#pragma once
#include "platform/Types.h"
namespace Quellan::Corvel {
class TQLIB_API TQCoreException {
  public:
    explicit TQCoreException(unsigned int code) : m_code(code) {}
    virtual ~TQCoreException();
    LONG COMErrCode() const noexcept { return static_cast<LONG>(m_code); }
  private:
    unsigned int m_code;
};
class TQLIB_API TQException : public TQCoreException { public: using TQCoreException::TQCoreException; ~TQException() override; };
}
