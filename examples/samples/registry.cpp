#include "Samples.h"

#include <TQLib/TQLib.h>

using namespace Quellan::Corvel;

void RegistrySample() {
    const TQRegKey key = TQRegistry::UserKey().Create(L"Software\\Our Company\\Monitor");
    const TQDWORDRegValue interval(key, L"Interval");
    interval.Set(5000);

    const TQRegKey machine = TQRegistry::MachineKey().Find(L"SOFTWARE\\Our Company\\Monitor");
    const auto limit = machine.IsNull() ? 10 : TQDWORDRegValue(machine, L"Limit").GetOr(10);

    Expect(interval.Get() == 5000 && limit == 10, L"What was set is read.");
}
