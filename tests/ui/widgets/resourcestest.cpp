#include "ui/widgets/resources.h"

#include <QDirIterator>
#include <QFile>
#include <QImage>
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
    void iconsComeInThreeSizes();
    void styleSheetsGetTheEmbeddedFace_data();
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

void ResourcesTest::iconsComeInThreeSizes()
{
    for (QDirIterator entry(QStringLiteral(":/icons/media/icons"), {QStringLiteral("*.png")});
         entry.hasNext();) {
        const QString path = entry.next();
        if (path.contains(u'@'))
            continue;
        for (const int factor : {1, 2, 3}) {
            QString sized = path;
            if (factor > 1)
                sized.insert(sized.lastIndexOf(u'.'), QStringLiteral("@%1x").arg(factor));
            QVERIFY2(QImage(sized).size() == QSize(24, 24) * factor, qPrintable(sized));
        }
    }
}

void ResourcesTest::styleSheetsGetTheEmbeddedFace_data()
{
    QTest::addColumn<QString>("style");
    QTest::addColumn<QString>("face");
    QTest::newRow("light by weight")
        << QStringLiteral("font: 300 11pt 'Roboto'") << QStringLiteral("Light");
    QTest::newRow("light by name")
        << QStringLiteral("font: 300 12pt \"Roboto Light\"") << QStringLiteral("Light");
    QTest::newRow("bold") << QStringLiteral("font: 700 12pt 'Roboto'") << QStringLiteral("Bold");
    QTest::newRow("oblique") << QStringLiteral("font: 300 11pt 'Roboto';font-style: oblique")
                             << QStringLiteral("Light Italic");
    QTest::newRow("substituted") << QStringLiteral("font: 12pt \"Helvetica\"")
                                 << QStringLiteral("Regular");
}

void ResourcesTest::styleSheetsGetTheEmbeddedFace()
{
    QFETCH(const QString, style);
    QFETCH(const QString, face);
    QLabel label;
    label.setStyleSheet(style);
    label.ensurePolished();
    const QRawFont font = QRawFont::fromFont(label.font(), QFontDatabase::Cyrillic);
    QVERIFY2(font.familyName().startsWith(u"Roboto"), qPrintable(font.familyName()));
    QCOMPARE(font.styleName(), face);
    QVERIFY(font.supportsCharacter(QChar(u'Ж')));
}

QTEST_MAIN(ResourcesTest)
#include "resourcestest.moc"
