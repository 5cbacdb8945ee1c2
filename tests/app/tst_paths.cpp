#include "app/paths.h"

#include <QFile>
#include <QLocale>
#include <QTemporaryDir>
#include <QTest>

class TestPaths : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void sizesAsText();
    void directorySizes_data();
    void directorySizes();
};

void TestPaths::sizesAsText()
{
    QLocale::setDefault(QLocale(QLocale::Russian)); // its decimal separator is a comma
    const std::pair<qulonglong, const char*> texts[] = {
        {0, "0 байт"},           {1024, "1024 байт"},         {1025, "1.0 КБ"},
        {1048576, "1024.0 КБ"},  {1048577, "1.00 МБ"},        {1073741824, "1024.00 МБ"},
        {5368709120, "5.00 ГБ"}, {~0ULL, "17179869184.00 ГБ"}};
    for (const auto& [bytes, text] : texts)
        QCOMPARE(humanReadableSize(bytes), QString::fromUtf8(text));
}

void TestPaths::directorySizes_data()
{
    QTest::addColumn<QStringList>("files"); // "path=bytes", or "path>target" for a link
    QTest::addColumn<qint64>("size");
    QTest::addColumn<bool>("entries");
    const auto row = [](const char* files, qint64 size, bool entries = true) {
        QTest::newRow(files) << QString::fromUtf8(files).split(u' ', Qt::SkipEmptyParts) << size
                             << entries;
    };
    row("", 0, false);
    row("папка/b/one=10 папка/two=20", 30);
    row("seen=1 .hidden=10 .folder/file=100 a/.hidden=1000", 1);
    row(".hidden=10", 0);
#ifndef Q_OS_WIN // there, a right of its own is needed to make them
    row("a/file=10 a/loop>..", 10);
    row("dangling>nowhere", 0);
#endif
    QStringList many; // enough of them that the work is shared
    for (int i = 0; i < 2500; ++i)
        many << QStringLiteral("%1=%1").arg(i);
    QTest::newRow("many") << many << qint64{2499 * 2500 / 2} << true;
}

void TestPaths::directorySizes()
{
    QFETCH(QStringList, files);
    const QTemporaryDir folder;
    for (const QString& description : std::as_const(files)) {
        const bool link = description.contains(u'>');
        const QStringList parts = description.split(link ? u'>' : u'=');
        const QString path = folder.filePath(parts[0]);
        QVERIFY(QDir().mkpath(QFileInfo(path).path()));
        QFile file(path);
        QVERIFY(link ? QFile::link(parts[1], path)
                     : file.open(QIODevice::WriteOnly) && file.resize(parts[1].toLongLong()));
    }
    QTEST(directorySize(folder.path()), "size");
    QTEST(hasEntries(QDir(folder.path())), "entries");
    QCOMPARE(directorySize(folder.filePath(QStringLiteral("missing"))), qint64{-1});
}

QTEST_GUILESS_MAIN(TestPaths)
#include "tst_paths.moc"
