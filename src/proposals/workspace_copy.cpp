#include "proposals/workspace_copy.h"

#include "base/platform.h"

#include <QDir>
#include <QFile>
#include <QUuid>

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace brinmoor::WorkspaceCopy {

namespace {

thread_local CopyStats t_stats;

QString lastError(const char* what, const QString& path)
{
    return QStringLiteral("%1 %2: %3").arg(QLatin1String(what), path, QString::fromLocal8Bit(std::strerror(errno)));
}

bool copyFile(int fromDir, const char* name, qint64 size, int toDir, int* to)
{
    const int from = ::openat(fromDir, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (from < 0)
        return false;
    const Platform::FileCopy way = Platform::copyFile(from, size, toDir, name, to);
    const int error = errno;
    ::close(from);
    errno = error;
    switch (way) {
    case Platform::FileCopy::Cloned: ++t_stats.cloned; return true;
    case Platform::FileCopy::InKernel: ++t_stats.inKernel; return true;
    case Platform::FileCopy::ReadWrite: ++t_stats.readWrite; return true;
    case Platform::FileCopy::Failed: break;
    }
    return false;
}

// Copies the contents of one open directory into another, recursively.
bool copyDirectory(int fromDir, int toDir, const QString& where, QString* error)
{
    DIR* dir = ::fdopendir(::dup(fromDir));
    if (!dir) {
        *error = lastError("cannot read", where);
        return false;
    }
    bool ok = true;
    while (dirent* entry = ::readdir(dir)) {
        const char* name = entry->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
            continue;
        const QString path = where + QLatin1Char('/') + QFile::decodeName(name);
        struct stat info {};
        if (::fstatat(fromDir, name, &info, AT_SYMLINK_NOFOLLOW) != 0) {
            *error = lastError("cannot inspect", path);
            ok = false;
            break;
        }
        if (S_ISLNK(info.st_mode)) {
            QByteArray target(int(info.st_size) + 1, '\0');
            const ssize_t n = ::readlinkat(fromDir, name, target.data(), size_t(target.size()));
            if (n < 0 || ::symlinkat(target.left(int(n)).constData(), toDir, name) != 0) {
                *error = lastError("cannot copy link", path);
                ok = false;
                break;
            }
        } else if (S_ISDIR(info.st_mode)) {
            if (::mkdirat(toDir, name, 0700) != 0) {
                *error = lastError("cannot create folder", path);
                ok = false;
                break;
            }
            const int sub = ::openat(fromDir, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            const int subCopy = ::openat(toDir, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            ok = sub >= 0 && subCopy >= 0;
            if (!ok)
                *error = lastError("cannot open folder", path);
            else
                ok = copyDirectory(sub, subCopy, path, error);
            // The folder's own mode is set last, so a read-only folder can be filled.
            if (ok)
                ::fchmod(subCopy, info.st_mode & 07777);
            if (sub >= 0)
                ::close(sub);
            if (subCopy >= 0)
                ::close(subCopy);
            if (!ok)
                break;
        } else if (S_ISREG(info.st_mode)) {
            int to = -1;
            ok = copyFile(fromDir, name, info.st_size, toDir, &to);
            if (ok)
                ok = ::fchmod(to, info.st_mode & 07777) == 0;
            if (!ok)
                *error = lastError("cannot copy", path);
            ++t_stats.files;
            if (to >= 0)
                ::close(to);
            if (!ok)
                break;
        }
        // Sockets, pipes and devices have no place in a project copy: skipped.
    }
    ::closedir(dir);
    return ok;
}

} // namespace

QString proposalsFolder(const QString& temporaryFolder)
{
    return temporaryFolder + QStringLiteral("/brinmoor-proposals");
}

QString copyProject(const QString& projectPath, const QString& taskId, const QString& temporaryFolder, QString* error)
{
    t_stats = {};
    const QString folder = proposalsFolder(temporaryFolder);
    const QByteArray nativeFolder = QFile::encodeName(folder);
    if (::mkdir(nativeFolder.constData(), 0700) != 0 && errno != EEXIST) {
        *error = lastError("cannot create", folder);
        return {};
    }
    QString safeId = taskId;
    for (QChar& c : safeId) {
        if (c == QLatin1Char('/') || c == QChar(0))
            c = QLatin1Char('_');
    }
    const QString copy = folder + QLatin1Char('/') + safeId + QLatin1Char('-') +
                         QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
    const QByteArray nativeCopy = QFile::encodeName(copy);
    if (::mkdir(nativeCopy.constData(), 0700) != 0) {
        *error = lastError("cannot create", copy);
        return {};
    }
    const int from = ::open(QFile::encodeName(projectPath).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int to = ::open(nativeCopy.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    bool ok = from >= 0 && to >= 0;
    if (!ok)
        *error = lastError("cannot open", from < 0 ? projectPath : copy);
    else
        ok = copyDirectory(from, to, projectPath, error);
    if (from >= 0)
        ::close(from);
    if (to >= 0)
        ::close(to);
    if (!ok) {
        removeTree(copy);
        return {};
    }
    return copy;
}

bool removeTree(const QString& path)
{
    if (path.isEmpty())
        return true;
    // Folders copied read-only must become writable before their entries can go.
    const QByteArray native = QFile::encodeName(path);
    struct stat info {};
    if (::lstat(native.constData(), &info) != 0)
        return errno == ENOENT;
    if (S_ISDIR(info.st_mode)) {
        ::chmod(native.constData(), 0700);
        const QStringList entries =
            QDir(path).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
        for (const QString& entry : entries)
            removeTree(path + QLatin1Char('/') + entry);
        return ::rmdir(native.constData()) == 0;
    }
    return ::unlink(native.constData()) == 0;
}

CopyStats lastCopyStats()
{
    return t_stats;
}

} // namespace brinmoor::WorkspaceCopy
