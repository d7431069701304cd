#pragma once

#include <QString>

namespace brinmoor {

// The disposable copy of a project that an assistant edits in proposal mode. These
// calls block on the file system: run them off the event loop.
namespace WorkspaceCopy {

// The folder that holds all proposal copies: "brinmoor-proposals" in the temporary
// folder, created readable by the user only.
QString proposalsFolder(const QString& temporaryFolder);

// Copies the project folder whole (hidden files, version control data and build output
// included) to proposalsFolder/<taskId>-<UUID>, keeping symbolic links as links and
// file modes. Each file is cloned (FICLONE; clonefile on macOS) where the file system
// can, else copied in the kernel (copy_file_range; fcopyfile on macOS), else read and
// written. Returns the copy's path; on failure returns an empty path with the reason in
// `error` and removes what it made.
QString copyProject(const QString& projectPath, const QString& taskId, const QString& temporaryFolder, QString* error);

// Removes a folder tree; false when something remained.
bool removeTree(const QString& path);

// How the last copy made on this thread copied its files, for benchmarks and tests.
struct CopyStats {
    qint64 files = 0;
    qint64 cloned = 0;    // shared with the original (copy-on-write)
    qint64 inKernel = 0;  // copy_file_range (fcopyfile on macOS)
    qint64 readWrite = 0; // plain reads and writes
};
CopyStats lastCopyStats();

} // namespace WorkspaceCopy

} // namespace brinmoor
