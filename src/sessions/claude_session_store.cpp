#include "sessions/claude_session_store.h"

#include <QFileInfo>
#include <QRegularExpression>

namespace brinmoor::ClaudeSessionStore {

namespace {

constexpr qsizetype kMaxFolderName = 200;

// claude's hash of a path: 31 * h + c over its UTF-16 units in 32-bit two's
// complement, the magnitude written in base 36.
QString pathHash(const QString& path)
{
    quint32 hash = 0;
    for (const QChar c : path)
        hash = hash * 31u + c.unicode();
    const qint64 signedHash = qint32(hash);
    return QString::number(signedHash < 0 ? -signedHash : signedHash, 36);
}

} // namespace

QString configDirectory(const Environment& env, const QString& home)
{
    const QString configured = env.value(QStringLiteral("CLAUDE_CONFIG_DIR"));
    if (!configured.isEmpty())
        return configured;
    return home.isEmpty() ? QString() : home + QStringLiteral("/.claude");
}

QString projectFolderName(const QString& workingDir)
{
    QString name = workingDir;
    for (QChar& c : name) {
        const char16_t u = c.unicode();
        if (!((u >= u'a' && u <= u'z') || (u >= u'A' && u <= u'Z') || (u >= u'0' && u <= u'9')))
            c = QLatin1Char('-');
    }
    if (name.size() <= kMaxFolderName)
        return name;
    return name.left(kMaxFolderName) + QLatin1Char('-') + pathHash(workingDir);
}

bool hasSession(const QString& configDirectory, const QString& workingDir, const QString& sessionId)
{
    const auto exists = [&](const QString& folder) {
        return QFileInfo::exists(configDirectory + QStringLiteral("/projects/") + projectFolderName(folder) +
                                 QLatin1Char('/') + sessionId + QStringLiteral(".jsonl"));
    };
    if (exists(workingDir))
        return true;
    const QString canonical = QFileInfo(workingDir).canonicalFilePath();
    return !canonical.isEmpty() && canonical != workingDir && exists(canonical);
}

bool isSessionId(const QString& text)
{
    static const QRegularExpression canonical(
        QStringLiteral("^[0-9A-Fa-f]{8}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{12}$"));
    return canonical.match(text).hasMatch();
}

} // namespace brinmoor::ClaudeSessionStore
