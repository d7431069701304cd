#include "base/unix_signal_watcher.h"

#include "base/platform.h"

#include <QSocketNotifier>

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace brinmoor {

namespace {

int g_pipe[2] = {-1, -1};

void onSignal(int signal)
{
    const unsigned char byte = static_cast<unsigned char>(signal);
    [[maybe_unused]] const ssize_t written = ::write(g_pipe[1], &byte, 1);
}

} // namespace

UnixSignalWatcher::UnixSignalWatcher(std::initializer_list<int> signals, QObject* parent) : QObject(parent)
{
    if (g_pipe[0] < 0 && !Platform::makePipe(g_pipe, true))
        return;
    m_notifier = new QSocketNotifier(g_pipe[0], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, [this] {
        unsigned char byte = 0;
        while (::read(g_pipe[0], &byte, 1) == 1)
            Q_EMIT received(byte);
    });
    for (const int signal : signals) {
        struct sigaction action {};
        action.sa_handler = onSignal;
        sigemptyset(&action.sa_mask);
        action.sa_flags = SA_RESTART;
        ::sigaction(signal, &action, nullptr);
    }
}

UnixSignalWatcher::~UnixSignalWatcher() = default;

} // namespace brinmoor
