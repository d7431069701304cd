#include "app/headless.h"

#include "app/agent_status_controller.h"
#include "app/sleep_watcher.h"
#include "base/diag.h"
#include "base/unix_signal_watcher.h"
#include "config/settings_store.h"

#include <QCoreApplication>

#include <csignal>
#include <cstdio>

namespace brinmoor {

int runHeadless()
{
    const std::unique_ptr<QSettingsStore> defaults = QSettingsStore::standard();
    AgentStatusController controller(*defaults, currentEnvironment(), Machine::current());
    QObject::connect(&controller, &AgentStatusController::serverStatusChanged, &controller,
                     [&controller] { diag(QStringLiteral("status ") + controller.statusTitle()); });
    QObject::connect(&controller, &AgentStatusController::runtimeStatusChanged, &controller,
                     [&controller] { diag(QStringLiteral("status ") + controller.detailsTitle()); });

    SleepWatcher sleep;
    sleep.follow(controller);

    UnixSignalWatcher signals({SIGINT, SIGTERM});
    QObject::connect(&signals, &UnixSignalWatcher::received, &controller, &AgentStatusController::shutdown);

    controller.startServerAndAgent();
    // The pairing details, once: what the phone needs, as text and as a QR code; then the
    // link to Brinmoor Web and its code, for the phone's browser.
    QString details = controller.pairingTooltip() + QLatin1Char('\n');
    if (const std::optional<PairingPayload> payload = controller.currentPairingPayload())
        details += Pairing::terminalQRCode(Pairing::qrModules(payload->encoded()));
    else
        details += QStringLiteral("QR unavailable\n");
    const QString web = controller.webClientURL();
    details +=
        QStringLiteral("Web: ") + web + QLatin1Char('\n') + Pairing::terminalQRCode(Pairing::qrModules(web.toUtf8()));
    const QByteArray bytes = details.toUtf8();
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
    std::fflush(stdout);

    const int status = QCoreApplication::exec();
    diag(QStringLiteral("shutdown complete"));
    return status;
}

} // namespace brinmoor
