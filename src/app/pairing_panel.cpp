#include "app/pairing_panel.h"

#include <QFont>
#include <QFontDatabase>
#include <QLabel>
#include <QPainter>
#include <QPlainTextEdit>

namespace brinmoor {

namespace {

constexpr int kPanelHeight = 520;

// Frames are given from the bottom-left corner, as the panel's design states them.
QRect frame(int x, int y, int width, int height)
{
    return QRect(x, kPanelHeight - y - height, width, height);
}

} // namespace

QImage qrImage(const PairingPayload& payload)
{
    return qrImage(payload.encoded());
}

QImage qrImage(const QByteArray& data)
{
    const std::vector<std::vector<bool>> modules = Pairing::qrModules(data);
    if (modules.empty())
        return QImage();
    constexpr int kQuiet = 1;
    constexpr int kScale = 10;
    const int size = int(modules.size()) + 2 * kQuiet;
    QImage image(size * kScale, size * kScale, QImage::Format_RGB32);
    image.fill(Qt::white);
    QPainter painter(&image);
    for (int y = 0; y < int(modules.size()); ++y) {
        for (int x = 0; x < int(modules.size()); ++x) {
            if (modules[size_t(y)][size_t(x)])
                painter.fillRect((x + kQuiet) * kScale, (y + kQuiet) * kScale, kScale, kScale, Qt::black);
        }
    }
    painter.end();
    return image.scaled(200, 200, Qt::IgnoreAspectRatio, Qt::FastTransformation);
}

PairingPanel::PairingPanel(const std::optional<PairingPayload>& payload, const QString& tooltip, const QString& webURL,
                           QWidget* parent)
    : QWidget(parent, Qt::Window)
{
    setWindowTitle(QStringLiteral("Wexlin Pairing"));
    setFixedSize(660, kPanelHeight);
    setAttribute(Qt::WA_DeleteOnClose);

    m_heading = new QLabel(QStringLiteral("Pair Wexlin"), this);
    QFont headingFont = font();
    headingFont.setPointSize(22);
    headingFont.setWeight(QFont::DemiBold);
    m_heading->setFont(headingFont);
    m_heading->setGeometry(frame(24, 470, 360, 28));

    m_instructions = new QLabel(
        payload ? QStringLiteral("Open Wexlin on iPhone, choose Scan QR Code, and point the camera at this code.")
                : QStringLiteral(
                      "LAN IP was not detected. Use the connection details below and enter them manually on iPhone."),
        this);
    m_instructions->setWordWrap(true);
    m_instructions->setForegroundRole(QPalette::PlaceholderText);
    m_instructions->setGeometry(frame(24, 420, 372, 42));

    const QImage image = payload ? qrImage(*payload) : QImage();
    if (!image.isNull()) {
        m_code = new QLabel(this);
        m_code->setPixmap(QPixmap::fromImage(image));
        m_code->setGeometry(frame(110, 180, 200, 200));
    } else {
        m_fallback = new QLabel(QStringLiteral("QR unavailable"), this);
        QFont fallbackFont = font();
        fallbackFont.setPointSize(24);
        fallbackFont.setWeight(QFont::Medium);
        m_fallback->setFont(fallbackFont);
        m_fallback->setAlignment(Qt::AlignCenter);
        m_fallback->setGeometry(frame(110, 255, 200, 30));
    }

    auto* details = new QPlainTextEdit(tooltip, this);
    details->setReadOnly(true);
    details->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    QFont mono = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    mono.setPointSize(12);
    details->setFont(mono);
    details->setGeometry(frame(24, 24, 372, 140));
    m_details = details;

    // Beside the Wexlin code: the link to Brinmoor Web, which any phone's camera opens.
    m_webHeading = new QLabel(QStringLiteral("Brinmoor Web"), this);
    QFont webFont = font();
    webFont.setPointSize(15);
    webFont.setWeight(QFont::DemiBold);
    m_webHeading->setFont(webFont);
    m_webHeading->setAlignment(Qt::AlignCenter);
    m_webHeading->setGeometry(frame(436, 388, 200, 24));
    const QImage webImage = qrImage(webURL.toUtf8());
    if (!webImage.isNull()) {
        m_webCode = new QLabel(this);
        m_webCode->setPixmap(QPixmap::fromImage(webImage));
        m_webCode->setGeometry(frame(436, 180, 200, 200));
    }
    m_webCaption =
        new QLabel(QStringLiteral("Or scan this with any phone's camera to use Brinmoor in its browser."), this);
    m_webCaption->setWordWrap(true);
    m_webCaption->setAlignment(Qt::AlignHCenter | Qt::AlignTop);
    m_webCaption->setForegroundRole(QPalette::PlaceholderText);
    m_webCaption->setGeometry(frame(436, 124, 200, 48));
}

PairingPanelHost::~PairingPanelHost()
{
    delete m_panel.data();
}

PairingPanel* PairingPanelHost::show(const std::optional<PairingPayload>& payload, const QString& tooltip,
                                     const QString& webURL)
{
    if (m_panel)
        m_panel->close(); // deletes itself
    m_panel = new PairingPanel(payload, tooltip, webURL);
    m_panel->show();
    m_panel->raise();
    m_panel->activateWindow();
    return m_panel;
}

} // namespace brinmoor
