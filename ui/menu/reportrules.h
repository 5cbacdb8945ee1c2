#pragma once

#include <QString>
#include <QStringList>

#include <optional>

/// Most files that one bug report takes.
inline constexpr qsizetype maximumAttachments = 5;

/// The message that refuses a report with this subject (10 to 100 UTF-16 units) or body (50 to
/// 1000), or nothing when both are fine. The texts are judged as they are, untrimmed.
std::optional<QString> reportRefusal(const QString& subject, const QString& body);

/// Removes files larger than 80 MiB from `files` and returns how many were removed. A file that
/// follows a removed one is not looked at, unless it is the last. A file that cannot be opened
/// stays; sending leaves it out.
int removeOversizedFiles(QStringList& files);
