#include "app/tray.h"

#include "app/agent_status_controller.h"
#include "app/headless.h"
#include "app/pairing_panel.h"
#include "app/sleep_watcher.h"
#include "app/status_menu.h"
#include "base/diag.h"
#include "base/unix_signal_watcher.h"
#include "config/settings_store.h"

#include <QApplication>
#include <QGuiApplication>
#include <QIcon>
#include <QPointer>
#include <QSystemTrayIcon>

#include <csignal>

namespace brinmoor::Tray {

namespace {

bool hasDisplay()
{
    return !qEnvironmentVariableIsEmpty("DISPLAY") || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") ||
           qEnvironmentVariable("QT_QPA_PLATFORM") == QLatin1String("offscreen");
}

} // namespace

int run(int argc, char** argv)
{
    if (!hasDisplay()) {
        QCoreApplication app(argc, argv);
        diag(QStringLiteral("tray unavailable reason=no display, running headless"));
        return runHeadless();
    }
    QApplication app(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    if (!QSystemTrayIcon::isSystemTrayAvailable()) {
        diag(QStringLiteral("tray unavailable reason=the desktop has no system tray, running headless"));
        return runHeadless();
    }

    const std::unique_ptr<QSettingsStore> defaults = QSettingsStore::standard();
    AgentStatusController controller(*defaults, currentEnvironment(), Machine::current());
    StatusMenu menu(controller);
    PairingPanelHost panels;
    menu.showPairingCode = [&] {
        menu.refresh();
        panels.show(controller.currentPairingPayload(), controller.pairingTooltip(), controller.webClientURL());
    };
    menu.quit = [] { QCoreApplication::quit(); };

    QSystemTrayIcon icon(StatusMenu::statusItemIcon(QStringLiteral(":/wexlin-menubar-44.png")));
    icon.setToolTip(QStringLiteral("Wexlin"));
    icon.setContextMenu(menu.menu());
    icon.show();

    SleepWatcher sleep;
    sleep.follow(controller);

    UnixSignalWatcher signals({SIGINT, SIGTERM});
    QObject::connect(&signals, &UnixSignalWatcher::received, &controller, &AgentStatusController::shutdown);

    controller.startServerAndAgent();
    menu.refresh();
    return QApplication::exec();
}

} // namespace brinmoor::Tray
