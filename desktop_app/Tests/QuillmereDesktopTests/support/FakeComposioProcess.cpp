#include "support/FakeComposioProcess.h"

#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QUuid>

#include <csignal>
#include <sys/prctl.h>

namespace {
// How long the fake may take to print its address.
constexpr int kStartTimeoutMs = 15000;
} // namespace

FakeComposioProcess::FakeComposioProcess()
    : m_process(std::make_unique<QProcess>()), m_key(QUuid::createUuid().toString(QUuid::Id128)) {
    const QString script = QDir(QStringLiteral(QUILLMERE_SOURCE_ROOT))
                               .filePath(QStringLiteral("cloud_app/tests/fake_composio.py"));
    m_process->setStandardErrorFile(QProcess::nullDevice());
    m_process->setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGTERM); });
    m_process->start(QStringLiteral("/usr/bin/python3"), {script, QStringLiteral("--key"), m_key});
    QByteArray output;
    QElapsedTimer waited;
    waited.start();
    while (waited.elapsed() < kStartTimeoutMs && m_process->state() != QProcess::NotRunning &&
           !output.contains('\n')) {
        m_process->waitForReadyRead(200);
        output += m_process->readAllStandardOutput();
    }
    if (output.contains('\n'))
        m_url = QUrl(QString::fromUtf8(output.left(output.indexOf('\n')).trimmed()));
}

FakeComposioProcess::~FakeComposioProcess() {
    if (m_process->state() != QProcess::NotRunning) {
        m_process->terminate();
        if (!m_process->waitForFinished(5000))
            m_process->kill();
        m_process->waitForFinished(5000);
    }
}

QProcessEnvironment FakeComposioProcess::relayEnvironment() const {
    QProcessEnvironment environment;
    environment.insert(QStringLiteral("COMPOSIO_API_KEY"), m_key);
    environment.insert(QStringLiteral("COMPOSIO_BASE_URL"), m_url.toString());
    return environment;
}

bool FakeComposioProcess::activate(const QString& accountId) const {
    QUrl target = m_url;
    target.setPath(QStringLiteral("/_fake/activate"));
    QNetworkAccessManager network;
    QNetworkRequest request(target);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    QNetworkReply* reply = network.post(request, QJsonDocument(QJsonObject{{"id", accountId}}).toJson());
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    loop.exec();
    const bool ok = reply->error() == QNetworkReply::NoError;
    reply->deleteLater();
    return ok;
}
