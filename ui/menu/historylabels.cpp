#include "ui/menu/historylabels.h"

#include "ui/widgets/styles.h"

#include <QDebug>
#include <QJsonArray>
#include <QLabel>
#include <QLayout>

namespace {

QString prefix(bool bullet)
{
    return bullet ? QStringLiteral("• ") : QString();
}

void addWrappedLabel(QLayout* layout, const QString& text, const QString& style)
{
    auto* label = new QLabel(layout->parentWidget());
    // Release notes are shown as they are written; "<" starts no markup.
    label->setTextFormat(Qt::PlainText);
    label->setWordWrap(true);
    label->setStyleSheet(style);
    label->setText(text);
    layout->addWidget(label);
}

} // namespace

void addSectionHeader(QLayout* layout, const QString& title)
{
    auto* label = new QLabel(title, layout->parentWidget());
    label->setStyleSheet(styles::sectionTitle);
    layout->addWidget(label);
}

void addDateLabel(QLayout* layout, const QDate& date, bool bullet)
{
    if (!date.isValid()) {
        qDebug() << "Passed date is null or not valid";
        return;
    }
    addWrappedLabel(layout, prefix(bullet) + date.toString(Qt::TextDate), styles::obliqueText);
}

bool addListLabels(const QJsonObject& description, const QString& key, QLayout* layout, bool bullet)
{
    const auto member = description.constFind(key);
    if (member == description.constEnd())
        return false;
    const QJsonArray entries = member->toArray();
    for (const QJsonValue& entry : entries)
        addWrappedLabel(layout, prefix(bullet) + entry.toString(), styles::text);
    return true;
}
