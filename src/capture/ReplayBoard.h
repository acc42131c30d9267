#pragma once

#include "RawFrame.h"
#include "SimulatedBoard.h"
#include "base/Error.h"

#include <cstdint>
#include <memory>
#include <string>

namespace zandor {

// A simulated board that sends the frames of a dump file, as `zandor-cli dump` writes them,
// starting again at the first after the last. Two layouts are read:
//
// - frames with sound: the 16 bytes "ZDFRAMES", the size of a record (uint32, little-endian,
//   553476) and 4 zero bytes; then one record a frame: its raw picture (raw::FrameBytes), the
//   number of sound values that came with it (uint32, little-endian, even, at most
//   raw::MaxSoundValues) and room for raw::MaxSoundValues values (int16, little-endian, left and
//   right interleaved), of which the unused ones are zero. Records are of one size, so a frame is
//   found by its number alone.
// - older dumps: raw pictures back to back and nothing else (raw::FrameBytes each); they replay
//   without sound.
class ReplayBoard final : public SimulatedBoard {
public:
    static constexpr char Magic[8] = {'Z', 'D', 'F', 'R', 'A', 'M', 'E', 'S'};
    static constexpr uint64_t HeaderBytes = 16;
    static constexpr uint64_t SoundCountBytes = 4;
    static constexpr uint64_t RecordBytes = raw::FrameBytes + SoundCountBytes + 2 * raw::MaxSoundValues;

    // What was wrong with a file, as the Error's code (domain Other; the step is StepOpen, the
    // path the file's, the detail says more).
    enum Problem { NotRegular = 1, Unreadable, NotFrames };
    static constexpr const char* StepOpen = "open the replay file";

    static Result<std::unique_ptr<ReplayBoard>> open(const std::string& path);
    ~ReplayBoard() override;

    // The header of a file with sound.
    static void header(uint8_t (&bytes)[HeaderBytes]);

protected:
    void fill(uint64_t frame, uint64_t offset, uint8_t* destination, uint64_t length) override;
    uint64_t soundBytes(uint64_t frame) override;
    void fillSound(uint64_t frame, uint64_t offset, uint8_t* destination, uint64_t length) override;

private:
    ReplayBoard(int fd, uint64_t frames, bool withSound)
        : m_fd(fd), m_frames(frames), m_withSound(withSound) {}
    uint64_t recordStart(uint64_t frame) const;
    // Reads into `destination`; what the file no longer has (it shrank under us) is zero.
    void read(uint64_t position, uint8_t* destination, uint64_t length) const;

    int m_fd;
    uint64_t m_frames;
    bool m_withSound;
};

} // namespace zandor
