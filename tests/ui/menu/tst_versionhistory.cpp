#include "tests/support/scriptedvl.h"
#include "ui/menu/descriptionsfile.h"
#include "ui/menu/menudialog.h"
#include "ui/widgets/semitransparentbutton.h"
#include "updates/catalogue.h"

#include <QFile>
#include <QFrame>
#include <QLabel>
#include <QSignalSpy>
#include <QStackedWidget>
#include <QTest>

#include <memory>

/// The descriptions made from a scripted catalogue, and the history page made from their file.
class VersionHistoryTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void requested_data();
    void requested();
    void build_data();
    void build();
    void selection();
    void missingFileIsTriedAgain();

private:
    QList<SemiTransparentButton*> buttons() const;
    QStackedWidget* stack() const
    {
        return m_dialog->findChild<QStackedWidget*>(QStringLiteral("descriptionStackedWidget"));
    }

    std::unique_ptr<MenuDialog> m_dialog;
};

namespace {

void serve(const std::string& catalogue)
{
    scripted::Script script;
    script.catalogue = nlohmann::json::parse(catalogue);
    scripted::setScript(script);
    availableVersionsJson(false, true); // what was read before does not count
}

void writeDescriptions(const QByteArray& text)
{
    if (!writeFile(text, DescriptionsFile::instance().filePath))
        qFatal("No descriptions could be written");
}

} // namespace

void VersionHistoryTest::init()
{
    serve(R"({"1.0.0": {"date": "2026-05-01"}, "1.1.0": {"date": "soon"}, "1.2.0": {"date": 5}})");
    m_dialog = std::make_unique<MenuDialog>();
    m_dialog->show();
}

void VersionHistoryTest::cleanup()
{
    m_dialog.reset();
    QFile::remove(DescriptionsFile::instance().filePath);
}

QList<SemiTransparentButton*> VersionHistoryTest::buttons() const
{
    return m_dialog->findChild<QFrame*>(QStringLiteral("versionButtonsFrame"))
        ->findChildren<SemiTransparentButton*>(QString(), Qt::FindDirectChildrenOnly);
}

void VersionHistoryTest::requested_data()
{
    QTest::addColumn<QByteArray>("catalogue");
    QTest::addColumn<QByteArray>("descriptions");
    const auto row = [](const char* name, const char* catalogue, const char* descriptions) {
        QTest::newRow(name) << QByteArray(catalogue) << QByteArray(descriptions);
    };
    row("no version that is an object", R"({"1":"text","2":[]})", "absent");
    row("three lists, copied unchanged",
        R"({"1":{"changelog":{"features":[],"changes":"a","fixes":[1,null],"b":[]}},"2":{"fixes":[]}})",
        R"({"1":{"changes":"a","features":[],"fixes":[1,null]},"2":{}})");
    row("changelog that is none", R"({"1":{"changelog":["fixes"]}})", R"({"1":{}})");
    row("a special version moves the next one up",
        R"({"1":{"name":"X"},"2":{"changelog":{"fixes":["a"]}}})", R"({"1":{"fixes":["a"]}})");
}

void VersionHistoryTest::requested()
{
    QFETCH(QByteArray, catalogue);
    serve(catalogue.toStdString());
    const auto found = requestDescriptions(nullptr);
    QTEST(found ? found->toJson(QJsonDocument::Compact) : QByteArray("absent"), "descriptions");
}

