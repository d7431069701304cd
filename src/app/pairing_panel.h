#pragma once

#include "app/pairing.h"

#include <QImage>
#include <QPointer>
#include <QWidget>

#include <optional>

class QLabel;

namespace brinmoor {

// The QR code of some bytes: level M, a one-module quiet zone, each module 10 by 10
// pixels (no smoothing), fitted into 200 by 200. A null image when it cannot be made.
QImage qrImage(const QByteArray& data);
QImage qrImage(const PairingPayload& payload);

// "Wexlin Pairing": the QR code to scan, or the details to type in by hand; beside it the
// code of Brinmoor Web's link, for a phone's browser.
class PairingPanel : public QWidget {
    Q_OBJECT

public:
    PairingPanel(const std::optional<PairingPayload>& payload, const QString& tooltip, const QString& webURL,
                 QWidget* parent = nullptr);

    QLabel* heading() const { return m_heading; }
    QLabel* instructions() const { return m_instructions; }
    QLabel* code() const { return m_code; }         // the QR image, or null
    QLabel* fallback() const { return m_fallback; } // "QR unavailable", or null
    QWidget* details() const { return m_details; }
    QLabel* webHeading() const { return m_webHeading; }
    QLabel* webCode() const { return m_webCode; } // the link's QR image, or null
    QLabel* webCaption() const { return m_webCaption; }

private:
    QLabel* m_heading = nullptr;
    QLabel* m_instructions = nullptr;
    QLabel* m_code = nullptr;
    QLabel* m_fallback = nullptr;
    QWidget* m_details = nullptr;
    QLabel* m_webHeading = nullptr;
    QLabel* m_webCode = nullptr;
    QLabel* m_webCaption = nullptr;
};

// Keeps at most one pairing panel open: showing a new one closes the old one.
class PairingPanelHost {
public:
    ~PairingPanelHost();
    PairingPanel* show(const std::optional<PairingPayload>& payload, const QString& tooltip, const QString& webURL);
    PairingPanel* current() const { return m_panel; }

private:
    QPointer<PairingPanel> m_panel;
};

} // namespace brinmoor
