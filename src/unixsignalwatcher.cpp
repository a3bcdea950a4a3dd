#include "unixsignalwatcher.h"

#include <QSocketNotifier>

#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

static int sockets[2] = {-1, -1};

static void handler(int signal)
{
    const unsigned char byte = static_cast<unsigned char>(signal);
    const ssize_t written = ::write(sockets[0], &byte, 1);
    Q_UNUSED(written)
}

UnixSignalWatcher::UnixSignalWatcher(std::initializer_list<int> signalNumbers)
    : watched(signalNumbers)
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0) {
        qWarning("Could not create the signal socket pair");
        return;
    }
    notifier = new QSocketNotifier(sockets[1], QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &UnixSignalWatcher::onNotifierActivated);

    struct sigaction action = {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signal : watched)
        ::sigaction(signal, &action, nullptr);
}

UnixSignalWatcher::~UnixSignalWatcher()
{
    for (int signal : watched)
        ::signal(signal, SIG_DFL);
    if (notifier) {
        ::close(sockets[0]);
        ::close(sockets[1]);
    }
}

void UnixSignalWatcher::onNotifierActivated()
{
    unsigned char byte = 0;
    if (::read(sockets[1], &byte, 1) == 1)
        emit received(byte);
}
