#include "base/Error.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

namespace zandor {
namespace {

TEST(ErrorTest, KeepsTheCodeSoThatACauseIsKnownByItNotByItsText) {
    EXPECT_FALSE(Error());
    EXPECT_EQ(Error().logLine(), "");

    const Error full = Error::system("cannot write", "/media/card/Replay.mp4", ENOSPC);
    ASSERT_TRUE(full);
    EXPECT_TRUE(full.isDiskFull());
    EXPECT_EQ(full.systemCode(), ENOSPC);
    EXPECT_EQ(full.logLine(), "cannot write '/media/card/Replay.mp4': No space left on device");

    // FFmpeg gives the system's codes negated, with its own text.
    const Error encoder = Error::library(Error::Domain::FFmpeg, "cannot write", "a.mov", -ENOSPC, "");
    EXPECT_TRUE(encoder.isDiskFull());
    EXPECT_EQ(encoder.cause(), "No space left on device");
    const Error usb =
        Error::library(Error::Domain::Usb, "cannot claim the board", {}, -ENOSPC, "LIBUSB_ERROR_BUSY");
    EXPECT_FALSE(usb.isDiskFull()) << "another library's code is not errno";
    EXPECT_EQ(usb.logLine(), "cannot claim the board: LIBUSB_ERROR_BUSY");
    EXPECT_FALSE(Error::system("cannot write", "a", EIO).isDiskFull());
}

TEST(ErrorTest, AResultHoldsItsValueOrTheErrorThatKeptItFromBeingMade) {
    const auto make = [](bool works) -> Result<std::unique_ptr<int>> {
        if (!works) {
            return Error::other("cannot count", "three", "it is a word");
        }
        return std::make_unique<int>(3);
    };
    Result<std::unique_ptr<int>> made = make(true);
    ASSERT_TRUE(made);
    EXPECT_EQ(**made, 3);
    EXPECT_FALSE(made.error());
    const Result<std::unique_ptr<int>> failed = make(false);
    EXPECT_FALSE(failed);
    EXPECT_EQ(failed.error().logLine(), "cannot count 'three': it is a word");
}

} // namespace
} // namespace zandor
