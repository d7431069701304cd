// brinmoor-server: the relay between the agent and the phone.
#include "relay_log.h"
#include "server_config.h"

#include <QCoreApplication>

#include <cstdio>

using namespace brinmoor::relay;

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const auto config = configFromEnvironment(QProcessEnvironment::systemEnvironment());
    if (const QString* problem = std::get_if<QString>(&config)) {
        std::fprintf(stderr, "%s\n", qPrintable(*problem));
        return 2;
    }
    const RelayConfig& settings = std::get<RelayConfig>(config);
    RelayServer server(settings);
    QString error;
    if (!server.listen(&error)) {
        std::fprintf(stderr, "brinmoor-server: cannot listen on %s:%u: %s\n",
                     qPrintable(settings.bindAddress.toString()), unsigned(settings.port), qPrintable(error));
        return 1;
    }
    diag(QStringLiteral("listening port=") + QString::number(server.port()));
    return QCoreApplication::exec();
}
