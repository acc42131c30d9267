// The board driver on the real path (libusb, usbfs) against boards emulated at their device nodes:
// the sound after the picture, what a board tells of itself, and choosing one of two by its serial.

#include "EmulatedBoard.h"
#include "Frames.h"
#include "GatedBoard.h"
#include "base/Log.h"
#include "base/Worker.h"
#include "capture/Boards.h"
#include "capture/CaptureData.h"
#include "capture/CaptureDevice.h"
#include "capture/ClassicBoard.h"
#include "capture/LibusbBoard.h"
#include "capture/RawFrame.h"
#include "capture/SimulatedBoard.h"

#include <gtest/gtest.h>

#include <atomic>
#include <algorithm>

namespace zandor {
namespace {

using namespace std::chrono_literals;
using Status = Board::FrameStatus;

// A board whose pictures and the bytes after them follow test::patternByte, and which sends as many
// bytes after the picture as it is told: a board's typical share, an odd count, far too many.
class PatternSoundBoard final : public SimulatedBoard {
public:
    static constexpr uint64_t SoundStream = 1'000'000; // the sound's pattern is that of another frame number

    std::atomic<uint64_t> bytesAfterPicture = 2192;

protected:
    void fill(uint64_t frame, uint64_t offset, uint8_t* destination, uint64_t length) override {
        for (uint64_t i = 0; i < length; ++i) {
            destination[i] = test::patternByte(frame, offset + i);
        }
    }
    uint64_t soundBytes(uint64_t) override { return bytesAfterPicture; }
    void fillSound(uint64_t frame, uint64_t offset, uint8_t* destination, uint64_t length) override {
        fill(frame + SoundStream, offset, destination, length);
    }
};

class BoardSoundTest : public ::testing::Test {
protected:
    void SetUp() override {
        auto model = std::make_unique<PatternSoundBoard>();
        m_model = model.get();
        std::string error;
        m_emulated = EmulatedBoard::create(std::move(model), error);
        ASSERT_TRUE(m_emulated) << error;
    }
    void TearDown() override {
        m_board.reset(); // libusb's context goes before the testbed it looked at
        m_emulated.reset();
    }

    // Reads the next frame, which must be frame `number` of the pattern, and checks its picture.
    Status read(uint64_t number) {
        const Status status = m_board->readFrame(*m_frame);
        if (status == Status::Complete) {
            EXPECT_TRUE(test::isPatternFrame(m_frame->data(), number)) << "the picture of frame " << number;
        }
        return status;
    }

