// Services as tq service shows them.
#pragma once

#include "Command.h"

namespace tq {

void PrintList(const Quellan::Corvel::TQServiceList& services, bool isJson, Quellan::Corvel::TQConsole& out);
// One service with all that is known of it.
void PrintService(const Quellan::Corvel::TQServiceCtrl& service, bool isJson,
                  Quellan::Corvel::TQConsole& out);
// The status alone.
void PrintStatus(const Quellan::Corvel::TQString& name, const Quellan::Corvel::TQServiceRecord& status,
                 bool isJson, Quellan::Corvel::TQConsole& out);

}  // namespace tq
