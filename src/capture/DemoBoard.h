#pragma once

#include "SimulatedBoard.h"
#include "ThreeDSender.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>

namespace zandor {

// A simulated board with a moving, recognisable picture on both screens: a labelled frame
// counter, scrolling colour bars and a bouncing marker on each. Every frame's bytes follow from its
// number alone, unless flashes are on: then the frame read nearest each whole second of the wall
// clock (the clock of the frames' time stamps), within half a frame period and at most LatestFlash
// after it, is all white, for measuring how sound and picture line up. Flashes are on when ZANDOR_DEMO_FLASH
// is set to 1.
//
// Its sound is silence with a short 1 kHz beep starting with each flash (without flashes, with
// every 60th frame), or a continuous tone when one is set. Each frame carries the samples of one
// sixtieth of a second at raw::SoundRate, about 545.5 stereo samples: the frames' sample counts
// follow a running fraction, so that the rate is exact over any stretch of frames.
//
// It can send the console's 3D picture (see ThreeDSender): the left eye is the usual top screen,
// the right eye the same picture labelled "RIGHT" with its marker Parallax pixels further left, so
// that the two eyes are told apart at a glance and by their pixels.
class DemoBoard final : public SimulatedBoard, public ThreeDSender {
public:
    DemoBoard();
    void setFlashes(bool flashes) { m_flashes = flashes; }
    // A continuous tone of `hertz` instead of the beeps; 0 for the beeps.
    void setTone(double hertz) { m_toneHertz = hertz; }
    ~DemoBoard() override;

    // The first stereo sample of frame `frame` counted from frame 0's, and how many it has.
    static uint64_t firstSample(uint64_t frame);
    static uint64_t samples(uint64_t frame) { return firstSample(frame + 1) - firstSample(frame); }
    static constexpr int BeepFrames = 3;
    static constexpr double BeepHertz = 1000;
    static constexpr double Amplitude = 16384;

    // Renders frame `frame` in the board's raw format into `raw` (raw::FrameBytes bytes).
    static void render(uint64_t frame, uint8_t* raw);
    // Renders the right eye's top screen of frame `frame` in the board's raw format (400 columns
    // from the bottom row up) into `raw` (raw::BottomOffset bytes).
    static void renderRightEye(uint64_t frame, uint8_t* raw);
    static constexpr int Parallax = 12;
    // How long after a whole second its first frame may still flash.
    static constexpr std::chrono::milliseconds LatestFlash{250};

    void send3D(bool on) override { m_wants3D = on; }

    // Below the colour bars each screen shows the frame's number, modulo 2^CountBits, also as a
    // strip of square blocks of CountBlock pixels, the highest bit first, from (CountX, CountY):
    // white for a 1, black for a 0. Unlike the digits, these survive any compression, so a
    // movie's frames can be told apart and matched by reading them.
    static constexpr int CountBits = 20;
    static constexpr int CountBlock = 12;
    static constexpr int CountX = 8;
    static constexpr int CountY = 212;

protected:
    uint64_t pictureBytes() override;
    void fill(uint64_t frame, uint64_t offset, uint8_t* destination, uint64_t length) override;
    uint64_t soundBytes(uint64_t frame) override;
    void fillSound(uint64_t frame, uint64_t offset, uint8_t* destination, uint64_t length) override;

private:
    // Makes the 3D picture of frame `frame` in m_frame from a flat frame and a right eye.
    void render3D(uint64_t frame);

    std::unique_ptr<uint8_t[]> m_frame; // the frame's picture, flat or with both eyes
    std::unique_ptr<uint8_t[]> m_eyes;  // a flat frame and a right eye, made once 3D is asked for
    std::atomic<bool> m_wants3D = false;
    bool m_sending3D = false;   // whether the frame being sent has both eyes; the reading thread's
    bool m_rendered3D = false;  // likewise, whether m_frame holds both eyes
    int64_t m_rendered = -1;    // only touched by the reading thread, in fill()
    int64_t m_flashSecond = -1; // the second of the wall clock of the last frame read; likewise
    int64_t m_beepStart = -1;   // the frame the last beep began with; likewise
    bool m_flashes = false;
    double m_toneHertz = 0;
};

} // namespace zandor
