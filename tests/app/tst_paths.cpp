#include "app/paths.h"
#include "tests/support/childprogram.h"

#include <QCoreApplication>
#include <QFile>
#include <QLocale>
#include <QTemporaryDir>
#include <QTest>

#include <iostream>
#include <limits>

class TestPaths : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void sizesAsText_data();
    void sizesAsText();
    void directorySizes_data();
    void directorySizes();
    void sizeOfManyFiles();
    void applicationDirectoryComesBack();
};

void TestPaths::sizesAsText_data()
{
    QTest::addColumn<qulonglong>("bytes");
    QTest::addColumn<QString>("text");
    const auto row = [](qulonglong bytes, const char16_t* text) {
        QTest::addRow("%llu", bytes) << bytes << QString::fromUtf16(text);
    };
    row(0, u"0 байт");
    row(1024, u"1024 байт");
    row(1025, u"1.0 КБ");
    row(1048576, u"1024.0 КБ");
    row(1048577, u"1.00 МБ");
    row(1073741824, u"1024.00 МБ");
    row(5368709120, u"5.00 ГБ");
    row(std::numeric_limits<qulonglong>::max(), u"17179869184.00 ГБ");
}

void TestPaths::sizesAsText()
{
    QFETCH(qulonglong, bytes);
    QFETCH(QString, text);
    QLocale::setDefault(QLocale(QLocale::Russian)); // its decimal separator is a comma
    QCOMPARE(humanReadableSize(bytes), text);
}

void TestPaths::directorySizes_data()
{
    QTest::addColumn<QString>("files"); // "path=bytes", or "path>target" for a link
    QTest::addColumn<QString>("measured");
    QTest::addColumn<qint64>("size");
    QTest::newRow("empty") << ""
                           << "." << qint64{0};
    QTest::newRow("missing") << ""
                             << "missing" << qint64{-1};
    QTest::newRow("nested") << "a/b/one=10 a/two=20"
                            << "." << qint64{30};
    QTest::newRow("hidden file and folder") << "seen=1 .hidden=10 .folder/file=100 a/.hidden=1000"
                                            << "." << qint64{1};
    QTest::newRow("link to a folder above") << "a/file=10 a/loop>.."
                                            << "." << qint64{10};
    QTest::newRow("Cyrillic names") << "папка/файл=7"
                                    << "." << qint64{7};
}

void TestPaths::directorySizes()
{
    QFETCH(QString, files);
    QFETCH(QString, measured);
    QFETCH(qint64, size);

    const QTemporaryDir folder;
    for (const QString& description : files.split(u' ', Qt::SkipEmptyParts)) {
        const bool link = description.contains(u'>');
        const QStringList parts = description.split(link ? u'>' : u'=');
        const QString path = folder.filePath(parts[0]);
        QVERIFY(QDir().mkpath(QFileInfo(path).path()));
        if (link) {
            QVERIFY(QFile::link(parts[1], path));
            continue;
        }
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.resize(parts[1].toLongLong()));
    }
    QCOMPARE(directorySize(folder.filePath(measured)), size);
}

/// Enough of them that the work is shared.
void TestPaths::sizeOfManyFiles()
{
    const QTemporaryDir folder;
    qint64 size = 0;
    for (int i = 0; i < 2500; ++i) {
        QFile file(folder.filePath(QString::number(i)));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.resize(i));
        size += i;
    }
    QCOMPARE(directorySize(folder.path()), size);
}

void TestPaths::applicationDirectoryComesBack()
{
    QCOMPARE(applicationDirectory().absolutePath(), QCoreApplication::applicationDirPath());

    const ChildProgram child;
    QCOMPARE(child.run(QStringLiteral("removeFolder")), child.folder().path().toLocal8Bit());
    QVERIFY(child.folder().exists());
    QVERIFY(child.folder().isEmpty());
}

/// The folder goes away under the running program.
static int removeFolder(int& argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    applicationDirectory().removeRecursively();
    std::cout << applicationDirectory().absolutePath().toStdString();
    return 0;
}

static int runTest(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    TestPaths test;
    return QTest::qExec(&test, argc, argv);
}

int main(int argc, char** argv)
{
    return runScenarioOr(runTest, {{"removeFolder", removeFolder}}, argc, argv);
}

#include "tst_paths.moc"
