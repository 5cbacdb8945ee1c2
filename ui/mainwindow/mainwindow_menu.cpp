// The way to the side menu.
#include "ui/mainwindow/mainwindow.h"
#include "ui/menu/menudialog.h"

void MainWindow::openMenu(int page)
{
    if (!menuDialog) {
        menuDialog = std::make_unique<MenuDialog>();
        connect(menuDialog.get(), &MenuDialog::warningWindowRequested, this,
                &MainWindow::showWarningWindow);
        connect(menuDialog.get(), &MenuDialog::onRemovingSimulatorSucceed, this,
                &MainWindow::refreshView);
        connect(menuDialog.get(), &MenuDialog::isProgressStateIDLE, this,
                &MainWindow::isProgressStateIDLE);
        connect(menuDialog.get(), &MenuDialog::reloadConfigRequired, this,
                &MainWindow::reloadConfig);
    }
    menuDialog->show();
    if (menuDialog->switchToPage(page))
        menuDialog->move(x() + width() / 2 - menuDialog->width() / 2,
                         y() + height() / 2 - menuDialog->height() / 2);
}
