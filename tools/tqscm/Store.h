// The records of services in the registry (docs/formats/service-manager.md).
#pragma once

#include "TQLib/platform/Win32.h"
#include "TQLib/platform/linux/services/ServiceMessages.h"

#include <string>
#include <vector>

namespace tqscm {

using Quellan::Platform::ServiceConfig;

struct StoredService {
    std::string name;
    ServiceConfig config;
    bool isMarked = false;  // to be deleted
};

// Keys that are no whole record of a service are passed over.
std::vector<StoredService> ReadServices();
// Writes a new record in one step, in place of what may lie there without being one. These return 0 or the
// registry's code.
DWORD CreateRecord(const std::string& name, const ServiceConfig& config);
// Writes what differs, in one step.
DWORD ChangeRecord(const std::string& name, const ServiceConfig& before, const ServiceConfig& after);
DWORD MarkRecord(const std::string& name);
DWORD DeleteRecord(const std::string& name);

}  // namespace tqscm
