#include "ui/mainwindow/mainwindow.h"

#include "ui/menu/menudialog.h"
#include "ui/widgets/nativeframe.h"
#include "ui/widgets/replywindow.h"
#include "ui/widgets/warningwindow.h"
#include "ui/widgets/windowdrag.h"
#include "ui/widgets/windowresize.h"
#include "ui_mainwindow.h"
#include "updates/installationhelper.h"
#include "updates/updater.h"

#include <QCloseEvent>
#include <QCoreApplication>
#include <QDesktopServices>
#include <QGraphicsOpacityEffect>
#include <QUrl>

#include <algorithm>

namespace {

constexpr double inactiveOpacity = 0.6;

} // namespace

MainWindow::MainWindow(QWidget* parent)
    : QMainWindow(parent), ui(std::make_unique<Ui::MainWindow>())
{
    ui->setupUi(this);
    connectButtons();
    setWindowFlag(Qt::FramelessWindowHint, true);
    setUpFrame();
    setProgressState(ProgressState::IDLE);
    updater = updaterInstance();
    updater->setLogBuf(&logBuffer);
    reloadConfig();
}

MainWindow::~MainWindow()
{
    // Whichever buffer the library writes to, the window's or a worker's, goes with the window.
    updater->setLogBuf(nullptr);
}

bool MainWindow::isInstalling() const
{
    const auto workers = findChildren<InstallationHelper*>();
    return std::any_of(workers.cbegin(), workers.cend(),
                       [](const InstallationHelper* worker) { return worker->isRunning(); });
}

void MainWindow::changeEvent(QEvent* event)
{
    QMainWindow::changeEvent(event);
    if (event->type() == QEvent::ActivationChange)
        showActivation();
    else if (event->type() == QEvent::WindowStateChange)
        showWindowState();
}

void MainWindow::closeEvent(QCloseEvent* event)
{
    QMainWindow::closeEvent(event);
    // The side menu may be open: closing the last window would not be enough.
    QCoreApplication::quit();
}

void MainWindow::showWarningWindow(const QString& aErrorText) const
{
    WarningWindow window;
    window.setErrorText(aErrorText);
    window.exec();
}

void MainWindow::connectButtons()
{
    connect(ui->minimizeButton, &QPushButton::clicked, this, &QWidget::showMinimized);
    connect(ui->expandButton, &QPushButton::clicked, this, [this] { toggleMaximized(*this); });
    connect(ui->closeButton, &QPushButton::clicked, this, &QWidget::close);
    connect(ui->helpButton, &QPushButton::clicked, this, &MainWindow::openSupportPage);
    connect(ui->settingsButton, &QPushButton::clicked, this, [this] { openMenu(0); });
    connect(ui->bugreportButton, &QPushButton::clicked, this, [this] { openMenu(1); });
    connect(ui->versionHistoryButton, &QPushButton::clicked, this, [this] { openMenu(2); });
    connect(ui->runSimulatorButton, &QPushButton::clicked, this,
            &MainWindow::runSimulatorBtnHandler);
#ifdef VARNEL_BUG_REPORT
    ui->bugreportButton->setEnabled(true);
    ui->bugreportButton->setToolTip({});
#endif
}

void MainWindow::setUpFrame()
{
    installNativeFrame(*this);
    new WindowDrag(this, ui->titleBar);
    new WindowResize(this);
    ui->titleContent->setGraphicsEffect(new QGraphicsOpacityEffect);
    ui->iconLabel->setPixmap(
        windowIcon().pixmap(ui->iconLabel->minimumSize(), devicePixelRatioF()));
    ui->runSimulatorButton->setFocus();
    showActivation();
    showWindowState();
}

void MainWindow::showActivation()
{
    auto* effect = static_cast<QGraphicsOpacityEffect*>(ui->titleContent->graphicsEffect());
    effect->setOpacity(inactiveOpacity);
    effect->setEnabled(!isActiveWindow());
    for (auto* button : ui->titleBar->findChildren<SemiTransparentButton*>())
        button->setTransparency(isActiveWindow() ? 1.0 : inactiveOpacity);
}

void MainWindow::showWindowState()
{
    const QString action =
        isMaximized() ? QStringLiteral("Восстановить") : QStringLiteral("Развернуть");
    ui->expandButton->setToolTip(action);
    ui->expandButton->setAccessibleName(action);
    ui->expandButton->setIcon(QIcon(isMaximized()
                                        ? QStringLiteral(":/icons/media/icons/Icon_restore.png")
                                        : QStringLiteral(":/icons/media/icons/Icon_expand.png")));
    const int border = isMaximized() ? 0 : 1;
    ui->rootLayout->setContentsMargins(border, border, border, border);
}

void MainWindow::openSupportPage()
{
    ReplyWindow question;
    question.setReplyText(
        QStringLiteral("Для обращения в поддержку требуется открыть браузер. Продолжить?"));
    question.exec();
    if (question.isAccepted())
        QDesktopServices::openUrl(QUrl(QStringLiteral(VARNEL_SUPPORT_URL)));
}
