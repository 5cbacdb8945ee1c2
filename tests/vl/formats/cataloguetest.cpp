#include "vl/src/formats/catalogue.h"

#include "vl/src/formats/manifest.h"

#include <QTest>

namespace {

QByteArray goodCatalogue()
{
    return QByteArray(R"({
  "format": 1,
  "repository": "0123456789abcdef",
  "serial": 7,
  "date": "2026-11-01",
  "expires": "2027-11-01",
  "versions": {
    "1.0.0": {
      "changelog": {
        "features": [
          "Карта"
        ]
      },
      "date": "2026-10-01",
      "manifest": {
        "hash": "%H",
        "size": 1000
      },
      "own": null
    },
    "special": {
      "date": "2026-10-02",
      "manifest": {
        "hash": "%H",
        "size": 33554432
      },
      "name": "Особая"
    }
  }
}
)")
        .replace("%H", QByteArray(64, 'b'));
}

} // namespace

/// The catalogue is what a launcher shows; a malformed one must leave the last good one in place.
class CatalogueTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void goodCatalogueSurvivesRoundTrip();
    void variantsAreJudged_data();
    void variantsAreJudged();
    void everyTruncationIsRefused();
    void sizeIsCapped();
};

void CatalogueTest::goodCatalogueSurvivesRoundTrip()
{
    const auto catalogue = vl::readCatalogue(goodCatalogue().toStdString());
    QVERIFY2(catalogue, catalogue ? "" : catalogue.error().message.c_str());
    QCOMPARE(vl::writeCatalogue(*catalogue), goodCatalogue().toStdString());
    QCOMPARE(catalogue->serial, std::uint64_t{7});
    QCOMPARE(catalogue->manifests.at("1.0.0").size, std::uint64_t{1000});
    QVERIFY(catalogue->versions.at("1.0.0").contains("own"));
    QVERIFY(!catalogue->versions.at("1.0.0").contains("name"));
}

void CatalogueTest::variantsAreJudged_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("after");
    QTest::addColumn<QByteArray>("fault"); // empty: accepted
    const auto row = [](const char* name, const QByteArray& before, const QByteArray& after,
                        const char* fault) {
        QTest::newRow(name) << before << after << QByteArray(fault);
    };
    row("unknown format", "\"format\": 1", "\"format\": 2", "format version 2");
    row("no format", "\"format\"", "\"x\"", "\"format\"");
    row("list", "{\n  \"format\"", "[{\n  \"format\"", "not valid JSON");
    row("empty repository id", "0123456789abcdef", "", "\"repository\"");
    row("negative serial", "\"serial\": 7", "\"serial\": -7", "\"serial\"");
    row("serial at the limit", "\"serial\": 7", "\"serial\": 9223372036854775807", "");
    row("serial of 2^63", "\"serial\": 7", "\"serial\": 9223372036854775808", "\"serial\"");
    row("serial as text", "\"serial\": 7", "\"serial\": \"7\"", "\"serial\"");
    row("no such day", "2026-11-01", "2026-02-29", "\"date\"");
    row("date in another form", "2026-10-01", "01.10.2026", "version 1.0.0");
    row("signed date", "2026-10-01", "2026-+1-01", "\"date\"");
    row("expires as number", "\"2027-11-01\"", "2027", "\"expires\"");
    row("no expires", "\"expires\": \"2027-11-01\",", "", "");
    row("versions as list", "\"versions\": {", "\"versions\": [], \"x\": {", "\"versions\"");
    row("version as text", "\"1.0.0\": {", "\"0.9\": \"\", \"1.0.0\": {", "version 0.9");
    row("no manifest", "\"manifest\"", "\"Manifest\"", "\"manifest\"");
    row("manifest above the limit", "33554432", "33554433", "larger than 32 MiB");
    row("manifest hash too short", QByteArray(64, 'b'), QByteArray(62, 'b'), "\"hash\"");
    row("name of another type passes", "\"Особая\"", "12", "");
    row("hostile version key", "\"special\"", "\"../special\"", "version key");
    row("reserved version key", "\"special\"", "\"NUL\"", "version key");
    row("version keys that collide", "\"special\"",
        "\"1.0.0-A\": {\"date\": \"2026-10-01\", "
        "\"manifest\": {\"hash\": \"" +
            QByteArray(64, 'b') + "\", \"size\": 1}}, \"1.0.0-a\"",
        "one file");
    row("version twice", "\"special\"", "\"1.0.0\"", "twice");
    row("member twice", "\"serial\": 7", "\"serial\": 8, \"serial\": 7", "twice");
    row("deep nesting", "null", QByteArray(100000, '[') + QByteArray(100000, ']'), "too deeply");
    row("invalid UTF-8", "Особая", "\xff", "not valid JSON");
    row("unknown members", "\"serial\"", "\"mirrors\": [{}], \"serial\"", "");
}

void CatalogueTest::variantsAreJudged()
{
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, after);
    QFETCH(QByteArray, fault);
    QByteArray text = goodCatalogue();
    QVERIFY(text.contains(before));
    text.replace(before, after);
    const auto catalogue = vl::readCatalogue(text.toStdString());
    QVERIFY2(catalogue.has_value() == fault.isEmpty(),
             catalogue ? "accepted" : catalogue.error().message.c_str());
    if (catalogue)
        return;
    QCOMPARE(catalogue.error().code, vlupd::UPDATER_DATA_ERROR);
    QVERIFY2(catalogue.error().message.find(fault.toStdString()) != std::string::npos,
             catalogue.error().message.c_str());
}

void CatalogueTest::everyTruncationIsRefused()
{
    const std::string text = goodCatalogue().trimmed().toStdString();
    for (std::size_t size = 0; size < text.size(); ++size)
        QVERIFY2(!vl::readCatalogue(std::string_view(text).substr(0, size)),
                 std::to_string(size).c_str());
}

void CatalogueTest::sizeIsCapped()
{
    std::string text = goodCatalogue().toStdString();
    text.resize(vl::maxCatalogueSize, ' ');
    QVERIFY(vl::readCatalogue(text));
    text += ' ';
    QVERIFY(!vl::readCatalogue(text));
}

QTEST_APPLESS_MAIN(CatalogueTest)
#include "cataloguetest.moc"
