// Renders the tray menu and the pairing panel to PNG files for the documentation:
//   brinmoor_screenshots OUTPUT_FOLDER
// Sample settings, no network: what a user sees, without their own data.
#include "app/agent_status_controller.h"
#include "app/pairing_panel.h"
#include "app/status_menu.h"
#include "config/settings_store.h"

#include <QApplication>
#include <QMenu>
#include <QTemporaryDir>

using namespace brinmoor;

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    if (argc < 2)
        return 64;
    const QString out = QString::fromLocal8Bit(argv[1]);
    QTemporaryDir dir;
    MemorySettingsStore settings;
    settings.setValue(QStringLiteral("token"), QStringLiteral("4f1c9a2e7b3d4c5a8e6f0a1b2c3d4e5f"));
    settings.setValue(QStringLiteral("agentId"), QStringLiteral("studio-mac-mini"));
    settings.setValue(QStringLiteral("serverPort"), 8080);
    Machine machine;
    machine.currentDirectory = dir.path();
    machine.homeDirectory = dir.path();
    machine.hostName = QStringLiteral("Studio Mac Mini");
    AgentStatusController controller(settings, {{QStringLiteral("XDG_CONFIG_HOME"), dir.path()}}, machine);
    controller.lanAddress = [] { return std::optional<QString>(QStringLiteral("192.168.1.20")); };
    StatusMenu menu(controller);
    menu.refresh();
    menu.menu()->adjustSize();
    menu.menu()->ensurePolished();
    if (!menu.menu()->grab().save(out + QStringLiteral("/menu.png")))
        return 1;
    PairingPanel panel(controller.currentPairingPayload(), controller.pairingTooltip(), controller.webClientURL());
    panel.ensurePolished();
    if (!panel.grab().save(out + QStringLiteral("/pairing-panel.png")))
        return 1;
    return 0;
}
