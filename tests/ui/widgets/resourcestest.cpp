#include "ui/widgets/resources.h"

#include <QDirIterator>
#include <QFile>
#include <QLabel>
#include <QRawFont>
#include <QRegularExpression>
#include <QTest>

/// A missing picture or font shows as an empty button or another typeface, never as an error.
class ResourcesTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { loadResources(); }
    void everyPathOfTheWindowsExists();
    void styleSheetsGetTheEmbeddedFace();
};

void ResourcesTest::everyPathOfTheWindowsExists()
{
    static const QRegularExpression path(
        QStringLiteral(":/(icons|images|widgets)/media/[\\w/.-]+"));
    int found = 0;
    for (QDirIterator entry(
             QStringLiteral(VARNEL_UI_SOURCES),
             {QStringLiteral("*.ui"), QStringLiteral("*.cpp"), QStringLiteral("*.h")}, QDir::Files,
             QDirIterator::Subdirectories);
         entry.hasNext();) {
        QFile source(entry.next());
        QVERIFY(source.open(QIODevice::ReadOnly));
        const QString text = QString::fromUtf8(source.readAll());
        for (auto match = path.globalMatch(text); match.hasNext(); ++found) {
            const QString name = match.next().captured();
            QVERIFY2(QFile::exists(name), qPrintable(source.fileName() + u": " + name));
        }
    }
    QVERIFY(found > 0);
}

void ResourcesTest::styleSheetsGetTheEmbeddedFace()
{
    QLabel label;
    label.setStyleSheet(QStringLiteral("font: 300 11pt 'Roboto'"));
    label.ensurePolished();
    const QRawFont font = QRawFont::fromFont(label.font(), QFontDatabase::Cyrillic);
    QVERIFY2(font.familyName().startsWith(u"Roboto"), qPrintable(font.familyName()));
    QCOMPARE(font.styleName(), QStringLiteral("Light"));
}

QTEST_MAIN(ResourcesTest)
#include "resourcestest.moc"
