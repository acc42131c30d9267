#include "DetachedThread.h"

#include <condition_variable>
#include <mutex>
#include <pthread.h>
#include <thread>

namespace zandor {

namespace {

std::mutex g_mutex;
std::condition_variable g_ended;
int g_running = 0;

} // namespace

void DetachedThread::start(std::string name, std::function<void()> body) {
    {
        std::scoped_lock lock(g_mutex);
        ++g_running;
    }
    std::thread([name = std::move(name), body = std::move(body)]() mutable {
        pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
        body();
        // Release what the body holds (often the last reference to its object) before the
        // thread counts as ended.
        body = nullptr;
        std::scoped_lock lock(g_mutex);
        --g_running;
        g_ended.notify_all();
    }).detach();
}

int DetachedThread::running() {
    std::scoped_lock lock(g_mutex);
    return g_running;
}

bool DetachedThread::waitForAll(std::chrono::milliseconds timeout) {
    std::unique_lock lock(g_mutex);
    return g_ended.wait_for(lock, timeout, [] { return g_running == 0; });
}

} // namespace zandor
