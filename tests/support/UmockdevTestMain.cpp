// The main of test programs that talk to the emulated board in their own process: libusb must see
// the testbed's sysfs and device nodes, so the program runs under umockdev's preload library.

#include "EmulatedBoard.h"

#include <gtest/gtest.h>

#ifdef ZANDOR_TEST_QT_APPLICATION
#include <QCoreApplication>
#endif

#include <cstdio>

int main(int argc, char** argv) {
    if (const std::string error = zandor::EmulatedBoard::runUnderPreload(argv); !error.empty()) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
#ifdef ZANDOR_TEST_QT_APPLICATION
    QCoreApplication application(argc, argv);
#endif
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
