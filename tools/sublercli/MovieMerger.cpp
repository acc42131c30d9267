#include "MovieMerger.h"

#include "base/AtomicFile.h"
#include "TrackSource.h"
#include "media/FFmpeg.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>
#include <sys/stat.h>

namespace zandor {

namespace {

bool succeeded(int code, const char* step, std::string& error) {
    if (code >= 0) {
        return true;
    }
    error = std::string(step) + ": " + ff::errorText(code);
    return false;
}

// The system's code in FFmpeg's `code` for a failed write, or 0 for one of FFmpeg's own.
int systemCodeOf(int code) {
    return code < 0 && -code < 4096 ? -code : 0;
}

// The movie-level metadata of the result, without the keys the muxer derives from the file type.
void copyMetadata(const AVDictionary* from, AVDictionary** to) {
    const AVDictionaryEntry* entry = nullptr;
    while ((entry = av_dict_get(from, "", entry, AV_DICT_IGNORE_SUFFIX))) {
        if (std::strcmp(entry->key, "major_brand") == 0 || std::strcmp(entry->key, "minor_version") == 0 ||
            std::strcmp(entry->key, "compatible_brands") == 0) {
            continue;
        }
        av_dict_set(to, entry->key, entry->value, 0);
    }
}

// The packet to write first of two pending ones: the earlier in decoding order.
bool writesBefore(const AVPacket* packet, const AVStream* stream, const AVPacket* other,
                  const AVStream* otherStream) {
    if (packet->dts == AV_NOPTS_VALUE || other->dts == AV_NOPTS_VALUE) {
        return packet->dts == AV_NOPTS_VALUE;
    }
    return av_compare_ts(packet->dts, stream->time_base, other->dts, otherStream->time_base) <= 0;
}

void label(AVStream* stream, const MovieMerger::Labels& labels) {
    if (labels.title) {
        av_dict_set(&stream->metadata, "title", labels.title->c_str(), 0);
        av_dict_set(&stream->metadata, "handler_name", labels.title->c_str(), 0);
    }
    if (labels.language) {
        av_dict_set(&stream->metadata, "language", labels.language->c_str(), 0);
    }
    if (labels.isDefault) {
        stream->disposition = *labels.isDefault ? stream->disposition | AV_DISPOSITION_DEFAULT
                                                : stream->disposition & ~AV_DISPOSITION_DEFAULT;
    }
}

} // namespace

bool MovieMerger::merge(const std::vector<Source>& sources, const std::string& destination,
                        std::string& error, int& writeError) {
    writeError = 0;
    if (sources.empty()) {
        error = "no source to add";
        return false;
    }
    std::vector<std::unique_ptr<TrackSource>> added;
    for (const Source& source : sources) {
        added.push_back(std::make_unique<TrackSource>(source.path));
        if (!added.back()->open(error)) {
            return false;
        }
    }
    std::unique_ptr<TrackSource> kept;
    struct stat info {};
    if (::stat(destination.c_str(), &info) == 0) {
        if (S_ISDIR(info.st_mode)) {
            error = "cannot write '" + destination + "': it is a folder";
            return false;
        }
        kept = std::make_unique<TrackSource>(destination);
        if (!kept->open(error)) {
            return false;
        }
    }
    // Every capture start is the wall-clock time of its file's time zero; the differences place
    // the added tracks on the time line of the result.
    if (const std::optional<int64_t> reference = (kept ? *kept : *added.front()).captureStartNs()) {
        for (const auto& source : added) {
            if (const std::optional<int64_t> start = source->captureStartNs()) {
                source->setOffset(*start - *reference);
            }
        }
    }

    AtomicFile file(destination);
    if (const Error created = file.create()) {
        error = created.logLine();
        writeError = created.systemCode();
        return false;
    }
    ff::OutputContext output;
    if (const Error opened = output.open(file.path(), "mp4")) {
        error = "cannot write '" + file.path() + "'";
        writeError = opened.systemCode();
        return false;
    }
    if (kept) {
        kept->addStreams(output.get());
    }
    for (size_t i = 0; i < added.size(); ++i) {
        const unsigned first = output->nb_streams;
        if (added[i]->addStreams(output.get()) == 0) {
            error = "'" + sources[i].path + "' has no track that an MP4 file can hold";
            return false;
        }
        for (unsigned stream = first; stream < output->nb_streams; ++stream) {
            label(output->streams[stream], sources[i].labels);
        }
    }
    copyMetadata(kept ? kept->metadata() : added.front()->metadata(), &output->metadata);

    // Keys of our own, the capture start among them, are only kept as QuickTime metadata keys.
    ff::Options options;
    options.set("movflags", "+use_metadata_tags");
    if (!succeeded(avformat_write_header(output.get(), options.get()), "avformat_write_header", error)) {
        return false;
    }

    // All files are read in step, each packet written in decoding order, so the result is
    // interleaved without holding any file in memory.
    std::vector<TrackSource*> inputs;
    if (kept) {
        inputs.push_back(kept.get());
    }
    for (const auto& source : added) {
        inputs.push_back(source.get());
    }
    std::vector<ff::Packet> pending(inputs.size());
    std::vector<int64_t> written(inputs.size(), 0);
    // The tracks added to a movie end with its picture: a sound recorded a little longer (for the
    // longest of several layouts' pictures) is cut at this one's last picture.
    const std::optional<int64_t> pictureEnd = kept ? kept->pictureEndNs() : std::nullopt;
    const auto pastThePicture = [&](const AVPacket* packet) {
        const AVStream* stream = output->streams[packet->stream_index];
        return pictureEnd && stream->codecpar->codec_type != AVMEDIA_TYPE_VIDEO &&
               packet->pts != AV_NOPTS_VALUE &&
               av_rescale_q(packet->pts, stream->time_base, AVRational{1, 1000000000}) >= *pictureEnd;
    };
    // The last sound packet that starts within the picture lasts only up to its end: a sound of
    // 1024 samples a packet would otherwise run on for up to one packet.
    const auto endWithThePicture = [&](AVPacket* packet) {
        const AVStream* stream = output->streams[packet->stream_index];
        if (!pictureEnd || stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO ||
            packet->pts == AV_NOPTS_VALUE || packet->duration <= 0) {
            return;
        }
        const int64_t end = av_rescale_q(*pictureEnd, AVRational{1, 1000000000}, stream->time_base);
        if (packet->pts + packet->duration > end) {
            packet->duration = std::max<int64_t>(1, end - packet->pts);
        }
    };
    for (size_t i = 0; i < inputs.size(); ++i) {
        if (inputs[i]->next(pending[i], error) < 0) {
            return false;
        }
    }
    for (;;) {
        int chosen = -1;
        for (size_t i = 0; i < inputs.size(); ++i) {
            if (!pending[i]) {
                continue;
            }
            if (chosen < 0 ||
                !writesBefore(pending[chosen].get(), output->streams[pending[chosen]->stream_index],
                              pending[i].get(), output->streams[pending[i]->stream_index])) {
                chosen = static_cast<int>(i);
            }
        }
        if (chosen < 0) {
            break;
        }
        const bool added = kept && chosen > 0;
        if (added && pastThePicture(pending[chosen].get())) {
            pending[chosen].reset();
            if (inputs[chosen]->next(pending[chosen], error) < 0) {
                return false;
            }
            continue;
        }
        if (added) {
            endWithThePicture(pending[chosen].get());
        }
        if (const int result = av_interleaved_write_frame(output.get(), pending[chosen].get());
            !succeeded(result, "av_interleaved_write_frame", error)) {
            writeError = systemCodeOf(result);
            return false;
        }
        ++written[chosen];
        pending[chosen].reset();
        if (inputs[chosen]->next(pending[chosen], error) < 0) {
            return false;
        }
    }
    for (size_t i = kept ? 1 : 0, source = 0; i < inputs.size(); ++i, ++source) {
        if (written[i] == 0) {
            // A track without samples would be left out by the muxer: nothing would be added.
            error = "nothing of '" + sources[source].path + "' lies after the start of '" + destination + "'";
            return false;
        }
    }
    if (const int ended = av_write_trailer(output.get()); !succeeded(ended, "av_write_trailer", error)) {
        writeError = systemCodeOf(ended);
        return false;
    }
    output.close();
    if (const Error committed = file.commit()) {
        error = committed.logLine();
        writeError = committed.systemCode();
        return false;
    }
    return true;
}

} // namespace zandor
