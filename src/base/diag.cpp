#include "base/diag.h"

#include <QDateTime>
#include <QMutex>
#include <QMutexLocker>

#include <cstdio>
#include <vector>

namespace brinmoor {

namespace {

QMutex& diagMutex()
{
    static QMutex mutex;
    return mutex;
}

std::vector<DiagRecorder*>& recorders()
{
    static std::vector<DiagRecorder*> list;
    return list;
}

} // namespace

QString diagLine(const QString& text)
{
    return QStringLiteral("[BrinmoorMacAgent][") + QDateTime::currentDateTimeUtc().toString(Qt::ISODate) +
           QStringLiteral("] ") + text;
}

void diag(const QString& text)
{
    const QByteArray line = diagLine(text).toUtf8() + '\n';
    QMutexLocker locker(&diagMutex());
    std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stdout);
    std::fflush(stdout);
    for (DiagRecorder* recorder : recorders())
        recorder->record(text);
}

DiagRecorder::DiagRecorder()
{
    QMutexLocker locker(&diagMutex());
    recorders().push_back(this);
}

DiagRecorder::~DiagRecorder()
{
    QMutexLocker locker(&diagMutex());
    std::erase(recorders(), this);
}

QStringList DiagRecorder::texts() const
{
    QMutexLocker locker(&diagMutex());
    return m_texts;
}

void DiagRecorder::record(const QString& text)
{
    m_texts.append(text);
}

} // namespace brinmoor
