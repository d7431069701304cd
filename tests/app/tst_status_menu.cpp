// The tray's menu and pairing panel, built with widgets on the offscreen platform.
#include "app/agent_status_controller.h"
#include "app/pairing_panel.h"
#include "app/status_menu.h"
#include "config/settings_store.h"
#include "support/loopback_server.h"
#include "support/test_support.h"

#include <QAbstractItemView>
#include <QApplication>
#include <QFileDialog>
#include <QIcon>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QMenu>
#include <QPlainTextEdit>
#include <QProcess>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

using namespace brinmoor;
using namespace brinmoor::test;

class TstStatusMenu : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;

    struct Setup {
        MemorySettingsStore settings;
        std::unique_ptr<AgentStatusController> controller;
    };

    std::unique_ptr<Setup> make(const std::optional<QString>& lan)
    {
        auto setup = std::make_unique<Setup>();
        setup->settings.setValue(QStringLiteral("token"), QStringLiteral("tok"));
        setup->settings.setValue(QStringLiteral("agentId"), QStringLiteral("mini"));
        setup->settings.setValue(QStringLiteral("serverPort"), 8080);
        Machine machine;
        machine.currentDirectory = m_dir.path();
        machine.homeDirectory = m_dir.path();
        machine.hostName = QStringLiteral("Mini");
        const Environment env{{QStringLiteral("XDG_CONFIG_HOME"), m_dir.path() + QStringLiteral("/config")}};
        setup->controller = std::make_unique<AgentStatusController>(setup->settings, env, machine);
        setup->controller->lanAddress = [lan] { return lan; };
        return setup;
    }

