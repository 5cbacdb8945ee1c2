#include "tests/support/scriptedvl.h"
#include "updates/catalogue.h"
#include "updates/updater.h"

#include <QJsonObject>
#include <QTest>

#include <string>

class TestCatalogue : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void readOnceAndKept();
    void documents_data();
    void documents();
    void lookups_data();
    void lookups();
    void newVersions_data();
    void newVersions();
    void items_data();
    void items();
};

namespace {

using nlohmann::json;

void serve(json catalogue)
{
    scripted::Script script;
    script.catalogue = std::move(catalogue);
    scripted::setScript(std::move(script));
}

/// Puts `catalogue` into the cache.
void cache(const QString& catalogue)
{
    serve(json::parse(catalogue.toStdString()));
    availableVersionsJson(false, true);
}

QString compact(const std::optional<QJsonDocument>& document)
{
    return document ? QString::fromUtf8(document->toJson(QJsonDocument::Compact))
                    : QStringLiteral("absent");
}

std::optional<QStringList> list(const QString& text)
{
    if (text == u"absent")
        return std::nullopt;
    return text.isEmpty() ? QStringList() : text.split(u' ');
}

} // namespace

void TestCatalogue::readOnceAndKept()
{
    serve(json::array());
    QVERIFY(!availableVersionsJson(true, true));

    serve({{"1.0.0", {{"name", "A"}}}});
    updaterAccess.acquire(3);
    QVERIFY(!availableVersionsJson(true, true));
    updaterAccess.release(3);
    QVERIFY(availableVersionsJson(true, true));
    // From here on nothing asks the library again, and nothing needs a permit.
    updaterAccess.acquire(3);
    QCOMPARE(versionName(QStringLiteral("1.0.0")), QStringLiteral("A"));
    updaterAccess.release(3);
    QCOMPARE(scripted::callsOf("getAvailableVersions").size(), std::size_t{1});

    // A failed fetch leaves the cache as it was; texts that are not UTF-8 give no document.
    serve(nullptr);
    QVERIFY(!availableVersionsJson(false, true));
    QCOMPARE(versionName(QStringLiteral("1.0.0")), QStringLiteral("A"));
    serve({{"1.0.0", json::object()}, {"2.0.0", {{"name", "\xff"}}}});
    QVERIFY(!availableVersionsJson(false, true));
}

void TestCatalogue::documents_data()
{
    QTest::addColumn<QString>("catalogue");
    QTest::addColumn<QString>("ordinary"); // without the special versions
    const auto row = [](const char* name, const char* catalogue, const char* ordinary) {
        QTest::newRow(name) << QString::fromUtf8(catalogue) << QString::fromUtf8(ordinary);
    };
    row("special last", R"({"1.0.0":{"name":""},"1.1.0":{"name":"X"}})",
        R"({"1.0.0":{"name":""}})");
    row("special in the middle", R"({"1.0.0":{"a":1},"1.1.0":{"name":"X"},"1.2.0":{"a":3}})",
        R"({"1.0.0":{"a":1},"1.1.0":{"a":3}})");
    row("first and third", R"({"1":{"name":"X"},"2":{"a":2},"3":{"name":"Y"},"4":{"a":4}})",
        R"({"1":{"a":2},"2":{"a":4}})");
    row("names that are none", R"({"1":{"name":7},"2":"name","3":[{"name":"X"}],"4":null})",
        R"({"1":{"name":7},"2":"name","3":[{"name":"X"}],"4":null})");
}

void TestCatalogue::documents()
{
    QFETCH(QString, catalogue);
    QFETCH(QString, ordinary);
    cache(catalogue);
    QCOMPARE(compact(availableVersionsJson(true, false)), ordinary);
    QCOMPARE(compact(availableVersionsJson(true, true)), catalogue);
}

void TestCatalogue::lookups_data()
{
    QTest::addColumn<QString>("version"); // what the catalogue says of it
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("date");
    const auto row = [](const char* version, const char* name, const char* date) {
        QTest::newRow(version) << QString::fromUtf8(version) << QString::fromUtf8(name)
                               << QString::fromUtf8(date);
    };
    row(R"({"name":"Имя","date":"2024-02-29"})", "Имя", "2024-02-29");
    row(R"({"name":"","date":"2023-02-29"})", "", "invalid");
    row(R"({"name":1,"date":["2023-01-01"]})", "absent", "absent");
    row(R"("2023-01-01")", "absent", "absent");
}

