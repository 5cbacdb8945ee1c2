#include "tests/support/scriptedvl.h"
#include "ui/menu/descriptionsfile.h"
#include "ui/menu/menudialog.h"
#include "ui/widgets/semitransparentbutton.h"

#include <QFile>
#include <QFrame>
#include <QLabel>
#include <QScrollArea>
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
    void builtOnce();
    void selection();

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

    using List = QStringList;
    for (const char* text : {"", "not JSON", "[]", "{}"})
        QTest::addRow("'%s'", text) << QByteArray(text) << true << List() << List();
    QTest::newRow("descending by text")
        << QByteArray(R"({"1.10.0": {"fixes": []}, "1.9.0": {"fixes": []}})") << true
        << List{QStringLiteral("1.9.0"), QStringLiteral("1.10.0")} << List{QString(), QString()};
    QTest::newRow("all sections in order, with a date")
        << QByteArray(R"({"1.0.0": {"fixes": ["f"], "features": ["a", "b"], "changes": ["c"]}})")
        << true << List{QStringLiteral("1.0.0")}
        << List{QStringLiteral("Дата выпуска|• Fri May 1 2026|Добавленные функции|• a|• b|"
                               "Изменения|• c|Исправления|• f")};
    QTest::newRow("only a date") << QByteArray(R"({"1.0.0": {}})") << true
                                 << List{QStringLiteral("1.0.0")}
                                 << List{QStringLiteral("Дата выпуска|• Fri May 1 2026")};
    QTest::newRow("a date that is none") << QByteArray(R"({"1.1.0": {}})") << true
                                         << List{QStringLiteral("1.1.0")} << List{QString()};
    QTest::newRow("neither description nor date, in the middle")
        << QByteArray(R"({"1.3.0": {"fixes": ["f"]}, "1.2.0": {}, "1.0.0": {}})") << false
        << List{QStringLiteral("1.3.0")} << List{QStringLiteral("Исправления|• f")};
    QTest::newRow("wrong types")
        << QByteArray(R"({"1.4.0": {"features": "text", "changes": [1, null, "c"], "fixes": {}}})")
        << true << List{QStringLiteral("1.4.0")} << List{QStringLiteral("Изменения|• |• |• c")};
    QTest::newRow("a version that is no object")
        << QByteArray(R"({"1.0.0": "text"})") << true << List{QStringLiteral("1.0.0")}
        << List{QStringLiteral("Дата выпуска|• Fri May 1 2026")};
    const QByteArray line(100 * 1024, 'x');
    QTest::newRow("100 KB in one line")
        << QByteArray(R"({"1.4.0": {"fixes": [")" + line + R"("]}})") << true
        << List{QStringLiteral("1.4.0")}
        << List{QString(QStringLiteral("Исправления|• ") + QString::fromLatin1(line))};
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

void VersionHistoryTest::builtOnce()
{
    QVERIFY(writeFile(R"({"2.0.0": {}})", DescriptionsFile::instance().filePath));
    QVERIFY(!m_dialog->switchToPage(2)); // no date, no description
    QVERIFY(writeFile(R"({"1.0.0": {}})", DescriptionsFile::instance().filePath));
    QVERIFY(m_dialog->switchToPage(2));
    QVERIFY(buttons().isEmpty());
}

void VersionHistoryTest::selection()
{
    QVERIFY(writeFile(R"({"3": {"fixes": []}, "2": {"fixes": ["<b>&amp;"]}, "1": {"fixes": []}})",
                      DescriptionsFile::instance().filePath));
    const QSize fitted = [this] {
        m_dialog->switchToPage(2);
        return m_dialog->size();
    }();
    const auto* stack =
        m_dialog->findChild<QStackedWidget*>(QStringLiteral("descriptionStackedWidget"));
    const QList<SemiTransparentButton*> all = buttons();
    const QString plain = all.at(1)->styleSheet();
    QTRY_VERIFY(!all.at(0)->isEnabled());
    QCOMPARE(all.at(0)->transparency(), 1.0);

    all.at(1)->click();
    QCOMPARE(stack->currentIndex(), 1);
    QVERIFY(all.at(0)->isEnabled());
    QCOMPARE(all.at(0)->styleSheet(), plain);
    QCOMPARE(all.at(0)->transparency(), 0.5);
    QVERIFY(!all.at(1)->isEnabled());
    QVERIFY(all.at(1)->styleSheet().startsWith(plain));
    QVERIFY(all.at(1)->styleSheet().contains(QLatin1String("transparent #FF6D1B transparent")));

    // Release notes are no markup; the dialog was fitted before the page was built.
    QCOMPARE(stack->widget(1)->findChildren<QLabel*>().constLast()->textFormat(), Qt::PlainText);
    QCOMPARE(m_dialog->size(), fitted);
}

QTEST_MAIN(VersionHistoryTest)
#include "tst_versionhistory.moc"