    LogCapture m_log;
    PatternSoundBoard* m_model = nullptr;
    std::unique_ptr<EmulatedBoard> m_emulated;
    std::unique_ptr<ClassicBoard> m_board = std::make_unique<ClassicBoard>(std::make_unique<LibusbBoard>());
    std::shared_ptr<CaptureData> m_frame = CaptureData::create(raw::BlockBytes);
};

TEST_F(BoardSoundTest, TheBytesAfterThePictureBecomeTheFramesSoundValuesInPlace) {
    ASSERT_FALSE(m_board->open({}));
    struct Case {
        uint64_t bytes;
        uint64_t values;
    };
    uint64_t number = 0;
    // The typical 548 stereo samples, an odd byte count, an odd value count (the last one goes,
    // left and right stay paired), the most a frame may have, more than that, and a whole mebibyte
    // of garbage: never more values than a frame may have, and the next frame is whole.
    for (const Case& c : {Case{2192, 1096}, Case{2193, 1096}, Case{2190, 1094}, Case{1, 0},
                          Case{2 * raw::MaxSoundValues, raw::MaxSoundValues},
                          Case{2 * raw::MaxSoundValues + 5000, raw::MaxSoundValues},
                          Case{1 << 20, raw::MaxSoundValues}, Case{2192, 1096}}) {
        m_model->bytesAfterPicture = c.bytes;
        for (int repeat = 0; repeat < 2; ++repeat, ++number) {
            SCOPED_TRACE("frame " + std::to_string(number) + " with " + std::to_string(c.bytes) + " bytes");
            ASSERT_EQ(read(number), Status::Complete);
            const auto sound = m_frame->sound();
            ASSERT_EQ(sound.size(), c.values);
            EXPECT_EQ(reinterpret_cast<const uint8_t*>(sound.data()), m_frame->data() + raw::FrameBytes)
                << "the values are read where they arrived";
            for (uint64_t i = 0; i < sound.size(); ++i) {
                const auto low = test::patternByte(number + PatternSoundBoard::SoundStream, 2 * i);
                const auto high = test::patternByte(number + PatternSoundBoard::SoundStream, 2 * i + 1);
                ASSERT_EQ(sound[i], static_cast<int16_t>(low | high << 8)) << "value " << i;
            }
        }
    }
    EXPECT_TRUE(m_board->info().sendsSound.value_or(false));
    EXPECT_EQ(m_log.count("The capture board sends no sound"), 0u);
}

TEST_F(BoardSoundTest, ABoardWithoutSoundGivesWholeFramesWithNoValues) {
    // A board that ends each frame right after the picture is taken for one without sound after
    // half a second of frames; one frame with sound says otherwise.
    m_model->bytesAfterPicture = 0;
    ASSERT_FALSE(m_board->open({}));
    uint64_t n = 0;
    for (; n < ClassicBoard::SilentFramesForNoSound; ++n) {
        EXPECT_FALSE(m_board->info().sendsSound) << "frame " << n;
        ASSERT_EQ(read(n), Status::Complete);
        EXPECT_TRUE(m_frame->sound().empty());
    }
    EXPECT_EQ(m_board->info().sendsSound, std::optional<bool>(false));
    EXPECT_EQ(m_log.count("The capture board sends no sound"), 1u);
    m_model->bytesAfterPicture = 4;
    ASSERT_EQ(read(n++), Status::Complete);
    EXPECT_EQ(m_frame->sound().size(), 2u);
    EXPECT_EQ(m_board->info().sendsSound, std::optional<bool>(true));

    // Older firmware sends nothing after the picture, not even a zero-length packet: the first
    // frame's read past the picture times out, which settles it, and later frames are read up to
    // the picture alone.
    m_board->close();
    m_model->setSendsSound(false);
    ASSERT_FALSE(m_board->open({}));
    for (const uint64_t first = n; n < first + 3; ++n) {
        ASSERT_EQ(read(n), Status::Complete) << "frame " << n;
        EXPECT_TRUE(m_frame->sound().empty());
        EXPECT_EQ(m_board->info().sendsSound, std::optional<bool>(false));
    }
    EXPECT_EQ(m_model->readLengths(n - 1), std::vector<int>{518656});
    EXPECT_EQ(m_log.count("The capture board sends no sound"), 2u) << "once for each opening";
}

TEST_F(BoardSoundTest, TheBoardTellsItsSerialAndFirmwareVersionOrNothingWhenItCannot) {
    m_model->setSerial("ZD-TEST-0042");
    m_model->setFirmwareVersion(9);
    ASSERT_FALSE(m_board->open({}));
    BoardInfo info = m_board->info();
    EXPECT_EQ(info.vendorProduct(), "16d0:06a3");
    EXPECT_EQ(info.serial, "ZD-TEST-0042");
    EXPECT_EQ(info.firmwareVersion, 9);
    EXPECT_FALSE(info.sendsSound) << "unknown before a frame";
    EXPECT_EQ(info.format.pictureBytes, raw::FrameBytes);
    EXPECT_EQ(info.format.maxSoundValues, raw::MaxSoundValues);
    ASSERT_EQ(read(0), Status::Complete);
    EXPECT_EQ(m_board->info().describe(),
              "Capture board 16d0:06a3, serial ZD-TEST-0042, firmware version 9, sends sound");

    // A board that does not answer the version request, and one without a serial number.
    m_board->close();
    m_model->setSerial("");
    m_model->setFirmwareVersion(0);
    ASSERT_FALSE(m_board->open({}));
    EXPECT_EQ(m_board->info().serial, "");
    EXPECT_EQ(m_board->info().firmwareVersion, 0);
    EXPECT_EQ(read(1), Status::Complete) << "the board works all the same";
}

TEST_F(BoardSoundTest, ABoardChosenBySerialIsOpenedFoundAgainAndTheOtherLeftAlone) {
    m_model->setSerial("AAA");
    auto second = std::make_unique<PatternSoundBoard>();
    second->setSerial("BBB");
    auto beside = EmulatedBoard::createBeside(*m_emulated, std::move(second));

    auto serials = m_board->serials();
    std::sort(serials.begin(), serials.end());
    EXPECT_EQ(serials, (std::vector<std::string>{"AAA", "BBB"}));
    const Error missing = m_board->open("CCC");
    EXPECT_EQ(missing.step(), Board::StepOpen);
    EXPECT_EQ(missing.code(), usb::ErrorNotFound);
    ASSERT_FALSE(m_board->open("BBB"));
    EXPECT_EQ(m_board->info().serial, "BBB");
    m_board->close();
    // A board named with its serial on the command line is that board whatever it is asked for.
    auto named = createBoard("usb:BBB");
    ASSERT_TRUE(named);
    ASSERT_FALSE((*named)->open({}));
    EXPECT_EQ((*named)->info().serial, "BBB");
    named = createBoard("demo");
    const uint64_t requestsToA = m_emulated->frameRequests();

    ASSERT_EQ(Worker::running(), 0);
    auto device = CaptureDevice::create(std::make_unique<ClassicBoard>(std::make_unique<LibusbBoard>()));
    device->setSerial("BBB");
    beside->unplugAtRequest(5, 300ms);
    auto wakeup = std::make_shared<Wakeup>();
    auto observer = device->addObserver(wakeup);
    ASSERT_TRUE(device->startListening());
    const auto frames = test::framesThroughAGap(*device, observer, *wakeup);
    device->stopListening();
    EXPECT_TRUE(!frames.empty() && !test::allZero(*frames.back())) << "the chosen board was not found again";
    EXPECT_EQ(m_log.count("Capture device reconnected"), 1u);
    EXPECT_EQ(m_emulated->frameRequests(), requestsToA) << "the other board was asked for frames";
    EXPECT_EQ(device->board().info().serial, "BBB");
    device.reset();
    beside.reset();
    EXPECT_EQ(Worker::running(), 0);
}

} // namespace
} // namespace zandor
