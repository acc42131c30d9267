#include "base/Wakeup.h"

#include <gtest/gtest.h>

#include <thread>

namespace zandor {
namespace {

using namespace std::chrono_literals;

TEST(Wakeup, ASignalWakesOneWaitEvenBeforeItAndIsThenCleared) {
    Wakeup wakeup;
    wakeup.signal();
    wakeup.signal();
    EXPECT_TRUE(wakeup.wait(0ms));
    EXPECT_FALSE(wakeup.wait(1ms)) << "an auto-reset event: two signals wake one wait";
    std::thread signaller([&] { wakeup.signal(); });
    EXPECT_TRUE(wakeup.wait(20s));
    signaller.join();
}

} // namespace
} // namespace zandor
