#include "tests/support/scriptedvl.h"
#include "updates/catalogue.h"
#include "updates/updater.h"

#include <QJsonObject>
#include <QTest>

using nlohmann::json;

class TestCatalogue : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void readOnceAndKept();
    void rules_data();
    void rules();
};

/// One of the catalogue's functions, with what it takes and what it gives written as texts.
using Rule = QString (*)(const QString& first, const QString& second);
Q_DECLARE_METATYPE(Rule)

namespace {

const QString absent = QStringLiteral("absent");

void serve(json catalogue)
{
    scripted::Script script;
    script.catalogue = std::move(catalogue);
    scripted::setScript(std::move(script));
}

/// Puts `catalogue` into the cache and returns it as it comes out.
std::optional<QJsonDocument> cached(const QString& catalogue)
{
    serve(json::parse(catalogue.toStdString()));
    return availableVersionsJson(false, true);
}

std::optional<QStringList> list(const QString& text)
{
    if (text == absent)
        return std::nullopt;
    return text.isEmpty() ? QStringList() : text.split(u' ');
}

/// The catalogue without its special versions.
QString ordinary(const QString& catalogue, const QString& /*unused*/)
{
    if (cached(catalogue)->toJson(QJsonDocument::Compact) != catalogue.toUtf8())
        return QStringLiteral("changed on the way");
    return QString::fromUtf8(availableVersionsJson(true, false)->toJson(QJsonDocument::Compact));
}

QString nameAndDate(const QString& description, const QString& version)
{
    cached(QStringLiteral(R"({"1.0.0":%1})").arg(description));
    const std::optional<QDate> date = versionDate(version);
    // An invalid date has no text.
    return versionName(version).value_or(absent) + u'|' +
           (date ? date->toString(Qt::ISODate) : absent);
}

/// Whether the notice stays hidden, and the versions that are kept.
QString newVersions(const QString& catalogue, const QString& seen)
{
    const NewVersionCheck check =
        checkForNewVersions(catalogue == absent ? std::nullopt : cached(catalogue), list(seen));
    return (check.hideNotification ? QStringLiteral("hide ") : QStringLiteral("show ")) +
           check.availableVersions.join(u' ');
}

QString items(const QString& available, const QString& installed)
{
    cached(QStringLiteral(R"({"1.9.0":{},"7.0.0":{"name":"Особая"},"7.1.0":{"name":""}})"));
    QStringList found;
    for (const VersionItem& item : versionItems(list(available), installed, QStringLiteral("v. ")))
        found += item.text + u'=' + item.version;
    return found.join(u';');
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

void TestCatalogue::rules_data()
{
    QTest::addColumn<Rule>("rule");
    QTest::addColumn<QString>("first");
    QTest::addColumn<QString>("second");
    QTest::addColumn<QString>("result");
    const auto row = [](Rule rule, const char* first, const char* second, const char* result) {
        QTest::addRow("%s, %s", first, second)
            << rule << QString::fromUtf8(first) << QString::fromUtf8(second)
            << QString::fromUtf8(result);
    };
    row(ordinary, R"({"1.0.0":{"name":""},"1.1.0":{"name":"X"}})", "", R"({"1.0.0":{"name":""}})");
    row(ordinary, R"({"1.0.0":{"a":1},"1.1.0":{"name":"X"},"1.2.0":{"a":3}})", "",
        R"({"1.0.0":{"a":1},"1.1.0":{"a":3}})");
    row(ordinary, R"({"1":{"name":"X"},"2":{"a":2},"3":{"name":"Y"},"4":{"a":4}})", "",
        R"({"1":{"a":2},"2":{"a":4}})");
    row(ordinary, R"({"1":{"name":7},"2":"name","3":[{"name":"X"}],"4":null})", "",
        R"({"1":{"name":7},"2":"name","3":[{"name":"X"}],"4":null})");

    row(nameAndDate, R"({"name":"Имя","date":"2024-02-29"})", "1.0.0", "Имя|2024-02-29");
    row(nameAndDate, R"({"name":"Имя","date":"2024-02-29"})", "1.0", "absent|absent");
    row(nameAndDate, R"({"name":"","date":"2023-02-29"})", "1.0.0", "|");
    row(nameAndDate, R"({"name":1,"date":["2023-01-01"]})", "1.0.0", "absent|absent");
    row(nameAndDate, R"("2023-01-01")", "1.0.0", "absent|absent");

    row(newVersions, "absent", "1", "hide ");
    row(newVersions, "{}", "1", "hide ");
    row(newVersions, R"({"1":{}})", "absent", "show 1");
    row(newVersions, R"({"1":{}})", " 1", "show 1");
    row(newVersions, R"({"1.0.0":{}})", "1.0.0 1.1.0", "hide 1.0.0");
    row(newVersions, R"({"1.0.0":{},"1.2.0":{}})", "1.0.0 1.1.0", "show 1.0.0 1.2.0");

    row(items, "absent", "1.0.0", "Нет доступных версий=");
    row(items, " ", "", "Нет доступных версий=");
    row(items, "1.9.0 1.10.0", "", "v. 1.10.0=1.10.0;v. 1.9.0=1.9.0");
    row(items, "1.9.0", "2.0.0", "v. 2.0.0=2.0.0;v. 1.9.0=1.9.0");
    row(items, "1.9.0", "1.9.0", "v. 1.9.0=1.9.0");
    row(items, "7.0.0 7.1.0", "", "v. 7.1.0 ()=7.1.0;v. 7.0.0 (Особая)=7.0.0");
    row(items, "1.0.0 zeta", "", "v. 1.0.0=1.0.0;v. zeta=zeta");
}

void TestCatalogue::rules()
{
    QFETCH(Rule, rule);
    QFETCH(QString, first);
    QFETCH(QString, second);
    QTEST(rule(first, second), "result");
}

QTEST_GUILESS_MAIN(TestCatalogue)
#include "tst_catalogue.moc"
