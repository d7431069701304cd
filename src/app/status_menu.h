#pragma once

#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QUrl>

#include <functional>
#include <memory>

class QAction;
class QFileDialog;
class QIcon;
class QMenu;
class QWidget;

namespace brinmoor {

class AgentStatusController;

// The status menu of the tray icon, built from the controller and kept up to date with
// it: titles, order, separators, enabled states and the "Open at Login" check mark.
class StatusMenu : public QObject {
    Q_OBJECT

public:
    explicit StatusMenu(AgentStatusController& controller, QObject* parent = nullptr);
    ~StatusMenu() override;

    QMenu* menu() const { return m_menu; }
    // Re-reads every changing title from the controller.
    void refresh();

    // One line per entry: "---" for a separator, else the title, then " [disabled]",
    // " [checked]" and " (tooltip)" where they apply; submenu entries indented.
    static QStringList describe(const QMenu& menu);

    // The status item's picture: the menu-bar image as a template (tinted for light and
    // dark bars), or, when it cannot be loaded, the word "Wexlin" drawn as the picture.
    static QIcon statusItemIcon(const QString& imagePath);

    // The folder choosers as "Add Project Folders..." and "Set New Project Folder..."
    // open them, starting in `start`.
    static std::unique_ptr<QFileDialog> projectFoldersDialog(const QString& start);
    static std::unique_ptr<QFileDialog> createProjectRootDialog(const QString& start);

    // What the folder actions ask (a test may answer instead of the dialogs).
    std::function<QStringList()> chooseProjectFolders;
    std::function<QString()> chooseCreateProjectRoot;
    std::function<void(const QString& message, const QString& detail)> showAlert;
    std::function<void()> showPairingCode;
    // Opens a link in the desktop's browser (QDesktopServices unless a test says otherwise).
    std::function<bool(const QUrl&)> openURL;
    std::function<void()> quit;

private:
    QAction* addItem(const QString& title);
    void rebuildProjectsSubmenu();

    AgentStatusController& m_controller;
    QMenu* m_menu = nullptr;
    QMenu* m_projectsSubmenu = nullptr;
    QAction* m_status = nullptr;
    QAction* m_details = nullptr;
    QAction* m_network = nullptr;
    QAction* m_projects = nullptr;
    QAction* m_projectsList = nullptr;
    QAction* m_createProjectRoot = nullptr;
    QAction* m_clearProjects = nullptr;
    QAction* m_clearCreateProjectRoot = nullptr;
    QAction* m_launchAtLogin = nullptr;
};

} // namespace brinmoor
