#include "app/status_menu.h"

#include "app/agent_status_controller.h"

#include <QAction>
#include <QDesktopServices>
#include <QFileDialog>
#include <QKeySequence>
#include <QMenu>
#include <QMessageBox>
#include <QUrl>

namespace brinmoor {

StatusMenu::StatusMenu(AgentStatusController& controller, QObject* parent)
    : QObject(parent), m_controller(controller), m_menu(new QMenu), m_projectsSubmenu(new QMenu)
{
    chooseProjectFolders = [this] {
        QFileDialog dialog(nullptr, QStringLiteral("Choose one or more project folders for the Mac-agent."),
                           m_controller.currentProjectURL().value_or(QString()));
        dialog.setFileMode(QFileDialog::Directory);
        dialog.setOption(QFileDialog::ShowDirsOnly);
        dialog.setLabelText(QFileDialog::Accept, QStringLiteral("Add"));
        return dialog.exec() == QDialog::Accepted ? dialog.selectedFiles() : QStringList();
    };
    chooseCreateProjectRoot = [this] {
        return QFileDialog::getExistingDirectory(
            nullptr, QStringLiteral("Choose the parent folder where new iOS projects will be created."),
            m_controller.currentProjectURL().value_or(QString()));
    };
    openURL = [](const QUrl& url) { return QDesktopServices::openUrl(url); };
    showAlert = [](const QString& message, const QString& detail) {
        QMessageBox box(QMessageBox::Warning, message, message);
        box.setInformativeText(detail);
        box.exec();
    };

    // Informational items have no action and show as such.
    m_status = addItem(QStringLiteral("Server: Starting"));
    m_details = addItem(QStringLiteral("Agent: Starting"));
    m_network = addItem(QStringLiteral("LAN: Preparing…"));
    m_projects = addItem(QStringLiteral("Projects: Not set"));
    for (QAction* informational : {m_status, m_details, m_network, m_projects})
        informational->setEnabled(false);
    m_projectsList = addItem(QStringLiteral("Configured Projects"));
    m_projectsList->setMenu(m_projectsSubmenu);
    m_createProjectRoot = addItem(QStringLiteral("New Project Folder: Not set"));
    m_createProjectRoot->setEnabled(false);
    m_menu->addSeparator();
    connect(addItem(QStringLiteral("Add Project Folders...")), &QAction::triggered, this, [this] {
        const QStringList chosen = chooseProjectFolders();
        if (!chosen.isEmpty())
            m_controller.addProjectFolders(chosen);
    });
    connect(addItem(QStringLiteral("Set New Project Folder...")), &QAction::triggered, this, [this] {
        const QString chosen = chooseCreateProjectRoot();
        if (!chosen.isEmpty())
            m_controller.setCreateProjectRoot(chosen);
    });
    m_clearProjects = addItem(QStringLiteral("Clear All Projects"));
    connect(m_clearProjects, &QAction::triggered, &m_controller, &AgentStatusController::clearProjectFolderOverride);
    m_clearCreateProjectRoot = addItem(QStringLiteral("Clear New Project Folder"));
    connect(m_clearCreateProjectRoot, &QAction::triggered, &m_controller,
            &AgentStatusController::clearCreateProjectRoot);
    m_menu->addSeparator();
    connect(addItem(QStringLiteral("Show Pairing Code…")), &QAction::triggered, this, [this] {
        if (showPairingCode)
            showPairingCode();
    });
    connect(addItem(QStringLiteral("Open Web Client")), &QAction::triggered, this,
            [this] { openURL(QUrl(m_controller.loopbackWebClientURL())); });
    connect(addItem(QStringLiteral("Refresh Connection")), &QAction::triggered, &m_controller,
            &AgentStatusController::refreshConnection);
    m_launchAtLogin = addItem(QStringLiteral("Open at Login"));
    m_launchAtLogin->setCheckable(true);
    connect(m_launchAtLogin, &QAction::triggered, this, [this] {
        if (const std::optional<QString> error = m_controller.toggleLaunchAtLogin())
            showAlert(QStringLiteral("Open at Login Failed"), *error);
        refresh();
    });
    m_menu->addSeparator();
    connect(addItem(QStringLiteral("Start")), &QAction::triggered, &m_controller, &AgentStatusController::startAgent);
    connect(addItem(QStringLiteral("Stop")), &QAction::triggered, &m_controller, &AgentStatusController::stopAgent);
    m_menu->addSeparator();
    QAction* quitItem = addItem(QStringLiteral("Quit"));
    quitItem->setShortcut(QKeySequence(QStringLiteral("Ctrl+Q")));
    connect(quitItem, &QAction::triggered, this, [this] {
        m_controller.quit();
        if (quit)
            quit();
    });

    for (const auto signal :
         {&AgentStatusController::serverStatusChanged, &AgentStatusController::runtimeStatusChanged})
        connect(&m_controller, signal, this, &StatusMenu::refresh);
    connect(&m_controller, &AgentStatusController::foldersChanged, this, &StatusMenu::refresh);
    refresh();
}

StatusMenu::~StatusMenu()
{
    delete m_menu;
    delete m_projectsSubmenu;
}

QAction* StatusMenu::addItem(const QString& title)
{
    return m_menu->addAction(title);
}

void StatusMenu::refresh()
{
    m_status->setText(m_controller.statusTitle());
    m_details->setText(m_controller.detailsTitle());
    m_network->setText(m_controller.networkTitle());
    m_network->setToolTip(m_controller.pairingTooltip());
    m_projects->setText(m_controller.projectMenuTitle());
    m_projects->setToolTip(m_controller.projectMenuTooltip());
    m_clearProjects->setEnabled(m_controller.canClearProjects());
    m_createProjectRoot->setText(m_controller.createProjectRootTitle());
    m_createProjectRoot->setToolTip(m_controller.createProjectRootTooltip());
    m_clearCreateProjectRoot->setEnabled(m_controller.canClearCreateProjectRoot());
    m_launchAtLogin->setChecked(m_controller.launchAtLogin());
    rebuildProjectsSubmenu();
}

void StatusMenu::rebuildProjectsSubmenu()
{
    m_projectsSubmenu->clear();
    const QList<AgentStatusController::ProjectEntry> entries = m_controller.projectEntries();
    if (entries.isEmpty()) {
        m_projectsSubmenu->addAction(QStringLiteral("No projects configured"))->setEnabled(false);
        return;
    }
    for (const AgentStatusController::ProjectEntry& entry : entries) {
        QAction* item = m_projectsSubmenu->addAction(entry.title);
        item->setToolTip(entry.path);
        item->setData(entry.path);
        // Choosing a project removes it at once.
        const QString path = entry.path;
        connect(item, &QAction::triggered, &m_controller, [this, path] { m_controller.removeProjectFolder(path); });
    }
}

QStringList StatusMenu::describe(const QMenu& menu)
{
    QStringList lines;
    const QList<QAction*> actions = menu.actions();
    for (const QAction* action : actions) {
        if (action->isSeparator()) {
            lines.append(QStringLiteral("---"));
            continue;
        }
        QString line = action->text();
        if (!action->isEnabled())
            line += QStringLiteral(" [disabled]");
        if (action->isCheckable() && action->isChecked())
            line += QStringLiteral(" [checked]");
        // Qt makes a tool tip out of the title (ellipsis dropped) when none was set.
        QString implicitTip = action->text();
        for (const QString& ellipsis : {QStringLiteral("..."), QStringLiteral("…")}) {
            if (implicitTip.endsWith(ellipsis))
                implicitTip.chop(ellipsis.size());
        }
        if (!action->toolTip().isEmpty() && action->toolTip() != action->text() && action->toolTip() != implicitTip)
            line += QStringLiteral(" (") + action->toolTip() + QLatin1Char(')');
        lines.append(line);
        if (action->menu()) {
            for (const QString& inner : describe(*action->menu()))
                lines.append(QStringLiteral("  ") + inner);
        }
    }
    return lines;
}

} // namespace brinmoor
