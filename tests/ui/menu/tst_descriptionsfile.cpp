#include "tests/support/scriptedvl.h"
#include "ui/menu/descriptionsfile.h"
#include "updates/catalogue.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

class TestDescriptionsFile : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void requested_data();
    void requested();
    void read();
    void written();
    void cleanup() { QFile::remove(DescriptionsFile::instance().filePath); }
};

void TestDescriptionsFile::requested_data()
{
    QTest::addColumn<QString>("catalogue");
    QTest::addColumn<QString>("descriptions");
    QTest::newRow("no catalogue") << "null"
                                  << "absent";
    QTest::newRow("no version") << "{}"
                                << "absent";
    QTest::newRow("no version that is an object") << R"({"1":"text","2":[]})"
                                                  << "absent";
    QTest::newRow("with and without a changelog")
        << R"({"1.1.0":{"date":"2024-01-01"},"1.2.0":{"changelog":{"changes":["a"],"features":["b"]}}})"
        << R"({"1.1.0":{},"1.2.0":{"changes":["a"],"features":["b"]}})";
    QTest::newRow("copied unchanged, others left out")
        << R"({"1":{"changelog":{"features":[],"changes":"text","fixes":[1,null],"notes":[]}}})"
        << R"({"1":{"changes":"text","features":[],"fixes":[1,null]}})";
    QTest::newRow("changelog that is none") << R"({"1":{"changelog":["a"]}})"
                                            << R"({"1":{}})";
    QTest::newRow("special version moves the next one up")
        << R"({"1":{"name":"X"},"2":{"changelog":{"fixes":["a"]}}})"
        << R"({"1":{"fixes":["a"]}})";
}

void TestDescriptionsFile::requested()
{
    QFETCH(QString, catalogue);
    QFETCH(QString, descriptions);
    scripted::Script script;
    script.catalogue = nlohmann::json::parse(catalogue.toStdString());
    scripted::setScript(script);
    availableVersionsJson(false, true); // what was read before does not count

    const auto found = requestDescriptions(nullptr);
    QCOMPARE(found ? QString::fromUtf8(found->toJson(QJsonDocument::Compact))
                   : QStringLiteral("absent"),
             descriptions);
}

void TestDescriptionsFile::read()
{
    DescriptionsFile& file = DescriptionsFile::instance();
    const QString version = QStringLiteral("1.0.0");
    QCOMPARE(
        file.filePath,
        QDir(QCoreApplication::applicationDirPath()).filePath(QStringLiteral("descriptions.json")));
    QVERIFY(!file.versionKeys());
    QVERIFY(!file.versionDescription(version));

    QVERIFY(writeFile(R"({"1.9.0":{},"1.0.0":{"fixes":["a"]}})", file.filePath));
    QVERIFY(file.versionDescription(version));
    QCOMPARE(file.versionKeys(), (QStringList{version, QStringLiteral("1.9.0")}));

    // The keys are read anew, the descriptions come from what was read last.
    QVERIFY(writeFile(R"({"2.0.0":5})", file.filePath));
    QCOMPARE(file.versionDescription(version),
             QJsonObject({{QStringLiteral("fixes"), QJsonArray{QStringLiteral("a")}}}));
    QCOMPARE(file.versionKeys(), QStringList{QStringLiteral("2.0.0")});
    QCOMPARE(file.versionDescription(QStringLiteral("2.0.0")), QJsonValue(5));
    QVERIFY(!file.versionDescription(version));

    QVERIFY(writeFile("not JSON", file.filePath));
    QCOMPARE(file.versionKeys(), QStringList());
}

void TestDescriptionsFile::written()
{
    const QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("file"));
    QVERIFY(writeFile("long before", path));
    QVERIFY(writeFile("short", path));
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), QByteArray("short"));

    const QString message =
        QStringLiteral("Failed to open an output file  \"%1\"").arg(folder.path());
    QTest::ignoreMessage(QtDebugMsg, message.toUtf8().constData());
    QVERIFY(!writeFile("data", folder.path()));
}

QTEST_GUILESS_MAIN(TestDescriptionsFile)
#include "tst_descriptionsfile.moc"
