// What the manager was told on its command line.
#pragma once

#include <chrono>
#include <string>

namespace tqscm {

struct Settings {
    std::string socket;
    // For a program to call its dispatcher, a handler to answer, a process to end once its services have
    // stopped, a client to take its answers, and, beyond its wait hint, for a service that is pending.
    std::chrono::milliseconds requestLimit{30'000};
    // Until services with delayed automatic start are started.
    std::chrono::milliseconds autoStartDelay{120'000};
};

}  // namespace tqscm