private Q_SLOTS:
    void menuTitlesInOrder()
    {
        const auto setup = make(std::nullopt);
        StatusMenu menu(*setup->controller);
        const QString tooltip = QStringLiteral("Server URL: http://127.0.0.1:8080\nAgent ID: mini\nToken: tok");
        QCOMPARE(StatusMenu::describe(*menu.menu()),
                 (QStringList{QStringLiteral("Server: Starting [disabled]"),
                              QStringLiteral("Agent: Starting [disabled]"),
                              QStringLiteral("LAN: Unavailable [disabled] (") + tooltip + QLatin1Char(')'),
                              QStringLiteral("Projects: Not set [disabled]"),
                              QStringLiteral("Configured Projects"),
                              QStringLiteral("  No projects configured [disabled]"),
                              QStringLiteral("New Project Folder: Not set [disabled]"),
                              QStringLiteral("---"),
                              QStringLiteral("Add Project Folders..."),
                              QStringLiteral("Set New Project Folder..."),
                              QStringLiteral("Clear All Projects [disabled]"),
                              QStringLiteral("Clear New Project Folder [disabled]"),
                              QStringLiteral("---"),
                              QStringLiteral("Show Pairing Code…"),
                              QStringLiteral("Open Web Client"),
                              QStringLiteral("Refresh Connection"),
                              QStringLiteral("Open at Login"),
                              QStringLiteral("---"),
                              QStringLiteral("Start"),
                              QStringLiteral("Stop"),
                              QStringLiteral("---"),
                              QStringLiteral("Quit")}));
    }

    void folderActionsAndTheCheckMark()
    {
        const auto setup = make(QStringLiteral("10.1.2.3"));
        StatusMenu menu(*setup->controller);
        const QString project = test::makeProject(m_dir.path() + QStringLiteral("/p/Alpha"));
        menu.chooseProjectFolders = [] { return QStringList(); }; // cancelled
        const auto trigger = [&](const QString& title) {
            for (QAction* action : menu.menu()->actions()) {
                if (action->text() == title)
                    action->trigger();
            }
        };
        trigger(QStringLiteral("Add Project Folders..."));
        QCOMPARE(setup->controller->configuredProjects(), QStringList());
        menu.chooseProjectFolders = [&] { return QStringList{project}; };
        trigger(QStringLiteral("Add Project Folders..."));
        QStringList lines = StatusMenu::describe(*menu.menu());
        QCOMPARE(
            lines.at(2),
            QStringLiteral(
                "LAN: http://10.1.2.3:8080 \u2022 mini [disabled] (Server URL: http://10.1.2.3:8080\nAgent ID: mini\nToken: tok)"));
        QCOMPARE(lines.at(3), QStringLiteral("Projects: 1 [disabled] (") + project + QLatin1Char(')'));
        QCOMPARE(lines.at(5), QStringLiteral("  Alpha (") + project + QLatin1Char(')'));
        QVERIFY(lines.contains(QStringLiteral("Clear All Projects")));
        // Choosing the project in the submenu removes it.
        menu.menu()->actions().at(4)->menu()->actions().first()->trigger();
        QCOMPARE(setup->controller->configuredProjects(), QStringList());

        // The desktop's browser gets the loopback link with the token, even with a LAN address.
        QList<QUrl> opened;
        menu.openURL = [&](const QUrl& url) {
            opened.append(url);
            return true;
        };
        trigger(QStringLiteral("Open Web Client"));
        QCOMPARE(opened, (QList<QUrl>{QUrl(QStringLiteral("http://127.0.0.1:8080/#token=tok"))}));

        trigger(QStringLiteral("Open at Login"));
        QVERIFY(StatusMenu::describe(*menu.menu()).contains(QStringLiteral("Open at Login [checked]")));
        QVERIFY(QFile::exists(m_dir.path() + QStringLiteral("/config/autostart/brinmoor-agent.desktop")));
        trigger(QStringLiteral("Open at Login"));
        QVERIFY(StatusMenu::describe(*menu.menu()).contains(QStringLiteral("Open at Login")));
        QVERIFY(!QFile::exists(m_dir.path() + QStringLiteral("/config/autostart/brinmoor-agent.desktop")));
    }

    void projectFoldersDialogTakesSeveralFoldersAndCreatesNone()
    {
        const std::unique_ptr<QFileDialog> dialog = StatusMenu::projectFoldersDialog(m_dir.path());
        QCOMPARE(dialog->windowTitle(), QStringLiteral("Choose one or more project folders for the Mac-agent."));
        QCOMPARE(dialog->labelText(QFileDialog::Accept), QStringLiteral("Add"));
        QCOMPARE(dialog->fileMode(), QFileDialog::Directory);
        QVERIFY(dialog->testOption(QFileDialog::ShowDirsOnly));
        QVERIFY(dialog->testOption(QFileDialog::ReadOnly)); // no "create folder"
        QCOMPARE(dialog->directory().absolutePath(), QDir(m_dir.path()).absolutePath());
        const QList<QAbstractItemView*> views = dialog->findChildren<QAbstractItemView*>(QStringLiteral("listView")) +
                                                dialog->findChildren<QAbstractItemView*>(QStringLiteral("treeView"));
        QCOMPARE(views.size(), 2);
        for (QAbstractItemView* view : views)
            QCOMPARE(view->selectionMode(), QAbstractItemView::ExtendedSelection);
        QList<QWidget*> newFolder;
        for (QWidget* button : dialog->findChildren<QWidget*>(QStringLiteral("newFolderButton"))) {
            if (button->isEnabled())
                newFolder.append(button);
        }
        QVERIFY(newFolder.isEmpty());
    }

    void createProjectRootDialogTakesOneFolderAndMayCreateIt()
    {
        const std::unique_ptr<QFileDialog> dialog = StatusMenu::createProjectRootDialog(m_dir.path());
        QCOMPARE(dialog->windowTitle(),
                 QStringLiteral("Choose the parent folder where new iOS projects will be created."));
        QCOMPARE(dialog->labelText(QFileDialog::Accept), QStringLiteral("Choose"));
        QCOMPARE(dialog->fileMode(), QFileDialog::Directory);
        QVERIFY(!dialog->testOption(QFileDialog::ReadOnly));
        for (QAbstractItemView* view : dialog->findChildren<QAbstractItemView*>(QStringLiteral("listView")))
            QCOMPARE(view->selectionMode(), QAbstractItemView::SingleSelection);
    }

    void statusItemShowsTheNameWithoutAPicture()
    {
        const QIcon missing = StatusMenu::statusItemIcon(QStringLiteral(":/no-such-image.png"));
        QVERIFY(!missing.isNull());
        QVERIFY(missing.isMask());
        const QImage drawn = missing.pixmap(missing.availableSizes().value(0)).toImage();
        QVERIFY2(drawn.width() > 2 * drawn.height(), "the word, wider than tall");
        int inked = 0;
        for (int y = 0; y < drawn.height(); ++y) {
            for (int x = 0; x < drawn.width(); ++x)
                inked += qAlpha(drawn.pixel(x, y)) > 0;
        }
        QVERIFY(inked > 100);
        const QIcon picture = StatusMenu::statusItemIcon(QStringLiteral(":/wexlin-menubar-44.png"));
        QVERIFY(!picture.isNull());
        QVERIFY(picture.isMask());
        QCOMPARE(picture.availableSizes().value(0), QSize(22, 22));
    }

    void startingAgainShowsTheNewPortAtOnce()
    {
        const auto setup = make(QStringLiteral("10.1.2.3"));
        StatusMenu menu(*setup->controller);
        // The stored port is taken: the server moves to another, and the menu says so.
        QTcpServer holder;
        QVERIFY(holder.listen(QHostAddress::LocalHost, 0));
        setup->settings.setValue(QStringLiteral("serverPort"), int(holder.serverPort()));
        qputenv("BRINMOOR_SERVER_PATH", "/nonexistent/brinmoor-server");
        setup->controller->startServerAndAgent();
        qunsetenv("BRINMOOR_SERVER_PATH");
        const int port = int(setup->settings.integer(QStringLiteral("serverPort")).value_or(0));
        QVERIFY(port != holder.serverPort());
        const QString url = QStringLiteral("http://10.1.2.3:%1").arg(port);
        QCOMPARE(StatusMenu::describe(*menu.menu()).at(2), QStringLiteral("LAN: ") + url +
                                                               QStringLiteral(" \u2022 mini [disabled] (Server URL: ") +
                                                               url + QStringLiteral("\nAgent ID: mini\nToken: tok)"));
        setup->controller->quit();
    }

    void pairingPanelWithAPayload()
    {
        const PairingPayload payload{QStringLiteral("Mini"), QStringLiteral("http://10.1.2.3:8080"),
                                     QStringLiteral("mini"), QStringLiteral("0123456789abcdef0123456789abcdef")};
        PairingPanel panel(payload, QStringLiteral("Server URL: x"), QStringLiteral("http://10.1.2.3:8080/#token=t"));
        QCOMPARE(panel.windowTitle(), QStringLiteral("Wexlin Pairing"));
        QCOMPARE(panel.size(), QSize(660, 520));
        QCOMPARE(panel.heading()->text(), QStringLiteral("Pair Wexlin"));
        QCOMPARE(panel.heading()->geometry(), QRect(24, 22, 360, 28));
        QCOMPARE(panel.instructions()->text(),
                 QStringLiteral("Open Wexlin on iPhone, choose Scan QR Code, and point the camera at this code."));
        QVERIFY(panel.code());
        QVERIFY(!panel.fallback());
        QCOMPARE(panel.code()->geometry(), QRect(110, 140, 200, 200));
        QCOMPARE(panel.details()->geometry(), QRect(24, 356, 372, 140));
        QCOMPARE(static_cast<QPlainTextEdit*>(panel.details())->toPlainText(), QStringLiteral("Server URL: x"));
        QCOMPARE(panel.webHeading()->text(), QStringLiteral("Brinmoor Web"));
        QCOMPARE(panel.webHeading()->geometry(), QRect(436, 108, 200, 24));
        QVERIFY(panel.webCode());
        QCOMPARE(panel.webCode()->geometry(), QRect(436, 140, 200, 200));
        QCOMPARE(panel.webCaption()->text(),
                 QStringLiteral("Or scan this with any phone's camera to use Brinmoor in its browser."));
        QCOMPARE(panel.webCaption()->geometry(), QRect(436, 348, 200, 48));
    }

    void webCodeDecodesToTheLink()
    {
        const QString zbarimg = QStandardPaths::findExecutable(QStringLiteral("zbarimg"));
        if (zbarimg.isEmpty())
            QSKIP("zbarimg is not installed (scripts/setup installs zbar-tools)");
        PairingPanel panel(std::nullopt, QString(), QStringLiteral("http://10.1.2.3:8080/#token=abc"));
        const QString file = m_dir.path() + QStringLiteral("/web.png");
        QVERIFY(panel.webCode()->pixmap().save(file));
        QProcess zbar;
        zbar.start(zbarimg, {QStringLiteral("--raw"), QStringLiteral("-q"), file});
        QVERIFY(zbar.waitForFinished(10000));
        QCOMPARE(zbar.readAllStandardOutput().trimmed(), QByteArray("http://10.1.2.3:8080/#token=abc"));
    }

    void qrImageDecodesToThePayload()
    {
        const QString zbarimg = QStandardPaths::findExecutable(QStringLiteral("zbarimg"));
        if (zbarimg.isEmpty())
            QSKIP("zbarimg is not installed (scripts/setup installs zbar-tools)");
        const PairingPayload payload{QStringLiteral("Mini"), QStringLiteral("http://10.1.2.3:8080"),
                                     QStringLiteral("mini"), QStringLiteral("0123456789abcdef0123456789abcdef")};
        const QImage image = qrImage(payload);
        QCOMPARE(image.size(), QSize(200, 200));
        const QString file = m_dir.path() + QStringLiteral("/qr.png");
        QVERIFY(image.save(file));
        QProcess zbar;
        zbar.start(zbarimg, {QStringLiteral("--raw"), QStringLiteral("-q"), file});
        QVERIFY(zbar.waitForFinished(10000));
        const QByteArray decoded = zbar.readAllStandardOutput().trimmed();
        QCOMPARE(decoded, payload.encoded());
        QCOMPARE(QJsonDocument::fromJson(decoded).object().keys(),
                 (QStringList{QStringLiteral("agentId"), QStringLiteral("name"), QStringLiteral("serverURL"),
                              QStringLiteral("token")}));
    }

    void pairingPanelWithoutAPayload()
    {
        PairingPanel panel(std::nullopt, QStringLiteral("Token: "), QStringLiteral("http://127.0.0.1:8080/#token="));
        QCOMPARE(panel.instructions()->text(),
                 QStringLiteral(
                     "LAN IP was not detected. Use the connection details below and enter them manually on iPhone."));
        QVERIFY(!panel.code());
        QVERIFY(panel.fallback());
        QCOMPARE(panel.fallback()->text(), QStringLiteral("QR unavailable"));
        QCOMPARE(panel.fallback()->geometry(), QRect(110, 235, 200, 30));
    }

    void openingThePairingCodeTwiceLeavesOnePanel()
    {
        PairingPanelHost host;
        host.show(std::nullopt, QStringLiteral("first"), QString());
        host.show(std::nullopt, QStringLiteral("second"), QString());
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        int open = 0;
        for (QWidget* widget : QApplication::topLevelWidgets()) {
            if (qobject_cast<PairingPanel*>(widget) && widget->isVisible())
                ++open;
        }
        QCOMPARE(open, 1);
        QCOMPARE(static_cast<QPlainTextEdit*>(host.current()->details())->toPlainText(), QStringLiteral("second"));
    }

    void emptyTokenShowsQrUnavailable()
    {
        const auto setup = make(QStringLiteral("10.1.2.3"));
        setup->settings.setValue(QStringLiteral("token"), QString());
        QCOMPARE(setup->controller->currentPairingPayload(), std::nullopt);
    }
};

QTEST_MAIN(TstStatusMenu)
#include "tst_status_menu.moc"
