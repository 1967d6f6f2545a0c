#include "TQLib/core/TQException.h"
#include "TQLib/core/internal/ModuleLookup.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/security/internal/DirectoryGroups.h"

#include <iads.h>
#include <memory>
#include <oleauto.h>

namespace Quellan::Sarvek {

using Corvel::TQString;
using Corvel::TQSysException;

namespace {

void Check(HRESULT result) {
    if (FAILED(result)) throw TQSysException(static_cast<unsigned>(result), L"SecID::MemberOfList");
}

struct Variant : VARIANT {
    Variant() noexcept { VariantInit(this); }
    Variant(const Variant&) = delete;
    Variant& operator=(const Variant&) = delete;
    ~Variant() { VariantClear(this); }
};

struct ReleaseObject {
    void operator()(IUnknown* object) const noexcept { object->Release(); }
};

using GetObject = HRESULT(WINAPI*)(const wchar_t* path, REFIID type, void** object);
using BuildNames = HRESULT(WINAPI*)(wchar_t** names, DWORD count, VARIANT* array);

// The interfaces to directory services, which few programs need.
template <class Function>
Function Find(const Corvel::TQModule& services, const char* name) {
    const FARPROC function = GetProcAddress(services.Get(), name);
    if (!function) TQSysException::ThrowLastError(L"SecID::MemberOfList");
    return reinterpret_cast<Function>(reinterpret_cast<void*>(function));
}

class ArrayData {
  public:
    explicit ArrayData(SAFEARRAY* array) : m_array(array) { Check(SafeArrayAccessData(array, &m_data)); }
    ArrayData(const ArrayData&) = delete;
    ArrayData& operator=(const ArrayData&) = delete;
    ~ArrayData() { SafeArrayUnaccessData(m_array); }

    template <class T>
    const T* As() const noexcept {
        return static_cast<const T*>(m_data);
    }
    ULONG Count() const noexcept { return m_array->rgsabound[0].cElements; }

  private:
    SAFEARRAY* m_array;
    void* m_data = nullptr;
};

}  // namespace

SecIDArray DirectoryGroups(const SecID& id) {
    wchar_t attribute[] = L"tokenGroups";
    const Corvel::TQModule services = Corvel::LoadModule(L"activeds.dll");
    const TQString account = TQString::Format(L"<SID=%s>", id.String().View());
    void* found = nullptr;
    Check(Find<GetObject>(services, "ADsGetObject")(TQString::Format(L"LDAP://%s", account.View()).c_str(),
                                                    IID_IADs, &found));
    const std::unique_ptr<IADs, ReleaseObject> object(static_cast<IADs*>(found));
    wchar_t* names[] = {attribute};
    Variant asked;
    Check(Find<BuildNames>(services, "ADsBuildVarArrayStr")(names, 1, &asked));
    // It is worked out when it is asked for by name.
    Check(object->GetInfoEx(asked, 0));
    Variant answer;
    Check(object->GetEx(attribute, &answer));
    SecIDArray groups;
    if (answer.vt != (VT_ARRAY | VT_VARIANT)) return groups;
    const ArrayData list(answer.parray);
    for (ULONG i = 0; i < list.Count(); ++i) {
        const VARIANT& entry = list.As<VARIANT>()[i];
        if (entry.vt == (VT_ARRAY | VT_UI1)) groups.Add(SecID(ArrayData(entry.parray).As<void>()));
    }
    return groups;
}

}  // namespace Quellan::Sarvek
