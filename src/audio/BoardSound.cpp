#include "BoardSound.h"

#include "capture/RawFrame.h"

extern "C" {
#include <libavutil/mathematics.h>
#include <libavutil/opt.h>
}

#include <algorithm>
#include <climits>
#include <cmath>

namespace zandor {

namespace {

// The board's rate is 67027964 / 2048 Hz: not a whole number, which is all the resampler takes.
// Given the exact ratio of the two rates as its two "rates", it resamples without any drift.
constexpr int64_t BoardClock = 67027964;
constexpr int64_t BoardClockDivider = 2048;
// The longest silence put in at once; past it the sound starts afresh where its frame belongs.
constexpr double LongestFill = 1.0;

double seconds(std::chrono::nanoseconds duration) {
    return std::chrono::duration<double>(duration).count();
}

} // namespace

BoardSound::BoardSound(int outputRate) : m_outputRate(outputRate) {
    int num = 0;
    int den = 0;
    av_reduce(&num, &den, int64_t{outputRate} * BoardClockDivider, BoardClock, INT_MAX);
    m_resamplerOut = num;
    AVChannelLayout stereo;
    av_channel_layout_default(&stereo, Channels);
    SwrContext* resampler = nullptr;
    int result = swr_alloc_set_opts2(&resampler, &stereo, AV_SAMPLE_FMT_S16, num, &stereo, AV_SAMPLE_FMT_S16,
                                     den, 0, nullptr);
    av_channel_layout_uninit(&stereo);
    m_resampler.reset(resampler);
    if (resampler) {
        // Resampling from the start: stretching needs it, and turned on later it would start afresh.
        av_opt_set_int(resampler, "flags", SWR_FLAG_RESAMPLE, 0);
    }
    m_error = ff::failure(result, "swr_alloc_set_opts2");
    if (!m_error) {
        m_error = ff::failure(swr_init(m_resampler.get()), "swr_init");
    }
}

std::optional<BoardSound::Clock::time_point> BoardSound::nextSampleTime() const {
    if (!m_origin) {
        return std::nullopt;
    }
    return timeOfOutput(m_produced + swr_get_delay(m_resampler.get(), m_resamplerOut));
}

BoardSound::Clock::time_point BoardSound::timeOfOutput(int64_t sample) const {
    return *m_origin + std::chrono::duration_cast<Clock::duration>(
                           std::chrono::duration<double>(static_cast<double>(sample) / m_outputRate));
}

BoardSound::Piece BoardSound::add(std::span<const int16_t> values, Clock::time_point frameTime,
                                  uint64_t frameNumber) {
    m_output.clear();
    if (m_error) {
        return {};
    }
    if (!m_origin) {
        m_origin = frameTime;
    }
    const int64_t producedBefore = m_produced;
    const bool afterSkip = m_lastNumber != 0 && frameNumber > m_lastNumber + 1;
    if (frameNumber != 0) {
        m_lastNumber = frameNumber;
    }
    const double ratio = m_outputRate / raw::SoundRate;
    const double period = seconds(FramePeriod) * m_outputRate;
    const double tolerance = seconds(Tolerance) * m_outputRate;
    const double position =
        static_cast<double>(m_produced + swr_get_delay(m_resampler.get(), m_resamplerOut));
    double difference = seconds(frameTime - *m_origin) * m_outputRate - position;
    if (std::abs(difference) > LongestFill * m_outputRate) {
        // A clock that jumped, or a long stall: the sound goes on from this frame's time (the
        // pieces' times say so) rather than with seconds of silence or of sound left out.
        m_origin = frameTime - (timeOfOutput(static_cast<int64_t>(position)) - *m_origin);
        difference = 0;
    }

    const int64_t available = static_cast<int64_t>(values.size() / Channels);
    int64_t skip = 0;
    if (difference > tolerance || (afterSkip && difference > period / 2)) {
        feedSilence(std::llround(difference / ratio));
        difference = 0;
    } else if (difference < -tolerance) {
        skip = std::min(available, static_cast<int64_t>(std::llround(-difference / ratio)));
        difference = 0;
    }
    adjustStretch(difference);

    if (available == 0) {
        // A frame period of silence in place of the sound the frame did not bring.
        m_silenceDue += period / ratio;
        const auto whole = static_cast<int64_t>(m_silenceDue);
        m_silenceDue -= static_cast<double>(whole);
        feedSilence(whole);
    } else {
        feed(values.data() + skip * Channels, available - skip);
    }
    return {m_output, timeOfOutput(producedBefore)};
}

void BoardSound::adjustStretch(double difference) {
    m_differenceSum += difference;
    if (++m_differenceCount < 60) {
        return;
    }
    const double average = m_differenceSum / m_differenceCount;
    m_differenceSum = 0;
    m_differenceCount = 0;
    // Within a millisecond nothing is done: the frames' own times are not finer than that.
    const double limit = MaxStretch * m_outputRate;
    const int delta = std::abs(average) < m_outputRate / 1000.0
                          ? 0
                          : static_cast<int>(std::lround(std::clamp(average, -limit, limit)));
    ff::check(swr_set_compensation(m_resampler.get(), delta, delta == 0 ? 0 : m_outputRate),
              "swr_set_compensation");
}

void BoardSound::feedSilence(int64_t count) {
    while (count > 0) {
        const int64_t now = std::min<int64_t>(count, raw::MaxSoundValues / Channels);
        m_silence.resize(static_cast<size_t>(now * Channels));
        feed(m_silence.data(), now);
        count -= now;
    }
}

void BoardSound::feed(const int16_t* values, int64_t count) {
    if (count <= 0) {
        return;
    }
    const int room = swr_get_out_samples(m_resampler.get(), static_cast<int>(count));
    if (room <= 0) {
        return;
    }
    const size_t start = m_output.size();
    m_output.resize(start + static_cast<size_t>(room) * Channels);
    uint8_t* out[1] = {reinterpret_cast<uint8_t*>(m_output.data() + start)};
    const uint8_t* in[1] = {reinterpret_cast<const uint8_t*>(values)};
    const int converted = swr_convert(m_resampler.get(), out, room, in, static_cast<int>(count));
    m_output.resize(start + static_cast<size_t>(std::max(converted, 0)) * Channels);
    if (converted > 0) {
        m_produced += converted;
    } else {
        ff::check(converted, "swr_convert");
    }
}

} // namespace zandor
