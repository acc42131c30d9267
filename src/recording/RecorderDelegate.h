#pragma once

#include "base/Error.h"

#include <QString>

#include <chrono>

namespace zandor {

// A step of finalising a recording that failed, as the recorder knows it; whoever tells the user
// says it in words.
struct RecordingProblem {
    enum class Step {
        FinishVideo,       // a layout's movie could not be finished
        FinishAudio,       // a sound track could not be finished
        MergeAudio,        // the sound could not be mixed or merged into a movie
        MergeVideo,        // a movie could not be copied into the merged file
        Convert,           // the frame rate conversion failed
        MoveForConversion, // the merged movie could not be renamed to the converted one's name
        MoveOut,           // the finished movie could not be moved beside the bundle
        RemoveBundle,      // the bundle could not be removed once every movie was out
        HeldElsewhere,     // recovering: another process records or finalises the bundle
    };

    Step step;
    // The cause, where one is known: the code of a failed write (a full disk is known by it), or
    // of the bundle's lock.
    Error error;
    // The bundle the recording is kept in, when the failure leaves it there; empty otherwise.
    QString keptIn;
};

// Told how a video recording ended. Called on the recorder's thread: a delegate with a user
// interface hands the work to its own thread.
class RecorderDelegate {
public:
    virtual ~RecorderDelegate() = default;
    virtual void recordProgress(double) {}
    virtual void recordDone() = 0;
    virtual void recordError(const RecordingProblem& problem) = 0;
    // The game sound's input went away `at` into a recording that was made, and the rest of the
    // movie is silent; sent before recordDone.
    virtual void recordGameSoundLost(std::chrono::milliseconds) {}
};

} // namespace zandor
