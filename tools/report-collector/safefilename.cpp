#include "tools/report-collector/safefilename.h"

#include <QRegularExpression>

#include <algorithm>

namespace {

constexpr qsizetype maximumBytes = 200;

bool isUnsafe(QChar c)
{
    return c.category() == QChar::Other_Control || c.category() == QChar::Other_Format ||
           QStringLiteral("<>:\"|?*/\\").contains(c);
}

/// Shortens the part before the suffix, whole characters at a time.
QString shortened(const QString& name)
{
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    const bool hasSuffix = dot > 0 && name.size() - dot <= 16;
    const QString suffix = hasSuffix ? name.sliced(dot) : QString();
    QString stem = name.chopped(suffix.size());
    while (!stem.isEmpty() && stem.toUtf8().size() + suffix.toUtf8().size() > maximumBytes)
        stem.chop(stem.back().isLowSurrogate() ? 2 : 1);
    return stem + suffix;
}

} // namespace

QString safeFileName(const QString& name)
{
    static const QRegularExpression separators(QStringLiteral(R"([/\\])"));
    static const QRegularExpression badEnding(QStringLiteral(R"([. ]+$)"));
    // https://learn.microsoft.com/windows/win32/fileio/naming-a-file
    static const QRegularExpression deviceName(
        QStringLiteral(R"(^(con|prn|aux|nul|com[0-9]|lpt[0-9])(\.|$))"),
        QRegularExpression::CaseInsensitiveOption);

    QString safe = name.sliced(name.lastIndexOf(separators) + 1).left(4 * maximumBytes);
    std::replace_if(safe.begin(), safe.end(), isUnsafe, QLatin1Char('_'));
    safe = shortened(safe);
    safe.remove(badEnding);
    if (safe.isEmpty())
        return QStringLiteral("attachment");
    if (safe.startsWith(QLatin1Char('.')) || deviceName.match(safe).hasMatch())
        safe.prepend(QLatin1Char('_'));
    return safe;
}
