#include "app/paths.h"
#include "tests/support/modalanswerer.h"
#include "tests/vl/install/installfixture.h"
#include "ui/menu/menudialog.h"
#include "updates/updater.h"

#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>

/// The settings page on the update library itself.
class SettingsPageLibraryTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void checksAndRemoves();
};

void SettingsPageLibraryTest::initTestCase()
{
    Releases releases;
    releases.publish("1.0.0", {{"bin/simulator", "the simulator"}, {"карта.txt", "карта"}});
    const Root root(releases);
    std::filesystem::copy_file(root.path() / "vl.json",
                               applicationDirectory().filesystemAbsolutePath() / "vl.json");
    QCOMPARE(updaterInstance()->installVersion(
                 "1.0.0", [](auto...) { return true; }, [](auto) {}),
             vlupd::OK);
}

void SettingsPageLibraryTest::cleanupTestCase()
{
    const auto program =
        std::filesystem::path(QCoreApplication::applicationFilePath().toStdString());
    for (const auto& entry : std::filesystem::directory_iterator(program.parent_path()))
        if (entry.path() != program)
            std::filesystem::remove_all(entry.path());
}

void SettingsPageLibraryTest::checksAndRemoves()
{
    const QDir folder = latestInstalledVersion().value().second;
    MenuDialog dialog;
    connect(&dialog, &MenuDialog::isProgressStateIDLE, this, [] { return true; });
    QSignalSpy removed(&dialog, &MenuDialog::onRemovingSimulatorSucceed);
    ModalAnswerer answerer([](QDialog& question) {
        question.findChild<QPushButton*>(QStringLiteral("acceptButton"))->click();
    });
    const auto click = [&](const char* button) {
        dialog.findChild<QPushButton*>(QLatin1String(button))->click();
        return dialog.findChild<QLabel*>(QStringLiteral("settingsStatusLabel"))->text();
    };
    const auto* path =
        dialog.findChild<QPlainTextEdit*>(QStringLiteral("installationPathTextEdit"));
    dialog.show();
    for (int i = 0; i < 2; ++i) // the first writes the size that nobody has measured yet
        dialog.switchToPage(0);
    QCOMPARE(path->toPlainText(), folder.absolutePath());

    QCOMPARE(click("checkFilesButton"), QStringLiteral("Ошибки не найдены."));
    writeFile(folder.filesystemAbsolutePath() / u"карта.txt", "кар");
    QCOMPARE(click("checkFilesButton"),
             QStringLiteral("Файлы повреждены. Возможно, требуется переустановка."));

    click("deleteSimulatorButton");
    QCOMPARE(removed.size(), 1);
    QTRY_VERIFY(!folder.exists()); // deleted beside the program
    QVERIFY(!latestInstalledVersion());
    QCOMPARE(path->toPlainText(), QStringLiteral("Не установлено"));
}

QTEST_MAIN(SettingsPageLibraryTest)
#include "tst_settingspagelibrary.moc"
