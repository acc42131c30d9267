#pragma once

#include <QString>

namespace zandor {

// Told how a video recording ended. Called on the recorder's thread: a delegate with a user
// interface hands the work to its own thread.
class RecorderDelegate {
public:
    virtual ~RecorderDelegate() = default;
    virtual void recordProgress(double) {}
    virtual void recordDone() = 0;
    virtual void recordError(const QString& message) = 0;
    // Something the user should know of a recording that was made, such as its game sound
    // stopping early; sent before recordDone.
    virtual void recordNotice(const QString&) {}
};

} // namespace zandor
