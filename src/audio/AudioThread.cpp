#include "AudioThread.h"

#include <QCoreApplication>
#include <QThread>

#include <mutex>

namespace zandor {

namespace {

std::mutex g_mutex;
QThread* g_thread = nullptr; // guarded by g_mutex
bool g_routineAdded = false; // guarded by g_mutex

} // namespace

QThread* AudioThread::instance() {
    std::scoped_lock lock(g_mutex);
    if (!g_thread) {
        g_thread = new QThread();
        g_thread->setObjectName(QStringLiteral("zandor-audio"));
        g_thread->start();
        if (!g_routineAdded) {
            // Run by the application object's destructor, after main's objects are gone.
            qAddPostRoutine(&AudioThread::end);
            g_routineAdded = true;
        }
    }
    return g_thread;
}

void AudioThread::end() {
    QThread* thread;
    {
        std::scoped_lock lock(g_mutex);
        thread = g_thread;
        g_thread = nullptr;
    }
    if (thread) {
        thread->quit();
        thread->wait();
        delete thread;
    }
}

} // namespace zandor
