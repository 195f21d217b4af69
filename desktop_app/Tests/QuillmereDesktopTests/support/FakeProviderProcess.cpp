#include "support/FakeProviderProcess.h"

#include "support/RelayFixture.h"

#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>

#include <csignal>
#include <sys/prctl.h>

namespace {

// The fake needs aiohttp; the interpreter CMake found may lack it where the system's has it.
QString interpreterWithAiohttp() {
    for (const QString& candidate : {RelayFixture::python(), QStringLiteral("/usr/bin/python3")}) {
        QProcess probe;
        probe.start(candidate, {QStringLiteral("-c"), QStringLiteral("import aiohttp")});
        if (probe.waitForFinished(10000) && probe.exitStatus() == QProcess::NormalExit &&
            probe.exitCode() == 0)
            return candidate;
    }
    return RelayFixture::python();
}

QByteArray call(const QByteArray& method, const QUrl& url, const QByteArray& body = {}) {
    QNetworkAccessManager network;
    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    QNetworkReply* reply = network.sendCustomRequest(request, method, body);
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    loop.exec();
    const QByteArray answer = reply->error() == QNetworkReply::NoError ? reply->readAll() : QByteArray();
    reply->deleteLater();
    return answer;
}

} // namespace

FakeProviderProcess::FakeProviderProcess(const QString& defaultText)
    : m_process(std::make_unique<QProcess>()) {
    const QString script = QDir(QStringLiteral(QUILLMERE_SOURCE_ROOT))
                               .filePath(QStringLiteral("cloud_app/tests/fake_provider.py"));
    m_process->setStandardErrorFile(QProcess::nullDevice());
    m_process->setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGTERM); });
    m_process->start(interpreterWithAiohttp(),
                     {script, QStringLiteral("--port"), QStringLiteral("0"), QStringLiteral("--key"), key,
                      QStringLiteral("--text"), defaultText});
    QByteArray output;
    QElapsedTimer waited;
    waited.start();
    while (waited.elapsed() < 15000 && m_process->state() != QProcess::NotRunning && !output.contains('\n')) {
        m_process->waitForReadyRead(200);
        output += m_process->readAllStandardOutput();
    }
    if (output.contains('\n'))
        m_url = QUrl(QString::fromUtf8(output.left(output.indexOf('\n')).trimmed()));
}

FakeProviderProcess::~FakeProviderProcess() {
    if (m_process->state() != QProcess::NotRunning) {
        m_process->terminate();
        if (!m_process->waitForFinished(5000))
            m_process->kill();
        m_process->waitForFinished(5000);
    }
}

bool FakeProviderProcess::script(const QJsonArray& replies) const {
    QUrl target = m_url;
    target.setPath(QStringLiteral("/_fake/script"));
    return !call("POST", target, QJsonDocument(QJsonObject{{"replies", replies}}).toJson()).isNull();
}

QJsonArray FakeProviderProcess::requests() const {
    QUrl target = m_url;
    target.setPath(QStringLiteral("/_fake/requests"));
    const QJsonDocument document = QJsonDocument::fromJson(call("GET", target));
    QJsonArray model;
    const QJsonArray all =
        document.isArray() ? document.array() : document.object().value("requests").toArray();
    for (const QJsonValue& request : all)
        if (request.toObject().value("path").toString().startsWith(QStringLiteral("/v1/")))
            model << request;
    return model;
}

QProcessEnvironment FakeProviderProcess::inventory(const QStringList& capabilities) const {
    const QJsonObject lane{
        {"id", "fake-lane"},
        {"provider", "fake"},
        {"display_name", "Fake Lane"},
        {"capabilities", QJsonArray::fromStringList(capabilities)},
        {"context_window", 128000},
        {"latency_ms", 500},
        {"input_cost_per_million", 1.0},
        {"output_cost_per_million", 4.0},
        {"quality", 80},
        {"protocol_name", "openai_chat"},
        {"endpoint", m_url.toString() + QStringLiteral("/v1")},
        {"api_key_env", keyVariable},
        {"upstream_model", "fake-model"},
        {"data_policy", "standard"},
        {"supported_parameters", QJsonArray{"stream"}},
        {"available", true},
    };
    QProcessEnvironment environment;
    environment.insert(QStringLiteral("ROUTER_MODELS_JSON"),
                       QString::fromUtf8(QJsonDocument(QJsonArray{lane}).toJson(QJsonDocument::Compact)));
    environment.insert(keyVariable, key);
    return environment;
}
