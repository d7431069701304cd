#include "support/test_support.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <sys/stat.h>

namespace brinmoor::test {

QString binDir()
{
    return QStringLiteral(BRINMOOR_BIN_DIR);
}

QString writeFile(const QString& path, const QByteArray& content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(content);
    return path;
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

QString makeProject(const QString& path, bool xcode)
{
    QDir().mkpath(path);
    if (xcode)
        QDir().mkpath(path + QStringLiteral("/App.xcodeproj"));
    else
        writeFile(path + QStringLiteral("/Package.swift"), "// swift-tools-version:5.9\n");
    return path;
}

int fileMode(const QString& path)
{
    struct stat info {};
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return -1;
    return static_cast<int>(info.st_mode & 07777);
}

} // namespace brinmoor::test

namespace brinmoor::test {

QString fakeToolsDir()
{
    return QStringLiteral(BRINMOOR_FAKE_TOOLS_DIR);
}

QStringList fakeToolArguments(const QString& fakeDir, const QString& tool, int call)
{
    const QByteArray raw = readFile(QStringLiteral("%1/%2.%3.args").arg(fakeDir, tool).arg(call));
    QStringList arguments;
    for (const QByteArray& piece : raw.split('\0'))
        arguments.append(QString::fromUtf8(piece));
    if (!arguments.isEmpty() && arguments.last().isEmpty())
        arguments.removeLast(); // after the last terminator
    return arguments;
}

} // namespace brinmoor::test
