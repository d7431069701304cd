#include "execution/task_output_store.h"

#include "base/diag.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QFutureWatcher>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>
#include <QtConcurrent/QtConcurrentRun>

#include <cstring>

namespace brinmoor {

namespace {

constexpr qsizetype kPendingBytes = 64 * 1024;
constexpr qint64 kReadBlockBytes = 1024 * 1024;
constexpr qint64 kSaveMilliseconds = 2000;

QJsonObject toJson(const KeptTask& task)
{
    QJsonObject object{{QStringLiteral("taskId"), task.taskId},           {QStringLiteral("kind"), task.kind},
                       {QStringLiteral("projectPath"), task.projectPath}, {QStringLiteral("status"), task.status},
                       {QStringLiteral("startedAt"), task.startedAt},     {QStringLiteral("lines"), task.lines},
                       {QStringLiteral("keptLines"), task.keptLines},     {QStringLiteral("bytes"), task.bytes}};
    if (!task.conversationId.isEmpty())
        object.insert(QStringLiteral("conversationId"), task.conversationId);
    if (task.exitCode)
        object.insert(QStringLiteral("exitCode"), *task.exitCode);
    if (task.endedAt > 0)
        object.insert(QStringLiteral("endedAt"), task.endedAt);
    if (task.timedOut)
        object.insert(QStringLiteral("timedOut"), true);
    return object;
}

KeptTask fromJson(const QJsonObject& object)
{
    KeptTask task;
    task.taskId = object.value(QStringLiteral("taskId")).toString();
    task.kind = object.value(QStringLiteral("kind")).toString();
    task.projectPath = object.value(QStringLiteral("projectPath")).toString();
    task.conversationId = object.value(QStringLiteral("conversationId")).toString();
    task.status = object.value(QStringLiteral("status")).toString();
    if (object.contains(QStringLiteral("exitCode")))
        task.exitCode = object.value(QStringLiteral("exitCode")).toInt();
    task.startedAt = qint64(object.value(QStringLiteral("startedAt")).toDouble());
    task.endedAt = qint64(object.value(QStringLiteral("endedAt")).toDouble());
    task.lines = qint64(object.value(QStringLiteral("lines")).toDouble());
    task.keptLines = qint64(object.value(QStringLiteral("keptLines")).toDouble());
    task.bytes = qint64(object.value(QStringLiteral("bytes")).toDouble());
    task.timedOut = object.value(QStringLiteral("timedOut")).toBool();
    return task;
}

// What a read asks for, taken to the thread pool.
struct ReadRequest {
    QString path;
    qint64 from = 1;
    qint64 count = 0;
    qint64 total = 0; // lines the file holds
    QString match;
    bool ended = false;
};

OutputPage readLines(const ReadRequest& request)
{
    OutputPage page;
    page.total = request.total;
    page.ended = request.ended;
    if (request.match.isEmpty())
        page.from = request.from;
    if (request.count <= 0)
        return page;
    QFile file(request.path);
    if (!file.open(QIODevice::ReadOnly))
        return page;
    QByteArray block;
    QByteArray carry; // a line cut by the end of a block
    qint64 number = 0;
    const auto take = [&](const char* data, qsizetype size) {
        ++number;
        if (number < request.from || number > request.total)
            return true;
        if (request.match.isEmpty()) {
            page.lines.append(QString::fromUtf8(data, size));
            return qint64(page.lines.size()) < request.count;
        }
        const QString line = QString::fromUtf8(data, size);
        if (line.contains(request.match, Qt::CaseInsensitive)) {
            page.lines.append(line);
            page.numbers.append(number);
        }
        return qint64(page.lines.size()) < request.count;
    };
    while (number < request.total) {
        block = file.read(kReadBlockBytes);
        if (block.isEmpty())
            break;
        const char* data = block.constData();
        qsizetype start = 0;
        bool more = true;
        while (more) {
            const void* found = std::memchr(data + start, '\n', size_t(block.size() - start));
            if (!found) {
                carry.append(data + start, block.size() - start);
                break;
            }
            const qsizetype end = static_cast<const char*>(found) - data;
            if (!carry.isEmpty()) {
                carry.append(data + start, end - start);
                more = take(carry.constData(), carry.size());
                carry.clear();
            } else if (number + 1 < request.from && request.match.isEmpty()) {
                ++number; // skipped without decoding
            } else {
                more = take(data + start, end - start);
            }
            start = end + 1;
        }
        if (!more)
            break;
    }
    return page;
}

// The whole lines a file holds, and the bytes they take.
QPair<qint64, qint64> countLines(const QString& path)
{
    QFile file(path);
    qint64 lines = 0;
    qint64 bytes = 0;
    qint64 read = 0;
    if (!file.open(QIODevice::ReadOnly))
        return {0, 0};
    while (true) {
        const QByteArray block = file.read(kReadBlockBytes);
        if (block.isEmpty())
            break;
        const char* data = block.constData();
        for (const char* at = data;
             (at = static_cast<const char*>(std::memchr(at, '\n', size_t(data + block.size() - at)))); ++at) {
            ++lines;
            bytes = read + (at - data) + 1;
        }
        read += block.size();
    }
    return {lines, bytes};
}

} // namespace

TaskOutputStore::TaskOutputStore(QString folder, qint64 maxTasks, qint64 maxBytes, QObject* parent)
    : QObject(parent), m_folder(std::move(folder)), m_maxTasks(maxTasks), m_maxBytes(maxBytes)
{
    if (!m_folder.isEmpty())
        load();
}

TaskOutputStore::~TaskOutputStore()
{
    flush();
    if (!m_running.isEmpty())
        save();
}

QString TaskOutputStore::standardFolder(const QString& stateFolder)
{
    return stateFolder + QStringLiteral("/task-output");
}

void TaskOutputStore::setBounds(qint64 maxTasks, qint64 maxBytes)
{
    m_maxTasks = std::max<qint64>(1, maxTasks);
    m_maxBytes = std::max<qint64>(0, maxBytes);
}

QString TaskOutputStore::filePath(const QString& taskId) const
{
    // Task ids come from the server: a name of their hash is a safe file name.
    const QByteArray hash = QCryptographicHash::hash(taskId.toUtf8(), QCryptographicHash::Sha256).toHex().left(32);
    return m_folder + QLatin1Char('/') + QString::fromLatin1(hash) + QStringLiteral(".log");
}

QString TaskOutputStore::listPath() const
{
    return m_folder + QStringLiteral("/tasks.json");
}

void TaskOutputStore::load()
{
    QFile file(listPath());
    if (!file.open(QIODevice::ReadOnly))
        return;
    const QJsonArray tasks = QJsonDocument::fromJson(file.readAll()).object().value(QStringLiteral("tasks")).toArray();
    bool changed = false;
    for (const QJsonValue& value : tasks) {
        KeptTask task = fromJson(value.toObject());
        if (task.taskId.isEmpty())
            continue;
        // A task that was running when the agent stopped ended with it.
        if (task.status == QLatin1String("running")) {
            task.status = QStringLiteral("lost");
            const QDateTime modified = QFileInfo(filePath(task.taskId)).lastModified();
            task.endedAt = modified.isValid() ? modified.toMSecsSinceEpoch() : task.startedAt;
            changed = true;
        }
        m_tasks.append(task);
    }
    if (changed)
        save();
    for (const KeptTask& task : std::as_const(m_tasks)) {
        if (task.status == QLatin1String("lost"))
            recount(task.taskId);
    }
}

void TaskOutputStore::recount(const QString& taskId)
{
    // The list may be behind what the file of a task that stopped with the agent holds.
    auto* watcher = new QFutureWatcher<QPair<qint64, qint64>>(this);
    connect(watcher, &QFutureWatcher<QPair<qint64, qint64>>::finished, this, [this, watcher, taskId] {
        const auto [lines, bytes] = watcher->result();
        watcher->deleteLater();
        for (KeptTask& task : m_tasks) {
            if (task.taskId == taskId && taskId != m_running) {
                task.keptLines = lines;
                task.lines = std::max(task.lines, lines);
                task.bytes = bytes;
                save();
            }
        }
    });
    watcher->setFuture(QtConcurrent::run(countLines, filePath(taskId)));
}

void TaskOutputStore::save()
{
    m_saved.start();
    QJsonArray tasks;
    for (const KeptTask& task : m_tasks)
        tasks.append(toJson(task));
    QSaveFile file(listPath());
    if (!file.open(QIODevice::WriteOnly)) {
        diag(QStringLiteral("taskOutput.save failed path=") + listPath() + QStringLiteral(" error=") +
             file.errorString());
        return;
    }
    file.write(QJsonDocument(QJsonObject{{QStringLiteral("tasks"), tasks}}).toJson(QJsonDocument::Compact));
    file.commit();
}

qint64 TaskOutputStore::keptBytes() const
{
    qint64 bytes = 0;
    for (const KeptTask& task : m_tasks)
        bytes += task.bytes;
    return bytes;
}

void TaskOutputStore::prune()
{
    // Room for the task that begins: at most `m_maxTasks` with it, and its output its
    // own share of the bytes once the older ones went.
    while (!m_tasks.isEmpty() && (qint64(m_tasks.size()) >= m_maxTasks || keptBytes() >= m_maxBytes)) {
        QFile::remove(filePath(m_tasks.first().taskId));
        m_tasks.removeFirst();
    }
}

void TaskOutputStore::begin(const KeptTask& begun)
{
    if (m_folder.isEmpty())
        return;
    flush();
    m_file.close();
    m_running.clear();
    if (!QDir().mkpath(m_folder)) {
        diag(QStringLiteral("taskOutput.begin failed folder=") + m_folder);
        return;
    }
    for (qsizetype i = 0; i < m_tasks.size(); ++i) {
        if (m_tasks[i].taskId == begun.taskId) {
            QFile::remove(filePath(begun.taskId));
            m_tasks.removeAt(i);
            break;
        }
    }
    prune();
    KeptTask task = begun;
    task.status = QStringLiteral("running");
    task.startedAt = task.startedAt > 0 ? task.startedAt : QDateTime::currentMSecsSinceEpoch();
    m_file.setFileName(filePath(task.taskId));
    if (!m_file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered)) {
        diag(QStringLiteral("taskOutput.begin failed path=") + m_file.fileName() + QStringLiteral(" error=") +
             m_file.errorString());
        return;
    }
    m_othersBytes = keptBytes();
    m_tasks.append(task);
    m_running = task.taskId;
    save();
}

