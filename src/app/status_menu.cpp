#include "app/status_menu.h"

#include "app/agent_status_controller.h"

#include <QAbstractItemView>
#include <QAction>
#include <QDesktopServices>
#include <QFileDialog>
#include <QFontMetrics>
#include <QIcon>
#include <QKeySequence>
#include <QMenu>
#include <QMessageBox>
#include <QPainter>
#include <QPixmap>
#include <QUrl>

// The menu-bar image lives in this static library's resources, which the linker keeps
// only when something asks for them by name.
static void initAppResources()
{
    Q_INIT_RESOURCE(resources);
}

namespace brinmoor {

namespace {

// The app comes to the front with its panel, as a menu-bar app must for a dialog the
// user asked for; then the dialog runs modally.
bool runInFront(QFileDialog& dialog)
{
    dialog.show();
    dialog.raise();
    dialog.activateWindow();
    return dialog.exec() == QDialog::Accepted;
}

} // namespace

std::unique_ptr<QFileDialog> StatusMenu::projectFoldersDialog(const QString& start)
{
    auto dialog = std::make_unique<QFileDialog>(
        nullptr, QStringLiteral("Choose one or more project folders for the Mac-agent."), start);
    dialog->setFileMode(QFileDialog::Directory);
    // Our own dialog, so that several folders can be chosen at once and none created.
    dialog->setOptions(QFileDialog::ShowDirsOnly | QFileDialog::DontUseNativeDialog | QFileDialog::ReadOnly);
    dialog->setLabelText(QFileDialog::Accept, QStringLiteral("Add"));
    for (QAbstractItemView* view : dialog->findChildren<QAbstractItemView*>(QStringLiteral("listView")) +
                                       dialog->findChildren<QAbstractItemView*>(QStringLiteral("treeView")))
        view->setSelectionMode(QAbstractItemView::ExtendedSelection);
    return dialog;
}

std::unique_ptr<QFileDialog> StatusMenu::createProjectRootDialog(const QString& start)
{
    auto dialog = std::make_unique<QFileDialog>(
        nullptr, QStringLiteral("Choose the parent folder where new iOS projects will be created."), start);
    dialog->setFileMode(QFileDialog::Directory);
    // One folder; creating a new one here is offered.
    dialog->setOptions(QFileDialog::ShowDirsOnly | QFileDialog::DontUseNativeDialog);
    dialog->setLabelText(QFileDialog::Accept, QStringLiteral("Choose"));
    return dialog;
}

QIcon StatusMenu::statusItemIcon(const QString& imagePath)
{
    initAppResources();
    QPixmap image(imagePath);
    if (!image.isNull()) {
        QIcon icon(image.scaled(22, 22, Qt::KeepAspectRatio, Qt::SmoothTransformation));
        icon.setIsMask(true);
        return icon;
    }
    // No picture: the item shows the app's name instead of vanishing.
    const QString text = QStringLiteral("Wexlin");
    QFont font;
    font.setPixelSize(28);
    font.setBold(true);
    const QFontMetrics metrics(font);
    QPixmap drawn(metrics.horizontalAdvance(text) + 4, 44);
    drawn.fill(Qt::transparent);
    QPainter painter(&drawn);
    painter.setFont(font);
    painter.setPen(Qt::black);
    painter.drawText(drawn.rect(), Qt::AlignCenter, text);
    painter.end();
    QIcon icon(drawn);
    icon.setIsMask(true);
    return icon;
}

StatusMenu::StatusMenu(AgentStatusController& controller, QObject* parent)
    : QObject(parent), m_controller(controller), m_menu(new QMenu), m_projectsSubmenu(new QMenu)
{
    chooseProjectFolders = [this] {
        const std::unique_ptr<QFileDialog> dialog =
            projectFoldersDialog(m_controller.currentProjectURL().value_or(QString()));
        return runInFront(*dialog) ? dialog->selectedFiles() : QStringList();
    };
    chooseCreateProjectRoot = [this] {
        const std::unique_ptr<QFileDialog> dialog =
            createProjectRootDialog(m_controller.currentProjectURL().value_or(QString()));
        return runInFront(*dialog) ? dialog->selectedFiles().value(0) : QString();
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
        m_controller.quitAfterTask([this] {
            if (quit)
                quit();
        });
    });

    for (const auto signal :
         {&AgentStatusController::serverStatusChanged, &AgentStatusController::runtimeStatusChanged})
        connect(&m_controller, signal, this, &StatusMenu::refresh);
    connect(&m_controller, &AgentStatusController::foldersChanged, this, &StatusMenu::refresh);
    connect(&m_controller, &AgentStatusController::networkChanged, this, &StatusMenu::refresh);
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
