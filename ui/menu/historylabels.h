#pragma once

#include <QDate>
#include <QJsonObject>
#include <QString>

class QLayout;

// Each adds labels of its kind to the end of `layout`, whose widget owns them. GUI thread only.

/// The title of a section.
void addSectionHeader(QLayout* layout, const QString& title);

/// The date in Qt's text format, after a bullet if asked. Adds nothing for an invalid date.
void addDateLabel(QLayout* layout, const QDate& date, bool bullet);

/// One label per element of the array `key` of `description`, each after a bullet if asked; an
/// element that is no string has no text. False when there is no member `key`.
bool addListLabels(const QJsonObject& description, const QString& key, QLayout* layout,
                   bool bullet);