void VersionHistoryTest::build_data()
{
    QTest::addColumn<QByteArray>("file");
    QTest::addColumn<bool>("built");
    QTest::addColumn<QStringList>("pages"); // each version with the texts on its page

    const auto row = [](const char* name, const QByteArray& file, const QStringList& pages,
                        bool built = true) { QTest::newRow(name) << file << built << pages; };
    const QString dated = QStringLiteral("1.0.0|Дата выпуска|• Fri May 1 2026");
    row("empty", "", {});
    row("not JSON", "not JSON", {});
    row("an array", R"(["1.0.0"])", {});
    row("descending by text", R"({"1.10.0": {"fixes": []}, "1.9.0": {"fixes": []}})",
        {QStringLiteral("1.9.0"), QStringLiteral("1.10.0")});
    row("all sections in order, with a date",
        R"({"1.0.0": {"fixes": ["f"], "features": ["a", "b"], "changes": ["c"]}})",
        {QString(dated + QStringLiteral("|Добавленные функции|• a|• b|Изменения|• c|"
                                        "Исправления|• f"))});
    row("only a date", R"({"1.0.0": {}})", {dated});
    row("a date that is none", R"({"1.1.0": {}})", {QStringLiteral("1.1.0")});
    row("neither description nor date, in the middle",
        R"({"1.4.0": {"fixes": ["f"]}, "1.2.0": {}, "1.0.0": {}})",
        {QStringLiteral("1.4.0|Исправления|• f")}, false);
    row("wrong types", R"({"1.4.0": {"features": "text", "changes": [1, null, "c"], "fixes": {}}})",
        {QStringLiteral("1.4.0|Изменения|• |• |• c")});
    row("a version that is no object", R"({"1.0.0": "text"})", {dated});
    const QByteArray line(100 * 1024, 'x');
    row("100 KB in one line", R"({"1.4.0": {"fixes": [")" + line + R"("]}})",
        {QString(QStringLiteral("1.4.0|Исправления|• ") + QString::fromLatin1(line))});
}

void VersionHistoryTest::build()
{
    QFETCH(QByteArray, file);
    QFETCH(bool, built);
    writeDescriptions(file);
    QSignalSpy warned(m_dialog.get(), &MenuDialog::warningWindowRequested);

    QCOMPARE(m_dialog->switchToPage(2), built);
    QCOMPARE(m_dialog->isHidden(), !built);
    QCOMPARE(warned.size(), built ? 0 : 1);
    QStringList pages;
    for (int i = 0; i < buttons().size(); ++i) {
        pages << buttons().at(i)->text();
        for (const QLabel* label : stack()->widget(i)->findChildren<QLabel*>())
            pages.last() += QLatin1Char('|') + label->text();
    }
    QTEST(pages, "pages");
    // The first version is selected a moment later, also when a later one failed.
    if (!pages.isEmpty())
        QTRY_VERIFY(!buttons().constFirst()->isEnabled());

    // The page is built once, whatever became of it.
    writeDescriptions(R"({"1.0.0": {}, "1.1.0": {}, "1.3.0": {"fixes": []}})");
    QVERIFY(m_dialog->switchToPage(2));
    QCOMPARE(buttons().size(), pages.size());
}

void VersionHistoryTest::selection()
{
    writeDescriptions(
        R"({"2-wider-than-its-column": {"fixes": []}, "1": {"fixes": ["<b>&amp;"]}})");
    m_dialog->switchToPage(2);
    const QSize fitted = m_dialog->size();
    auto* first = buttons().at(0);
    auto* second = buttons().at(1);
    const QString plain = second->styleSheet();
    QTRY_VERIFY(!first->isEnabled());
    QCOMPARE(stack()->currentIndex(), 0);
    QCOMPARE(first->transparency(), 1.0);
    QCOMPARE(m_dialog->size(), fitted); // the page was fitted before it was built

    second->click();
    QCOMPARE(stack()->currentIndex(), 1);
    QVERIFY(first->isEnabled());
    QCOMPARE(first->styleSheet(), plain);
    QCOMPARE(first->transparency(), 0.5);
    QVERIFY(!second->isEnabled());
    QVERIFY(second->styleSheet().startsWith(plain) && second->styleSheet() != plain);
    // Release notes are no markup.
    QCOMPARE(stack()->currentWidget()->findChildren<QLabel*>().constLast()->textFormat(),
             Qt::PlainText);
}

void VersionHistoryTest::missingFileIsTriedAgain()
{
    QSignalSpy warned(m_dialog.get(), &MenuDialog::warningWindowRequested);
    QVERIFY(!m_dialog->switchToPage(2));
    QVERIFY(m_dialog->isHidden());
    QCOMPARE(warned.value(0).value(0).toString(),
             QStringLiteral("Не удалось загрузить список изменений. Попробуйте переустановить "
                            "программу или перезапустить её в условиях наличия доступа к "
                            "интернету."));
    writeDescriptions(R"({"1.0.0": {}})");
    m_dialog->show();
    QVERIFY(m_dialog->switchToPage(2));
    QCOMPARE(buttons().size(), 1);
}

QTEST_MAIN(VersionHistoryTest)
#include "tst_versionhistory.moc"
