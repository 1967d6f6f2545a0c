#include "support/Resources.h"

#include <chrono>
#include <gtest/gtest.h>
#include <thread>

namespace Quellan::Corvel::Test {

void Resources::ComeBackTo(const Resources& before) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
        const Resources now = Now();
        if (now.blocks <= before.blocks && now.descriptors <= before.descriptors &&
            now.threads <= before.threads)
            return;
        if (std::chrono::steady_clock::now() > end) {
            ADD_FAILURE() << "left behind: " << static_cast<long>(now.blocks - before.blocks) << " blocks, "
                          << now.descriptors - before.descriptors << " descriptors, "
                          << now.threads - before.threads << " threads";
            return;
        }
        std::this_thread::yield();
    }
}

}  // namespace Quellan::Corvel::Test
