#include "PulseClient.h"

#include <dlfcn.h>

#include <array>
#include <cstring>
#include <mutex>

// libpulse's types, used only through pointers here; its headers are not needed.
extern "C" {
struct pa_context;
struct pa_stream;
struct pa_proplist;
struct pa_mainloop_api;
struct pa_sample_spec;
struct pa_channel_map;
struct pa_threaded_mainloop;
struct pa_operation;
}

namespace zandor {

namespace {

thread_local const char* t_streamName = nullptr;

// libpulse's own definition of a function this file stands in front of.
template <class Function> Function next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

// Which threaded mainloop drives each context, so that a disconnect can take that loop's lock. A
// program has one or two of each (Qt's, and the screenshot sound's); a few places suffice.
class Loops {
public:
    void addLoop(pa_threaded_mainloop* loop, pa_mainloop_api* api) {
        std::scoped_lock lock(m_lock);
        for (auto& entry : m_loops) {
            if (!entry.loop) {
                entry = {loop, api};
                return;
            }
        }
    }
    void removeLoop(pa_threaded_mainloop* loop) {
        std::scoped_lock lock(m_lock);
        for (auto& entry : m_loops) {
            if (entry.loop == loop) {
                entry = {};
            }
        }
        for (auto& entry : m_contexts) {
            if (entry.loop == loop) {
                entry = {};
            }
        }
    }
    void addContext(pa_context* context, pa_mainloop_api* api) {
        std::scoped_lock lock(m_lock);
        for (const auto& loop : m_loops) {
            if (loop.loop && loop.api == api) {
                for (auto& entry : m_contexts) {
                    if (!entry.context || entry.context == context) {
                        entry = {context, loop.loop};
                        return;
                    }
                }
            }
        }
    }
    pa_threaded_mainloop* loopOf(pa_context* context) {
        std::scoped_lock lock(m_lock);
        for (const auto& entry : m_contexts) {
            if (entry.context == context) {
                return entry.loop;
            }
        }
        return nullptr;
    }

private:
    struct LoopEntry {
        pa_threaded_mainloop* loop = nullptr;
        pa_mainloop_api* api = nullptr;
    };
    struct ContextEntry {
        pa_context* context = nullptr;
        pa_threaded_mainloop* loop = nullptr;
    };
    std::mutex m_lock;
    std::array<LoopEntry, 8> m_loops{};
    std::array<ContextEntry, 8> m_contexts{};
};

Loops& loops() {
    // Never destroyed: libpulse may be called while the program's statics are taken down.
    static Loops* const instance = new Loops;
    return *instance;
}

// Runs a call that changes a context under its mainloop's lock, unless the caller runs on that
// loop's thread (which holds it) or the loop is not one of ours.
template <class Call> void underLoopLock(pa_context* context, Call call) {
    using Lock = void (*)(pa_threaded_mainloop*);
    using InThread = int (*)(pa_threaded_mainloop*);
    static const auto lock = next<Lock>("pa_threaded_mainloop_lock");
    static const auto unlock = next<Lock>("pa_threaded_mainloop_unlock");
    static const auto inThread = next<InThread>("pa_threaded_mainloop_in_thread");
    pa_threaded_mainloop* loop = loops().loopOf(context);
    if (!loop || !lock || !unlock || !inThread || inThread(loop)) {
        call();
        return;
    }
    // The lock is recursive: a caller that holds it already is served too.
    lock(loop);
    call();
    unlock(loop);
}

// Whether a return address lies in Qt Multimedia's own code.
bool calledFromQtMultimedia(const void* returnAddress) {
    Dl_info library;
    return dladdr(returnAddress, &library) != 0 && library.dli_fname != nullptr &&
           std::strstr(library.dli_fname, "libQt6Multimedia") != nullptr;
}

} // namespace

PulseClient::StreamName::StreamName(const char* name) : m_previous(t_streamName) {
    t_streamName = name;
}

PulseClient::StreamName::~StreamName() {
    t_streamName = m_previous;
}

} // namespace zandor

using zandor::calledFromQtMultimedia;
using zandor::loops;
using zandor::next;
using zandor::t_streamName;

extern "C" {

pa_threaded_mainloop* pa_threaded_mainloop_new() {
    static const auto real = next<pa_threaded_mainloop* (*)()>("pa_threaded_mainloop_new");
    static const auto api = next<pa_mainloop_api* (*)(pa_threaded_mainloop*)>("pa_threaded_mainloop_get_api");
    pa_threaded_mainloop* loop = real();
    if (loop && api) {
        loops().addLoop(loop, api(loop));
    }
    return loop;
}

void pa_threaded_mainloop_free(pa_threaded_mainloop* loop) {
    static const auto real = next<void (*)(pa_threaded_mainloop*)>("pa_threaded_mainloop_free");
    loops().removeLoop(loop);
    real(loop);
}

pa_context* pa_context_new(pa_mainloop_api* api, const char*) {
    static const auto real = next<pa_context* (*)(pa_mainloop_api*, const char*)>("pa_context_new");
    pa_context* context = real(api, zandor::PulseClient::ApplicationName);
    loops().addContext(context, api);
    return context;
}

void pa_context_disconnect(pa_context* context) {
    static const auto real = next<void (*)(pa_context*)>("pa_context_disconnect");
    zandor::underLoopLock(context, [&] { real(context); });
}

pa_stream* pa_stream_new(pa_context* context, const char* name, const pa_sample_spec* sampleFormat,
                         const pa_channel_map* map) {
    static const auto real =
        next<pa_stream* (*)(pa_context*, const char*, const pa_sample_spec*, const pa_channel_map*)>(
            "pa_stream_new");
    return real(context, t_streamName ? t_streamName : name, sampleFormat, map);
}

pa_stream* pa_stream_new_with_proplist(pa_context* context, const char* name,
                                       const pa_sample_spec* sampleFormat, const pa_channel_map* map,
                                       pa_proplist* properties) {
    static const auto real =
        next<pa_stream* (*)(pa_context*, const char*, const pa_sample_spec*, const pa_channel_map*,
                            pa_proplist*)>("pa_stream_new_with_proplist");
    return real(context, t_streamName ? t_streamName : name, sampleFormat, map, properties);
}

// Qt's play-through sink asks for a drain each time its stream runs dry, and names itself as the one
// to tell when the drain is done. The answer can arrive after the sink is deleted: libpulse cancels
// a stream's pending operations only once the server has confirmed that the stream is gone, which
// comes after the sink's own close() and deletion. Telling the deleted sink then ends the program
// with a fault on libpulse's thread ("threaded-ml"). The answer only moves the sink's state to idle,
// which nothing here reads, so Qt's drains go out without anyone to tell.
pa_operation* pa_stream_drain(pa_stream* stream, void (*done)(pa_stream*, int, void*), void* userdata) {
    static const auto real =
        next<pa_operation* (*)(pa_stream*, void (*)(pa_stream*, int, void*), void*)>("pa_stream_drain");
    if (userdata && calledFromQtMultimedia(__builtin_return_address(0))) {
        userdata = nullptr;
    }
    return real(stream, done, userdata);
}

} // extern "C"
