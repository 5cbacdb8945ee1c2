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
    void unreadable_data();
    void unreadable();
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
    if (!document)
        return QStringLiteral("absent");
    return document->isNull() ? QStringLiteral("null")
                              : QString::fromUtf8(document->toJson(QJsonDocument::Compact));
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
    QVERIFY(!versionName(QStringLiteral("1.0.0")));

    serve({{"1.0.0", {{"name", "A"}}}, {"2.0.0", json::object()}});
    updaterAccess.acquire(3);
    QVERIFY(!availableVersionsJson(true, true));
    updaterAccess.release(3);
    QVERIFY(availableVersionsJson(true, true));
    // From here on nothing asks the library again, and nothing needs a permit.
    updaterAccess.acquire(3);
    QVERIFY(availableVersionsJson(true, false));
    QCOMPARE(versionName(QStringLiteral("1.0.0")), QStringLiteral("A"));
    QVERIFY(!versionDate(QStringLiteral("1.0.0")));
    QVERIFY(!availableVersionsJson(false, true));
    updaterAccess.release(3);
    QCOMPARE(scripted::callsOf("getAvailableVersions").size(), std::size_t{1});

    // A failed fetch leaves the cache as it was; a good one replaces it.
    serve(nullptr);
    QVERIFY(!availableVersionsJson(false, true));
    QCOMPARE(versionName(QStringLiteral("1.0.0")), QStringLiteral("A"));
    serve({{"3.0.0", json::object()}});
    QCOMPARE(compact(availableVersionsJson(false, true)), QStringLiteral(R"({"3.0.0":{}})"));
    QCOMPARE(compact(availableVersionsJson(true, true)), QStringLiteral(R"({"3.0.0":{}})"));
    QCOMPARE(updaterAccess.available(), 3);
}

void TestCatalogue::documents_data()
{
    QTest::addColumn<QString>("catalogue");
    QTest::addColumn<QString>("ordinary"); // without the special versions
    QTest::newRow("empty") << "{}"
                           << "{}";
    QTest::newRow("special last") << R"({"1.0.0":{"name":""},"1.1.0":{"name":"X"}})"
                                  << R"({"1.0.0":{"name":""}})";
    QTest::newRow("special in the middle")
        << R"({"1.0.0":{"a":1},"1.1.0":{"name":"X"},"1.2.0":{"a":3}})"
        << R"({"1.0.0":{"a":1},"1.1.0":{"a":3}})";
    QTest::newRow("two special, first and third")
        << R"({"1":{"name":"X"},"2":{"a":2},"3":{"name":"Y"},"4":{"a":4},"5":{"a":5}})"
        << R"({"1":{"a":2},"2":{"a":4},"3":{"a":5}})";
    QTest::newRow("only special") << R"({"1":{"name":"X"},"2":{"name":"Y"}})"
                                  << "{}";
    QTest::newRow("byte order of keys") << R"({"1.10.0":{"name":"X"},"1.9.0":{"a":9}})"
                                        << R"({"1.10.0":{"a":9}})";
    QTest::newRow("names that are none")
        << R"({"1":{"name":7},"2":{"name":{}},"3":"name","4":[{"name":"X"}],"5":null})"
        << R"({"1":{"name":7},"2":{"name":{}},"3":"name","4":[{"name":"X"}],"5":null})";
    QTest::newRow("other members pass")
        << R"({"1":{"big":9007199254740993,"text":"Ещё\u0000","x":[true,null,-1.5]}})"
        << R"({"1":{"big":9007199254740993,"text":"Ещё\u0000","x":[true,null,-1.5]}})";
}

void TestCatalogue::documents()
{
    QFETCH(QString, catalogue);
    QFETCH(QString, ordinary);
    cache(catalogue);
    QCOMPARE(compact(availableVersionsJson(true, false)), ordinary);
    QCOMPARE(compact(availableVersionsJson(true, true)), catalogue);
}

void TestCatalogue::unreadable_data()
{
    QTest::addColumn<std::string>("key");
    QTest::addColumn<std::string>("name");
    QTest::addColumn<int>("depth");
    QTest::addColumn<QString>("complete");
    QTest::addColumn<QString>("ordinary");
    QTest::newRow("text") << std::string("2") << std::string("\xff") << 0 << "absent"
                          << R"({"1":{}})";
    QTest::newRow("key") << std::string("2\xff") << std::string() << 0 << "absent"
                         << "absent";
    // Deeper than Qt reads.
    QTest::newRow("depth") << std::string("2") << std::string() << 2000 << "null"
                           << "null";
}

void TestCatalogue::unreadable()
{
    QFETCH(std::string, key);
    QFETCH(std::string, name);
    QFETCH(int, depth);
    QFETCH(QString, complete);
    QFETCH(QString, ordinary);
    json deep = json::array();
    for (int i = 0; i < depth; ++i)
        deep = json::array({std::move(deep)});
    serve({{"1", json::object()}, {key, {{"name", name}, {"deep", std::move(deep)}}}});
    QCOMPARE(compact(availableVersionsJson(false, true)), complete);
    QCOMPARE(compact(availableVersionsJson(true, false)), ordinary);
    QVERIFY(!versionName(QStringLiteral("2")));
}

