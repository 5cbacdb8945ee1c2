#include "ui/menu/reportrules.h"

#include <QFile>

namespace {

// Deliberately not the "10 МБ" of the message that the user reads.
constexpr qint64 maximumFileSize = 80LL * 1024 * 1024;

bool isOutside(const QString& text, qsizetype minimum, qsizetype maximum)
{
    return text.size() < minimum || text.size() > maximum;
}

} // namespace

std::optional<QString> reportRefusal(const QString& subject, const QString& body)
{
    if (subject.isEmpty())
        return QStringLiteral("Заголовок ошибки не может быть пустым!");
    if (isOutside(subject, 10, 100))
        return QStringLiteral("Длина заголовка не может быть меньше 10 символов и не может "
                              "превышать 100 символов!");
    if (body.isEmpty())
        return QStringLiteral("Описание ошибки не может быть пустым! Постарайтесь описать её "
                              "настолько подробно, насколько возможно.");
    if (isOutside(body, 50, 1000))
        return QStringLiteral("Описание не может быть меньше, чем 50 символов, а также не должно "
                              "превышать 1000 символов!");
    return std::nullopt;
}

int removeOversizedFiles(QStringList& files)
{
    int removed = 0;
    const qsizetype initialCount = files.size();
    // Deliberate: the walk keeps its position and its length while entries go. A file that moves
    // up escapes the check, and positions past the shortened list look at its last file again.
    for (qsizetype i = 0; i < initialCount && !files.isEmpty(); ++i) {
        const QString path = files.at(qMin(i, files.size() - 1));
        if (QFile(path).size() > maximumFileSize) {
            files.removeOne(path);
            ++removed;
        }
    }
    return removed;
}
