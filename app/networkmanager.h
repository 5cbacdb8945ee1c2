#pragma once

class QNetworkAccessManager;

/// The one network manager of the process, made on first use and never deleted. GUI thread only.
QNetworkAccessManager* networkManager();
