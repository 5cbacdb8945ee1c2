#pragma once

#include <QDir>
#include <QString>

/// The directory of the running program: it holds the launcher's own files and is the update
/// library's root. Needs the application object. Any thread.
QDir applicationDirectory();

/// Whether `directory` exists and holds anything at all, hidden entries included.
bool hasEntries(const QDir& directory);

/// Bytes of all regular files below `path`, or -1 when there is no such directory. Hidden entries
/// do not count and linked directories are not entered. Reads the whole tree: it takes as long as
/// the tree is large.
qint64 directorySize(const QString& path);

/// `bytes` as shown to the user, such as "1.5 КБ", with a decimal point in every locale.
QString humanReadableSize(qulonglong bytes);
