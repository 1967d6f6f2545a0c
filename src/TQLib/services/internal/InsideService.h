// Threads that are inside the services of this process.
#pragma once

namespace Quellan::Corvel {

// Made by a thread before it touches a service, in a main function or a handler, and destroyed when it does so
// no more. The report that a service has stopped goes out before that, so whoever waits for the services to be
// destroyed waits for both. Throws "Attempt to open event object failed.".
class InsideService {
  public:
    InsideService();
    InsideService(const InsideService&) = delete;
    InsideService& operator=(const InsideService&) = delete;
    ~InsideService();

    // Returns when there is none.
    static void WaitForNone();
};

}  // namespace Quellan::Corvel
