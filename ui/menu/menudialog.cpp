#include "ui/menu/menudialog.h"

#include "ui/widgets/semitransparentbutton.h"
#include "ui_menudialog.h"
#include "updates/updater.h"

#include <QMouseEvent>
#include <QTextDocument>

namespace {

enum Page { SettingsPage = 0, HistoryPage = 2 };

/// Brings the size hints of `widget` up to date. A change inside a nested frame otherwise reaches
/// the outer layouts only through the event loop.
void updateHints(const QWidget* widget)
{
    QLayout* layout = widget->layout();
    if (!layout)
        return;
    for (int i = 0; i < layout->count(); ++i) {
        const QWidget* child = layout->itemAt(i)->widget();
        if (child && !child->isHidden())
            updateHints(child);
    }
    layout->activate();
}

} // namespace

MenuDialog::MenuDialog(QWidget* parent) : QDialog(parent), ui(std::make_unique<Ui::MenuDialog>())
{
    ui->setupUi(this);
    setWindowFlags(Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint);
    // Or the layout enlarges the fixed size of a page that grows, if that equals its own minimum.
    ui->gridLayout_2->setSizeConstraint(QLayout::SetNoConstraint);

    connect(ui->closeButton, &QPushButton::clicked, this, [this] { setVisible(false); });
    connect(ui->attachFileButton, &QPushButton::clicked, this, &MenuDialog::attachFiles);
    connect(ui->sendReportButton, &QPushButton::clicked, this, &MenuDialog::sendReport);
    connect(ui->deleteSimulatorButton, &QPushButton::clicked, this,
            &MenuDialog::deleteInstalledVersion);
    connect(ui->checkFilesButton, &QPushButton::clicked, this, &MenuDialog::checkInstalledFiles);
#if QT_VERSION >= QT_VERSION_CHECK(6, 7, 0)
    connect(ui->showSpecialCheckBox, &QCheckBox::checkStateChanged, this,
            &MenuDialog::onShowSpecialStateChanged);
#else
    connect(ui->showSpecialCheckBox, &QCheckBox::stateChanged, this,
            [this](int state) { onShowSpecialStateChanged(static_cast<Qt::CheckState>(state)); });
#endif

    // The subject's fixed height leaves no room for the usual margin; both texts begin at one edge.
    ui->reportHeaderTextEdit->document()->setDocumentMargin(1);
    ui->reportBodyTextEdit->document()->setDocumentMargin(1);
    ui->settingsStatusLabel->hide();
    ui->reportStatusLabel->hide();
    ui->changeInstallationPathButton->hide();
    updater = updaterInstance();
}

MenuDialog::~MenuDialog() = default;

bool MenuDialog::switchToPage(int index)
{
    ui->stackedWidget->setCurrentIndex(index);
    // The history is fitted before it is built: its columns have their sizes from the form.
    resizeToCurrentPage();
    if (index == SettingsPage)
        prepareSettingsPage();
    if (index != HistoryPage || versionHistoryLoaded || buildVersionHistory())
        return true;

    setVisible(false);
    Q_EMIT warningWindowRequested(
        QStringLiteral("Не удалось загрузить список изменений. Попробуйте переустановить программу "
                       "или перезапустить её в условиях наличия доступа к интернету."));
    return false;
}

void MenuDialog::resizeToCurrentPage()
{
    const QWidget* page = ui->stackedWidget->currentWidget();
    updateHints(page);
    const QSize hint = page->minimumSizeHint();
    setFixedSize(hint.width(), ui->windowControlsFrame->height() + hint.height());
}

void MenuDialog::mousePressEvent(QMouseEvent* event)
{
    dragPosition = event->position().toPoint();
}

void MenuDialog::mouseMoveEvent(QMouseEvent* event)
{
    if (event->buttons().testFlag(Qt::LeftButton))
        move(pos() + event->position().toPoint() - dragPosition);
}
