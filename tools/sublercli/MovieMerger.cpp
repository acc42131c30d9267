#include "MovieMerger.h"

#include "base/AtomicFile.h"
#include "TrackSource.h"
#include "media/FFmpeg.h"

#include <cstring>
#include <memory>
#include <optional>
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

} // namespace

bool MovieMerger::merge(const std::string& source, const std::string& destination, std::string& error) {
    TrackSource added(source);
    if (!added.open(error)) {
        return false;
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
        // Both capture starts are wall-clock times of each file's time zero; the difference places
        // the added tracks on the destination's time line.
        const std::optional<int64_t> addedStart = added.captureStartNs();
        const std::optional<int64_t> keptStart = kept->captureStartNs();
        if (addedStart && keptStart) {
            added.setOffset(*addedStart - *keptStart);
        }
    }

    AtomicFile file(destination);
    if (!file.create(error)) {
        return false;
    }
    ff::OutputContext output;
    if (!output.open(file.path(), "mp4")) {
        error = "cannot write '" + file.path() + "'";
        return false;
    }
    if (kept) {
        kept->addStreams(output.get());
    }
    if (added.addStreams(output.get()) == 0) {
        error = "'" + source + "' has no track that an MP4 file can hold";
        return false;
    }
    copyMetadata(kept ? kept->metadata() : added.metadata(), &output->metadata);

    // Keys of our own, the capture start among them, are only kept as QuickTime metadata keys.
    ff::Options options;
    options.set("movflags", "+use_metadata_tags");
    if (!succeeded(avformat_write_header(output.get(), options.get()), "avformat_write_header", error)) {
        return false;
    }

    // Both files are read in step, each packet written in decoding order, so the result is
    // interleaved without holding either file in memory.
    TrackSource* sources[2] = {kept.get(), &added};
    ff::Packet pending[2];
    for (int i = 0; i < 2; ++i) {
        if (sources[i] && sources[i]->next(pending[i], error) < 0) {
            return false;
        }
    }
    int64_t addedPackets = 0;
    for (;;) {
        int chosen = -1;
        for (int i = 0; i < 2; ++i) {
            if (!pending[i]) {
                continue;
            }
            if (chosen < 0 ||
                !writesBefore(pending[chosen].get(), output->streams[pending[chosen]->stream_index],
                              pending[i].get(), output->streams[pending[i]->stream_index])) {
                chosen = i;
            }
        }
        if (chosen < 0) {
            break;
        }
        if (!succeeded(av_interleaved_write_frame(output.get(), pending[chosen].get()),
                       "av_interleaved_write_frame", error)) {
            return false;
        }
        if (sources[chosen] == &added) {
            ++addedPackets;
        }
        pending[chosen].reset();
        if (sources[chosen]->next(pending[chosen], error) < 0) {
            return false;
        }
    }
    if (addedPackets == 0) {
        // A track without samples would be left out by the muxer: nothing would be added.
        error = "nothing of '" + source + "' lies after the start of '" + destination + "'";
        return false;
    }
    if (!succeeded(av_write_trailer(output.get()), "av_write_trailer", error)) {
        return false;
    }
    output.close();
    return file.commit(error);
}

} // namespace zandor
