#include "ui/widgets/resources.h"

#include <QApplication>
#include <QDebug>
#include <QFont>
#include <QFontDatabase>
#include <QIcon>

void loadResources()
{
    Q_INIT_RESOURCE(launcher);
    Q_INIT_RESOURCE(fonts);

    for (const auto& file :
         {QStringLiteral("Roboto-Light.ttf"), QStringLiteral("Roboto-Regular.ttf"),
          QStringLiteral("Roboto-Bold.ttf"), QStringLiteral("Roboto-LightItalic.ttf")}) {
        if (QFontDatabase::addApplicationFont(QStringLiteral(":/fonts/") + file) < 0)
            qWarning().noquote() << "[loadResources] Cannot load the embedded font" << file;
    }
    // The light face names itself "Roboto Light" to some font systems and "Roboto", weight 300,
    // to others. The windows' style sheets use both, and "Helvetica" in places.
    QFont::insertSubstitution(QStringLiteral("Roboto Light"), QStringLiteral("Roboto"));
    QFont::insertSubstitution(QStringLiteral("Helvetica"), QStringLiteral("Roboto"));
    QFont font(QStringLiteral("Roboto"), 10);
#ifdef Q_OS_WIN
    font.setHintingPreference(QFont::PreferVerticalHinting); // the default of other systems
#endif
    QApplication::setFont(font);
    QIcon icon(QStringLiteral(":/images/media/varnel.png"));
    icon.addFile(QStringLiteral(":/images/media/varnel_icon.png"));
    QApplication::setWindowIcon(icon);
}
