// brinmoor-server: the relay between the agent and the phone.
#include "base/open_file_limit.h"
#include "base/unix_signal_watcher.h"
#include "relay_log.h"
#include "server_config.h"

#include <QCoreApplication>

#include <csignal>
#include <cstdio>

using namespace brinmoor;
using namespace brinmoor::relay;

namespace {

// Descriptors kept for the server's own files (standard streams, the listener, the
// event loop's) beside its connections.
constexpr long kReservedFiles = 32;

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const auto config = configFromEnvironment(QProcessEnvironment::systemEnvironment());
    if (const QString* problem = std::get_if<QString>(&config)) {
        std::fprintf(stderr, "%s\n", qPrintable(*problem));
        return 2;
    }
    RelayConfig settings = std::get<RelayConfig>(config);
    // Every connection is a descriptor: take all the system allows, and never accept
    // more connections than fit.
    const long files = raiseOpenFileLimit();
    if (files > 0) {
        settings.limits.maxConnections =
            int(qBound<long>(1, files - kReservedFiles, long(settings.limits.maxConnections)));
    }
    RelayServer server(settings);
    QString error;
    if (!server.listen(&error)) {
        std::fprintf(stderr, "brinmoor-server: cannot listen on %s:%u: %s\n",
                     qPrintable(settings.bindAddress.toString()), unsigned(settings.port), qPrintable(error));
        return 1;
    }
    UnixSignalWatcher signals({SIGINT, SIGTERM, SIGHUP});
    QObject::connect(&signals, &UnixSignalWatcher::received, &server, [&server](int signal) {
        if (signal == SIGHUP) {
            server.reloadTls();
            return;
        }
        logEvent("server.stopping",
                 {{"signal", signal == SIGINT ? QStringLiteral("SIGINT") : QStringLiteral("SIGTERM")}});
        server.stop();
    });
    QObject::connect(&server, &RelayServer::stopped, &app, [] {
        diag(QStringLiteral("server.stopped"));
        QCoreApplication::exit(0);
    });
    diag(QStringLiteral("listening port=") + QString::number(server.port()));
    if (settings.tls) {
        logEvent("tls.on", {{"expires", expiryText(*settings.tls)}});
        warnWhenExpiringSoon(*settings.tls);
    }
    return QCoreApplication::exec();
}
