#include "QuillmereDesktop/shell/QuitOnSignal.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// A signal handler may only write to a descriptor; the event loop reads the other end.
int signalPipe[2] = {-1, -1};

} // namespace

QuitOnSignal::QuitOnSignal(QObject* parent) : QObject(parent) {
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, signalPipe) != 0)
        return;
    m_notifier = new QSocketNotifier(signalPipe[1], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &QuitOnSignal::onSignal);
    struct sigaction action = {};
    action.sa_handler = &QuitOnSignal::handle;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signal : {SIGTERM, SIGINT, SIGHUP})
        ::sigaction(signal, &action, nullptr);
}

QuitOnSignal::~QuitOnSignal() {
    for (int signal : {SIGTERM, SIGINT, SIGHUP})
        std::signal(signal, SIG_DFL);
    for (int& fd : signalPipe) {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }
}

void QuitOnSignal::handle(int) {
    const char byte = 1;
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[0], &byte, 1);
}

void QuitOnSignal::onSignal() {
    char byte = 0;
    [[maybe_unused]] const ssize_t read = ::read(signalPipe[1], &byte, 1);
    QCoreApplication::quit();
}