void TestCatalogue::lookups()
{
    QFETCH(QString, version);
    QFETCH(QString, name);
    QFETCH(QString, date);
    cache(QStringLiteral(R"({"1.0.0":%1})").arg(version));
    const QString key = QStringLiteral("1.0.0");
    QCOMPARE(versionName(key).value_or(QStringLiteral("absent")), name);
    const std::optional<QDate> found = versionDate(key);
    const QString text =
        found && found->isValid() ? found->toString(Qt::ISODate) : QStringLiteral("invalid");
    QCOMPARE(found ? text : QStringLiteral("absent"), date);
    QVERIFY(!versionName(QStringLiteral("1.0")));
}

void TestCatalogue::newVersions_data()
{
    QTest::addColumn<QString>("catalogue");
    QTest::addColumn<QString>("seen");
    QTest::addColumn<bool>("hide");
    QTest::addColumn<QString>("kept");
    const auto row = [](const char* name, const char* catalogue, const char* seen, bool hide,
                        const char* kept) {
        QTest::newRow(name) << QString::fromUtf8(catalogue) << QString::fromUtf8(seen) << hide
                            << QString::fromUtf8(kept);
    };
    row("no catalogue", "absent", "1", true, "");
    row("never checked", R"({"1":{}})", "absent", false, "1");
    row("first entry empty", R"({"1":{}})", " 1", false, "1");
    row("one less", R"({"1.0.0":{}})", "1.0.0 1.1.0", true, "1.0.0");
    row("one more", R"({"1.0.0":{},"1.2.0":{}})", "1.0.0 1.1.0", false, "1.0.0 1.2.0");
}

void TestCatalogue::newVersions()
{
    QFETCH(QString, catalogue);
    QFETCH(QString, seen);
    const auto document = catalogue == u"absent"
                              ? std::nullopt
                              : std::optional(QJsonDocument::fromJson(catalogue.toUtf8()));
    const NewVersionCheck check = checkForNewVersions(document, list(seen));
    QTEST(check.hideNotification, "hide");
    QTEST(check.availableVersions.join(u' '), "kept");
}

void TestCatalogue::items_data()
{
    QTest::addColumn<QString>("available");
    QTest::addColumn<QString>("installed");
    QTest::addColumn<QString>("items"); // text=version
    const auto row = [](const char* name, const char* available, const char* installed,
                        const char* items) {
        QTest::newRow(name) << QString::fromUtf8(available) << QString::fromUtf8(installed)
                            << QString::fromUtf8(items);
    };
    row("unreadable list", "absent", "1.0.0", "Нет доступных версий=");
    row("one empty entry", " ", "", "Нет доступных версий=");
    row("descending", "1.9.0 1.10.0", "", "v. 1.10.0=1.10.0;v. 1.9.0=1.9.0");
    row("installed one unknown", "1.9.0", "2.0.0", "v. 2.0.0=2.0.0;v. 1.9.0=1.9.0");
    row("installed one known", "1.9.0", "1.9.0", "v. 1.9.0=1.9.0");
    row("names", "7.0.0 7.1.0", "", "v. 7.1.0 ()=7.1.0;v. 7.0.0 (Особая)=7.0.0");
    row("no version number", "1.0.0 zeta", "", "v. 1.0.0=1.0.0;v. zeta=zeta");
}

void TestCatalogue::items()
{
    QFETCH(QString, available);
    QFETCH(QString, installed);
    cache(QStringLiteral(R"({"1.9.0":{},"7.0.0":{"name":"Особая"},"7.1.0":{"name":""}})"));
    QStringList found;
    for (const VersionItem& item : versionItems(list(available), installed, QStringLiteral("v. ")))
        found += item.text + u'=' + item.version;
    QTEST(found.join(u';'), "items");
}

QTEST_GUILESS_MAIN(TestCatalogue)
#include "tst_catalogue.moc"