std::optional<qint64> TaskOutputStore::append(const QString& taskId, QStringView line)
{
    if (m_running.isEmpty() || taskId != m_running)
        return std::nullopt;
    KeptTask& task = m_tasks.last();
    ++task.lines;
    if (task.keptLines + 1 == task.lines) {
        const QByteArray bytes = line.toUtf8();
        if (m_othersBytes + task.bytes + bytes.size() + 1 <= m_maxBytes) {
            m_pending.append(bytes);
            m_pending.append('\n');
            task.bytes += bytes.size() + 1;
            task.keptLines = task.lines;
            if (m_pending.size() >= kPendingBytes)
                flush();
        }
    }
    return task.lines;
}

void TaskOutputStore::flush()
{
    if (m_pending.isEmpty())
        return;
    if (m_file.isOpen() && m_file.write(m_pending) != m_pending.size())
        diag(QStringLiteral("taskOutput.write failed path=") + m_file.fileName() + QStringLiteral(" error=") +
             m_file.errorString());
    m_pending.clear();
    // The list says how far the file goes, now and then, for an agent that stops abruptly.
    if (!m_running.isEmpty() && (!m_saved.isValid() || m_saved.elapsed() >= kSaveMilliseconds))
        save();
}

void TaskOutputStore::markTimedOut(const QString& taskId)
{
    if (!m_running.isEmpty() && taskId == m_running)
        m_tasks.last().timedOut = true;
}

