#include "XServer.h"

#include "Process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace zandor::test {

XServer::XServer() {
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0) {
        m_error = "pipe failed";
        return;
    }
    m_server = fork();
    if (m_server == 0) {
        // The server goes with the test program, however that ends.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        dup2(ready[1], 3);
        const int devnull = open("/dev/null", O_WRONLY);
        dup2(devnull, 1);
        dup2(devnull, 2);
        execlp("Xvfb", "Xvfb", "-displayfd", "3", "-screen", "0", "1280x1024x24", "-nolisten", "tcp",
               static_cast<char*>(nullptr));
        _exit(127);
    }
    close(ready[1]);
    // Xvfb writes its display number once it accepts clients.
    std::string number;
    pollfd fd{ready[0], POLLIN, 0};
    char c = 0;
    while (m_server > 0 && poll(&fd, 1, 20000) > 0 && read(ready[0], &c, 1) == 1 && c != '\n') {
        number += c;
    }
    close(ready[0]);
    if (number.empty() || c != '\n') {
        m_error = "Xvfb did not start";
        return;
    }
    m_display = ":" + number;
}

XServer::~XServer() {
    endProcess(m_server);
}

QImage XServer::screenshot() const {
    const ProcessResult grab =
        runProcess({"ffmpeg", "-v", "error", "-f", "x11grab", "-video_size", "1280x1024", "-i", m_display,
                    "-frames:v", "1", "-f", "image2pipe", "-vcodec", "png", "-"},
                   std::chrono::seconds(30));
    return QImage::fromData(QByteArray::fromStdString(grab.out), "PNG");
}

} // namespace zandor::test
