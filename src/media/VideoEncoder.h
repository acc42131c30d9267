#pragma once

#include "FFmpeg.h"

#include <cstdint>
#include <string_view>

namespace zandor {

// An H.264 encoder (libx264) of frames given as rows of red, green and blue bytes, with times in
// the settings' time base. The movie writer and the replay buffer encode alike through it.
class VideoEncoder {
public:
    // The steps of open() its Error names, so that each user can say a failure in its own words.
    static constexpr std::string_view CodecStep = "open the H.264 encoder";
    static constexpr std::string_view ScalerStep = "make the picture converter";
    static constexpr std::string_view PictureStep = "make the picture";

    struct Settings {
        int width = 0;
        int height = 0;
        int64_t bitsPerSecond = 0;
        // The most frames between two key frames.
        int keyInterval = 1;
        // The x264 speed preset.
        const char* speed = "veryfast";
        // Codec headers kept apart from the stream, as MP4 and QuickTime containers want them.
        bool globalHeader = true;
        // The unit of the pictures' times.
        AVRational timeBase{1, 1000};
    };

    // The Error names the step that failed (one of the steps above) and FFmpeg's code.
    Error open(const Settings& settings);
    void close();
    bool isOpen() const { return m_encoder != nullptr; }
    AVCodecContext* context() const { return m_encoder.get(); }

    // Converts one frame (at least width × height × 3 bytes) into the picture to encode, stamped
    // `pts` in the time base, a key frame when `key`. Null, logged, when the picture cannot be
    // written.
    const AVFrame* picture(const uint8_t* rgb, int64_t pts, bool key);
    // The last picture again, stamped `pts`, not a key frame: it stands in for a frame that never
    // came. Null before the first picture.
    const AVFrame* repeat(int64_t pts);

private:
    ff::CodecContext m_encoder;
    ff::Scaler m_scaler;
    ff::Frame m_frame; // the one picture every frame is converted into
    bool m_converted = false;
};

} // namespace zandor
