#include "platform/StructuredExceptionsFaults.h"

#include <string>

namespace Faults {
namespace {

struct Counted {
    int& destroyed;
    ~Counted() { ++destroyed; }
};

[[gnu::noinline]] int CallBelowOne(int (*callback)(), int& destroyed) {
    const Counted one{destroyed};
    return callback() + 1;
}

}  // namespace

int CallBelowDestructors(int (*callback)(), int& destroyed) {
    const Counted first{destroyed};
    try {
        const Counted second{destroyed};
        return CallBelowOne(callback, destroyed) + 1;
    } catch (const std::string&) {
        return 0;
    }
}

}  // namespace Faults
