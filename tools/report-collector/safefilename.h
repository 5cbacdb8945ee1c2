#pragma once

#include <QString>

/// A file name made from what a sender calls a file: its last part, without characters, endings
/// and device names that some file system refuses, not hidden, at most 200 bytes of UTF-8, and
/// never empty.
QString safeFileName(const QString& name);
