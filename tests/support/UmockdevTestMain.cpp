// The main of test programs that talk to the emulated board in their own process: libusb must see
// the testbed's sysfs and device nodes, so the program runs under umockdev's preload library.

#include "EmulatedBoard.h"

#include <gtest/gtest.h>

#include <cstdio>

int main(int argc, char** argv) {
    if (const std::string error = zandor::EmulatedBoard::runUnderPreload(argv); !error.empty()) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
