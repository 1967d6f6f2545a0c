#include "support/Resources.h"

#include <chrono>
#include <gtest/gtest.h>
#include <thread>

namespace Quellan::Corvel::Test {

bool Resources::ComeBackTo(const Resources& before) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
        const Resources now = Now();
        if (now.blocks <= before.blocks && now.descriptors <= before.descriptors &&
            now.threads <= before.threads)
            return true;
        if (std::chrono::steady_clock::now() > end) {
            ADD_FAILURE() << "left behind: " << now.blocks - before.blocks << " blocks, "
                          << now.descriptors - before.descriptors << " descriptors, "
                          << now.threads - before.threads << " threads";
            return false;
        }
        std::this_thread::yield();
    }
}

}  // namespace Quellan::Corvel::Test
