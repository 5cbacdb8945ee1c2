#include "tests/support/scriptedvl.h"
#include "ui/menu/descriptionsfile.h"
#include "ui/menu/menudialog.h"
#include "ui/widgets/semitransparentbutton.h"

#include <QFile>
#include <QFrame>
#include <QLabel>
#include <QSignalSpy>
#include <QStackedWidget>
#include <QTest>

#include <memory>

/// The history page, built from "descriptions.json" and the dates of a scripted catalogue.
class VersionHistoryTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void build_data();
    void build();
    void missingFileIsTriedAgain();

private:
    QList<SemiTransparentButton*> buttons() const;
    /// The texts of the labels on each page.
    QStringList pages() const;

    std::unique_ptr<MenuDialog> m_dialog;
};

void VersionHistoryTest::initTestCase()
{
    // The launcher reads its catalogue once per process.
    scripted::Script script;
    script.catalogue = nlohmann::json::parse(
        R"({"1.0.0": {"date": "2026-05-01"}, "1.1.0": {"date": "soon"}, "1.2.0": {"date": 5}})");
    scripted::setScript(script);
}

void VersionHistoryTest::init()
{
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

QStringList VersionHistoryTest::pages() const
{
    QStringList texts;
    const auto* stack =
        m_dialog->findChild<QStackedWidget*>(QStringLiteral("descriptionStackedWidget"));
    for (int i = 0; i < stack->count(); ++i) {
        QStringList labels;
        const auto found = stack->widget(i)->findChildren<QLabel*>();
        for (const QLabel* label : found)
            labels << label->text();
        texts << labels.join(QLatin1Char('|'));
    }
    return texts;
}

void VersionHistoryTest::build_data()
{
    QTest::addColumn<QByteArray>("file");
    QTest::addColumn<bool>("built");
    QTest::addColumn<QStringList>("versions");
    QTest::addColumn<QStringList>("pages");

    const auto row = [](const char* name, const QByteArray& file, const QStringList& versions,
                        const QStringList& pages, bool built = true) {
        QTest::newRow(name) << file << built << versions << pages;
    };
    const QString date = QStringLiteral("Дата выпуска|• Fri May 1 2026");
    const QString version = QStringLiteral("1.0.0");
    const QString unknown = QStringLiteral("1.4.0"); // to the catalogue
    row("not JSON", "not JSON", {}, {});
    row("descending by text", R"({"1.10.0": {"fixes": []}, "1.9.0": {"fixes": []}})",
        {QStringLiteral("1.9.0"), QStringLiteral("1.10.0")}, {QString(), QString()});
    row("all sections in order, with a date",
        R"({"1.0.0": {"fixes": ["f"], "features": ["a", "b"], "changes": ["c"]}})", {version},
        {QString(date + QStringLiteral("|Добавленные функции|• a|• b|Изменения|• c|"
                                       "Исправления|• f"))});
    row("only a date", R"({"1.0.0": {}})", {version}, {date});
    row("a date that is none", R"({"1.1.0": {}})", {QStringLiteral("1.1.0")}, {QString()});
    row("neither description nor date, in the middle",
        R"({"1.4.0": {"fixes": ["f"]}, "1.2.0": {}, "1.0.0": {}})", {unknown},
        {QStringLiteral("Исправления|• f")}, false);
    row("wrong types", R"({"1.4.0": {"features": "text", "changes": [1, null, "c"], "fixes": {}}})",
        {unknown}, {QStringLiteral("Изменения|• |• |• c")});
    row("a version that is no object", R"({"1.0.0": "text"})", {version}, {date});
}

void VersionHistoryTest::build()
{
    QFETCH(QByteArray, file);
    QFETCH(bool, built);
    QFETCH(QStringList, versions);
    QVERIFY(writeFile(file, DescriptionsFile::instance().filePath));
    QSignalSpy warned(m_dialog.get(), &MenuDialog::warningWindowRequested);

    QCOMPARE(m_dialog->switchToPage(2), built);
    QCOMPARE(m_dialog->isHidden(), !built);
    QCOMPARE(warned.size(), built ? 0 : 1);
    QStringList texts;
    for (const auto* button : buttons())
        texts << button->text();
    QCOMPARE(texts, versions);
    QTEST(pages(), "pages");
    // The first version is selected a moment later, also when a later one failed.
    if (!versions.isEmpty() && built)
        QTRY_VERIFY(!buttons().constFirst()->isEnabled());
}

void VersionHistoryTest::missingFileIsTriedAgain()
{
    QSignalSpy warned(m_dialog.get(), &MenuDialog::warningWindowRequested);
    QVERIFY(!m_dialog->switchToPage(2));
    QVERIFY(m_dialog->isHidden());
    QCOMPARE(warned.size(), 1);
    QCOMPARE(warned.first().first().toString(),
             QStringLiteral("Не удалось загрузить список изменений. Попробуйте переустановить "
                            "программу или перезапустить её в условиях наличия доступа к "
                            "интернету."));

    QVERIFY(writeFile(R"({"1.0.0": {}})", DescriptionsFile::instance().filePath));
    m_dialog->show();
    QVERIFY(m_dialog->switchToPage(2));
    QCOMPARE(buttons().size(), 1);
}

QTEST_MAIN(VersionHistoryTest)
#include "tst_versionhistory.moc"