void TaskOutputStore::end(const QString& taskId, const QString& status, std::optional<int> exitCode)
{
    if (m_running.isEmpty() || taskId != m_running)
        return;
    flush();
    m_file.close();
    m_running.clear();
    KeptTask& task = m_tasks.last();
    task.status = status;
    task.exitCode = exitCode;
    task.timedOut = task.timedOut && status == QLatin1String("cancelled");
    task.endedAt = QDateTime::currentMSecsSinceEpoch();
    save();
}

QList<KeptTask> TaskOutputStore::tasks() const
{
    QList<KeptTask> newestFirst(m_tasks.crbegin(), m_tasks.crend());
    return newestFirst;
}

std::optional<KeptTask> TaskOutputStore::task(const QString& taskId) const
{
    for (const KeptTask& task : m_tasks) {
        if (task.taskId == taskId)
            return task;
    }
    return std::nullopt;
}

void TaskOutputStore::read(const QString& taskId, std::optional<qint64> from, int count, const QString& match,
                           std::function<void(const OutputPage&)> done)
{
    const std::optional<KeptTask> task = this->task(taskId);
    if (!task) {
        OutputPage page;
        page.error = QStringLiteral("no output is kept for task ") + taskId;
        done(page);
        return;
    }
    if (taskId == m_running)
        flush();
    ReadRequest request;
    request.path = filePath(taskId);
    request.total = task->keptLines;
    request.count = std::clamp(count, 0, kMaxReadLines);
    request.match = match;
    request.ended = taskId != m_running;
    request.from = from ? std::max<qint64>(1, *from)
                        : (match.isEmpty() ? std::max<qint64>(1, request.total - request.count + 1) : 1);
    auto* watcher = new QFutureWatcher<OutputPage>(this);
    connect(watcher, &QFutureWatcher<OutputPage>::finished, this, [watcher, done = std::move(done)] {
        done(watcher->result());
        watcher->deleteLater();
    });
    watcher->setFuture(QtConcurrent::run(readLines, request));
}

} // namespace brinmoor
