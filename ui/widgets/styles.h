#pragma once

#include <QString>

/// The style-sheet texts that several windows share.
namespace styles {

inline const QString scrollArea = QStringLiteral("QScrollArea {border: 0px;}");
inline const QString text = QStringLiteral("font: 300 11pt 'Roboto';color: white;");
inline const QString sectionTitle = QStringLiteral("font: 700 12pt 'Roboto';color: #FF6D1B;");
inline const QString obliqueText =
    QStringLiteral("font: 300 11pt 'Roboto';font-style: oblique;color: white;");
inline const QString versionButton = QStringLiteral(
    "QPushButton {background-color: transparent;color: white;font: 700 11pt \"Roboto\";}");
/// Appended to `versionButton` for the selected one.
inline const QString selectedVersionButton =
    QStringLiteral("QPushButton {border-style: solid;border-width: 4px;"
                   "border-color: transparent #FF6D1B transparent transparent;}");
inline const QString scrollBar =
    QStringLiteral("QScrollBar::add-page:vertical, QScrollBar::sub-page:vertical "
                   "{background: none;}"
                   "QScrollBar::handle:vertical {background: #FF6D1B;}"
                   "QScrollBar:vertical {width: 3px;}");

} // namespace styles
