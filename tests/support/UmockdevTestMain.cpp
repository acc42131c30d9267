// The main of test programs that talk to the emulated board in their own process: libusb must see
// the testbed's sysfs and device nodes, so the program runs under umockdev's preload library,
// starting itself again with it when it was not started so.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

int main(int argc, char** argv) {
    const char* preload = std::getenv("LD_PRELOAD");
    if (!preload || !std::strstr(preload, "libumockdev-preload")) {
        std::string value = std::string("libumockdev-preload.so.0") + (preload && *preload ? ":" : "") +
                            (preload ? preload : "");
        setenv("LD_PRELOAD", value.c_str(), 1);
        // The sanitizers' runtime then no longer comes first; it works all the same.
        const char* asan = std::getenv("ASAN_OPTIONS");
        std::string options =
            std::string(asan ? asan : "") + (asan && *asan ? ":" : "") + "verify_asan_link_order=0";
        setenv("ASAN_OPTIONS", options.c_str(), 1);
        char self[4096];
        const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
        self[length > 0 ? length : 0] = '\0';
        execv(self, argv); // by its own name, which the process and its threads keep
        std::perror("cannot start again under libumockdev-preload");
        return 1;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