void TestCatalogue::lookups_data()
{
    QTest::addColumn<QString>("version"); // what the catalogue says of it
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("date");
    QTest::newRow("both") << R"({"name":"Имя","date":"2024-02-29"})"
                          << "Имя"
                          << "2024-02-29";
    QTest::newRow("neither") << "{}"
                             << "absent"
                             << "absent";
    QTest::newRow("empty") << R"({"name":"","date":""})"
                           << ""
                           << "invalid";
    QTest::newRow("no such day") << R"({"date":"2023-02-29"})"
                                 << "absent"
                                 << "invalid";
    QTest::newRow("other format") << R"({"date":"01.02.2023"})"
                                  << "absent"
                                  << "invalid";
    QTest::newRow("wrong types") << R"({"name":1,"date":["2023-01-01"]})"
                                 << "absent"
                                 << "absent";
    QTest::newRow("no object") << R"("2023-01-01")"
                               << "absent"
                               << "absent";
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
    QCOMPARE(!found             ? QStringLiteral("absent")
             : found->isValid() ? found->toString(Qt::ISODate)
                                : QStringLiteral("invalid"),
             date);
    QVERIFY(!versionName(QStringLiteral("1.0")));
    QVERIFY(!versionDate(QStringLiteral("1.0")));
}

void TestCatalogue::newVersions_data()
{
    QTest::addColumn<QString>("catalogue");
    QTest::addColumn<QString>("seen");
    QTest::addColumn<bool>("hide");
    QTest::addColumn<QString>("kept");
    QTest::newRow("no catalogue") << "absent"
                                  << "1" << true << "";
    QTest::newRow("empty catalogue") << "{}"
                                     << "1" << true << "";
    QTest::newRow("never checked") << R"({"1":{}})"
                                   << "absent" << false << "1";
    QTest::newRow("catalogue missed before") << R"({"1":{}})"
                                             << "" << false << "1";
    QTest::newRow("first entry empty") << R"({"1":{}})"
                                       << " 1" << false << "1";
    QTest::newRow("the same") << R"({"2":{},"1":{}})"
                              << "2 1" << true << "1 2";
    QTest::newRow("one less") << R"({"1.0.0":{}})"
                              << "1.0.0 1.1.0" << true << "1.0.0";
    QTest::newRow("one more") << R"({"1.0.0":{},"1.2.0":{}})"
                              << "1.0.0 1.1.0" << false << "1.0.0 1.2.0";
    QTest::newRow("repeated entries") << R"({"1":{},"2":{}})"
                                      << "1 1" << false << "1 2";
}

void TestCatalogue::newVersions()
{
    QFETCH(QString, catalogue);
    QFETCH(QString, seen);
    QFETCH(bool, hide);
    QFETCH(QString, kept);
    const auto document = catalogue == u"absent"
                              ? std::nullopt
                              : std::optional(QJsonDocument::fromJson(catalogue.toUtf8()));
    const NewVersionCheck check = checkForNewVersions(document, list(seen));
    QCOMPARE(check.hideNotification, hide);
    QCOMPARE(check.availableVersions, *list(kept));
}

void TestCatalogue::items_data()
{
    QTest::addColumn<QString>("available");
    QTest::addColumn<QString>("installed");
    QTest::addColumn<QString>("items"); // text=version
    const char* const nothing = "Нет доступных версий=";
    QTest::newRow("unreadable list") << "absent"
                                     << "1.0.0" << nothing;
    QTest::newRow("empty list") << ""
                                << "" << nothing;
    QTest::newRow("one empty entry") << " "
                                     << "" << nothing;
    QTest::newRow("descending") << "1.9.0 1.10.0 1.2.0"
                                << ""
                                << "v. 1.10.0=1.10.0;v. 1.9.0=1.9.0;v. 1.2.0=1.2.0";
    QTest::newRow("installed one unknown") << "1.9.0"
                                           << "2.0.0"
                                           << "v. 2.0.0=2.0.0;v. 1.9.0=1.9.0";
    QTest::newRow("installed one in between") << "1.9.0 3.0.0"
                                              << "2.0.0"
                                              << "v. 3.0.0=3.0.0;v. 2.0.0=2.0.0;v. 1.9.0=1.9.0";
    QTest::newRow("installed one known") << "1.9.0"
                                         << "1.9.0"
                                         << "v. 1.9.0=1.9.0";
    QTest::newRow("only the installed one") << ""
                                            << "1.9.0"
                                            << "v. 1.9.0=1.9.0";
    QTest::newRow("names") << "7.0.0 7.1.0"
                           << ""
                           << "v. 7.1.0 ()=7.1.0;v. 7.0.0 (Особая)=7.0.0";
    QTest::newRow("no version number") << "1.0.0 zeta"
                                       << ""
                                       << "v. 1.0.0=1.0.0;v. zeta=zeta";
}

void TestCatalogue::items()
{
    QFETCH(QString, available);
    QFETCH(QString, installed);
    QFETCH(QString, items);
    cache(QStringLiteral(R"({"1.9.0":{},"7.0.0":{"name":"Особая"},"7.1.0":{"name":""}})"));
    QStringList found;
    for (const VersionItem& item : versionItems(list(available), installed, QStringLiteral("v. ")))
        found += item.text + u'=' + item.version;
    QCOMPARE(found.join(u';'), items);
}

QTEST_GUILESS_MAIN(TestCatalogue)
#include "tst_catalogue.moc"
