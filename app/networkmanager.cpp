#include "app/networkmanager.h"

#include <QNetworkAccessManager>

QNetworkAccessManager* networkManager()
{
    static auto* const manager = new QNetworkAccessManager;
    return manager;
}
