#include "vl/src/formats/config.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

namespace {

// The public halves of two throw-away key pairs.
constexpr const char* firstKey = "RWSR7+yH763BrphIhmjCm/e/WAsCSzqRoqo5mqs87+djpmtpiaWleTHs";
constexpr const char* secondKey = "RWTLz4OdZmJqmS74SDj0u3av94n908Fkz1wXm564iuT4EDJWnN+RpmMl";

QByteArray goodConfig()
{
    // No raw text: moc would take the slashes for a comment.
    return QByteArray("{\"repository\": \"https://example.org/releases\", \"publicKeys\": [\"%1\"],"
                      "\"repositoryId\": \"0123\", \"maxBytesPerSecond\": 1000,"
                      "\"proxy\": \"http://proxy:3128\"}")
        .replace("%1", firstKey);
}

} // namespace

/// vl.json is edited by hand: whatever is wrong with it has to be said by name.
class ConfigTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void variantsAreJudged_data();
    void variantsAreJudged();
    void valuesArriveAndMayBeMissing();
    void messageNamesFileAndFault();
};

void ConfigTest::variantsAreJudged_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("after");
    QTest::addColumn<QByteArray>("fault"); // empty: accepted
    const auto row = [](const char* name, const QByteArray& before, const QByteArray& after,
                        const char* fault) {
        QTest::newRow(name) << before << after << QByteArray(fault);
    };
    row("unknown members", "{", "{\"comment\": [1, 2], ", "");
    row("not JSON", "{", "<", "not valid JSON");
    row("comma at the end", "3128\"}", "3128\",}", "not valid JSON");
    row("no repository", "\"repository\"", "\"repo\"", "\"repository\"");
    row("empty repository", "https://example.org/releases", "", "\"repository\"");
    row("repository of another type", "\"https://example.org/releases\"", "1", "\"repository\"");
    row("no keys", "\"publicKeys\"", "\"keys\"", "\"publicKeys\"");
    row("key outside a list", "[\"" + QByteArray(firstKey) + "\"]", "\"x\"", "\"publicKeys\"");
    row("two keys", "\"],", "\", \"" + QByteArray(secondKey) + "\"],", "");
    row("three keys", "\"],", "\", \"x\", \"y\"],", "\"publicKeys\"");
    row("empty list of keys", "\"" + QByteArray(firstKey) + "\"", "", "\"publicKeys\"");
    row("key cut short", firstKey, QByteArray(firstKey).chopped(4), "not a minisign public key");
    row("key with more after it", firstKey, QByteArray(firstKey) + "AAAA", "not a minisign");
    row("negative limit", "1000", "-1", "\"maxBytesPerSecond\"");
    row("fractional limit", "1000", "1.5", "\"maxBytesPerSecond\"");
    row("limit as text", "1000", "\"1M\"", "\"maxBytesPerSecond\"");
    row("empty id", "0123", "", "\"repositoryId\"");
    row("proxy of another type", "\"http://proxy:3128\"", "{}", "\"proxy\"");
}

void ConfigTest::variantsAreJudged()
{
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, after);
    QFETCH(QByteArray, fault);
    QByteArray text = goodConfig();
    QVERIFY(text.contains(before));
    text.replace(before, after);
    const auto config = vl::parseConfig(text.toStdString());
    QVERIFY2(config.has_value() == fault.isEmpty(),
             config ? "accepted" : config.error().message.c_str());
    if (config)
        return;
    QCOMPARE(config.error().code, vlupd::UPDATER_DATA_ERROR);
    QVERIFY2(config.error().message.find(fault.toStdString()) != std::string::npos,
             config.error().message.c_str());
}

void ConfigTest::valuesArriveAndMayBeMissing()
{
    const auto full = vl::parseConfig(goodConfig().toStdString());
    QVERIFY(full);
    QCOMPARE(full->repositoryId, std::optional<std::string>("0123"));
    QCOMPARE(full->maxBytesPerSecond, std::uint64_t{1000});
    const auto least = vl::parseConfig("{\"repository\": \"releases\", \"publicKeys\": [\"" +
                                       std::string(firstKey) + "\"]}");
    QVERIFY(least);
    QVERIFY(!least->repositoryId && least->maxBytesPerSecond == 0 && least->proxy.empty());
}

void ConfigTest::messageNamesFileAndFault()
{
    QTemporaryDir root;
    const std::filesystem::path path(root.path().toStdString());
    const auto missing = vl::readConfig(path);
    QVERIFY(!missing);
    QCOMPARE(missing.error().code, vlupd::UPDATER_DATA_ERROR);
    QVERIFY(missing.error().message.find("vl.json") != std::string::npos);

    QFile file(root.filePath(QStringLiteral("vl.json")));
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write("{}") == 2);
    file.close();
    const auto broken = vl::readConfig(path);
    QVERIFY(!broken);
    QVERIFY(broken.error().message.find(root.path().toStdString()) != std::string::npos);
    QVERIFY(broken.error().message.find("\"repository\"") != std::string::npos);
}

QTEST_APPLESS_MAIN(ConfigTest)
#include "configtest.moc"
